#include "run_end.h"

#include "display_name.h"
#include "exit_status.h"
#include "message.h"
#include "size_text.h"

namespace tool {
namespace {

// Appends to a list in words.
void append(std::string &list, const std::string &more) {
  list += (list.empty() ? "" : ", ") + more;
}

// "1 directory could not be read, 2 files could not be opened"; empty if nothing was left out.
std::string omissions_in_words(const Report &report) {
  std::string words;
  for (const std::string &remark : omission_remarks(report)) {
    append(words, remark);
  }
  return words;
}

bool explain_omissions(const Report &report, const LogLines &log, bool are_listed) {
  const uint64_t errors = report.findings.counters.nr_error;
  const std::string words = omissions_in_words(report);
  if (words.empty()) {
    if (errors > 0) {
      print_error(format_count(errors, "error") +
                  " during the scan: " + escaped_name(log.first_error()));
    }
    return errors > 0;
  }
  if (!are_listed) {
    print_error(words + "; the first: " + describe(report.omissions.front()));
  }
  return true;
}

bool explain_left_alone(const Report &report) {
  const MergeCounts counts = count_outcomes(report.findings);
  std::string words;
  if (counts.refused > 0) {
    append(words, std::to_string(counts.refused) + " refused");
  }
  if (counts.changed > 0) {
    append(words, std::to_string(counts.changed) + " changed since the scan");
  }
  if (!words.empty()) {
    print_error(format_count(counts.refused + counts.changed, "file") + " not merged: " + words);
  }
  return !words.empty();
}

}  // namespace

int explain_end(const Report &report, const LogLines &log, bool is_quiet,
                bool omissions_are_listed) {
  const bool has_omissions = explain_omissions(report, log, omissions_are_listed);
  const bool merges = report.applied || !report.is_scan;
  const bool has_left_alone = merges && explain_left_alone(report);
  if (report.stopped && !is_quiet) {
    print_error(std::string("stopped early: ") + undone_remark(report));
  }
  return has_omissions || has_left_alone || report.stopped ? PARTIAL : DONE;
}

}  // namespace tool
