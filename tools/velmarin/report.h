// A finished scan, or the merging of an earlier scan's findings, and the forms in which it is
// shown.
#pragma once

#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "findings.h"
#include "omissions.h"

namespace tool {

struct Report {
  Findings findings;
  std::vector<std::string> roots;
  bool is_scan = true;              // false: the findings are those of an earlier scan
  bool applied = false;             // merging was requested
  bool is_cut = false;              // the scan ended early: there may be more to find
  bool stopped = false;             // by a signal
  bool out_of_time = false;         // the time budget was used up
  uint64_t unsupported = 0;         // files left out: their file system cannot deduplicate
  uint64_t unknown = 0;             // files left out: their state could not be queried
  std::vector<Omission> omissions;  // those kept by name
  std::array<uint64_t, CAUSES> omission_counts = {};
  std::chrono::milliseconds elapsed{};
};

// The directories and files that a scan should have examined but left out, all causes together.
uint64_t omission_count(const Report &report);

// "1 directory could not be read", ...: a remark for each cause of omissions.
std::vector<std::string> omission_remarks(const Report &report);

// The number of files with each outcome.
struct MergeCounts {
  uint64_t merged = 0;
  uint64_t already_shared = 0;
  uint64_t recorded = 0;          // as identical, where data cannot be shared
  uint64_t already_recorded = 0;  // likewise
  uint64_t changed = 0;
  uint64_t refused = 0;
  uint64_t not_tried = 0;
  uint64_t no_gain = 0;
};
MergeCounts count_outcomes(const Findings &findings);

const char *outcome_word(Outcome outcome);

// "plain", "layered", "deduped", "compressed", or "unknown" for an error.
const char *status_word(int64_t status);

// The word before a file's name in text. Where nothing can be shared, merging only records which
// files are identical.
const char *file_word(const FoundFile &file);

// What a run that was stopped or out of time left undone: "not all groups were merged".
const char *undone_remark(const Report &report);

// Remarks on the space figures, each one sentence without its full stop.
std::vector<std::string> space_remarks(const Report &report);

// Prints the report as text on standard output.
void print_text(const Report &report, bool colours);

// Lists on standard error what was left out.
void print_omissions(const Report &report);

// Prints the JSON object of `--json`.
void print_json(const Report &report, std::FILE *out);

}  // namespace tool
