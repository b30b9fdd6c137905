// Prints a report for people: the groups, what was left out, and a summary.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "display_name.h"
#include "message.h"
#include "report.h"
#include "size_text.h"

namespace tool {
namespace {

constexpr const char *BOLD = "\x1b[1m";
constexpr const char *GREEN = "\x1b[32m";
constexpr const char *YELLOW = "\x1b[33m";
constexpr const char *RED = "\x1b[31m";
constexpr const char *RESET = "\x1b[0m";

class TextPrinter {
 public:
  TextPrinter(const Report &report, bool colours) : report_(report), colours_(colours) {}

  void print() {
    for (const FoundGroup &group : report_.findings.groups) {
      print_group(group);
    }
    print_compressed();
    print_summary();
  }

 private:
  void put(const std::string &text, const char *colour = nullptr) const {
    const bool is_coloured = colours_ && colour != nullptr;
    std::printf("%s%s%s", is_coloured ? colour : "", text.c_str(), is_coloured ? RESET : "");
  }

  void print_group(const FoundGroup &group) const {
    put(format_count(group.files.size(), "file") + " of " + format_size(group.size()) + gain(group),
        BOLD);
    put("\n");
    for (const FoundFile &file : group.files) {
      print_file(file);
    }
    put("\n");
  }

  // ", 8 MiB freed", ", 8 MiB can be freed, up to 4 MiB more", ...
  std::string gain(const FoundGroup &group) const {
    if (!group.is_examined()) {
      return ", not examined";
    }
    const Space space = report_.applied ? group.freed() : group.reclaimable();
    const char *const verb = report_.applied ? " freed" : " can be freed";
    const std::string more = "up to " + format_size(space.uncertain);
    if (space.certain > 0 || (report_.applied && space.uncertain == 0)) {
      return ", " + format_size(space.certain) + verb +
             (space.uncertain > 0 ? ", " + more + " more" : "");
    }
    if (space.uncertain > 0) {
      return ", " + more + verb;
    }
    return group.unsharable_bytes() > 0 ? "" : ", nothing left to free";
  }

  // The word comes first, so that the name has the rest of the line to itself.
  void print_file(const FoundFile &file) const {
    const bool was_merged = file.outcome != Outcome::none;
    char column[16];
    std::snprintf(column, sizeof column, "  %-11s ", file_word(file));
    put(column, was_merged ? outcome_colour(file.outcome) : nullptr);
    put(escaped_name(file.path));
    if (!file.reason.empty()) {
      put(" (" + escaped_name(file.reason) + ")");
    } else if (!was_merged && file.status < 0) {
      put(std::string(" (") + std::strerror(static_cast<int>(-file.status)) + ")");
    }
    put("\n");
  }

  static const char *outcome_colour(Outcome outcome) {
    switch (outcome) {
      case Outcome::source:
      case Outcome::merged:
        return GREEN;
      case Outcome::refused:
        return RED;
      case Outcome::changed:
      case Outcome::not_tried:
        return YELLOW;
      default:
        return nullptr;
    }
  }

  void print_compressed() const {
    const auto &files = report_.findings.compressed;
    if (files.empty()) {
      return;
    }
    put(format_count(files.size(), "compressed file"), BOLD);
    put("\n");
    for (const FoundFile &file : files) {
      print_file(file);
    }
    put("\n");
  }

  void print_row(const char *name, const std::string &value) const {
    std::printf("  %-16s %s\n", name, value.c_str());
  }

  void print_summary() const {
    put("Summary", BOLD);
    put("\n");
    print_sharing();
    if (report_.is_scan) {
      print_counters();
    }
    print_row("time", format_duration(report_.elapsed) +
                          (report_.stopped ? ", stopped early" : "") +
                          (report_.out_of_time ? ", the time budget was used up" : ""));
  }

  void print_sharing() const {
    const Findings &findings = report_.findings;
    print_row(report_.is_scan ? "identical files" : "in the report",
              std::to_string(findings.grouped_files()) + " in " +
                  format_count(findings.groups.size(), "group"));
    if (report_.applied) {
      print_merged();
    } else {
      const uint64_t reclaimable = findings.reclaimable().certain;
      print_row("not merged yet", format_size(findings.unmerged_bytes()));
      print_row("can be freed", format_size(reclaimable) +
                                    (reclaimable > 0 && report_.is_scan ? " (with --apply)" : ""));
      print_left_alone();
    }
    for (const std::string &remark : space_remarks(report_)) {
      print_row("", remark);
    }
    if (!findings.is_unsharable()) {
      print_row("already saved", format_size(findings.saved_bytes()) + " by sharing data");
    }
  }

  // What can no longer be merged of an earlier scan's findings.
  void print_left_alone() const {
    const MergeCounts counts = count_outcomes(report_.findings);
    if (std::max({counts.changed, counts.refused, counts.not_tried}) > 0) {
      const std::string unexamined = std::to_string(counts.not_tried) + " not examined";
      print_row("left alone", std::to_string(counts.changed) + " changed since the scan, " +
                                  std::to_string(counts.refused) + " refused" +
                                  (counts.not_tried > 0 ? ", " + unexamined : ""));
    }
  }

  void print_merged() const {
    const MergeCounts counts = count_outcomes(report_.findings);
    const bool is_unsharable = report_.findings.is_unsharable();
    const std::string recorded = format_count(counts.recorded, "file") + ", " +
                                 std::to_string(counts.already_recorded) + " already recorded";
    std::string text = is_unsharable
                           ? recorded
                           : format_count(counts.merged, "file") + ", " +
                                 std::to_string(counts.already_shared) + " already shared";
    const auto append = [&text](uint64_t count, const char *what) {
      text += count > 0 ? ", " + std::to_string(count) + what : "";
    };
    append(counts.no_gain, " with no gain");
    append(counts.changed, " changed since the scan");
    append(counts.refused, " refused");
    append(counts.not_tried, " not tried");
    print_row(is_unsharable ? "recorded" : "merged", text);
    if (!is_unsharable && std::max(counts.recorded, counts.already_recorded) > 0) {
      print_row("recorded", recorded);
    }
    print_row("freed", format_size(report_.findings.freed().certain));
  }

  void print_counters() const {
    const Counters &counters = report_.findings.counters;
    print_row("directories", std::to_string(counters.nr_dir_read) + " read of " +
                                 std::to_string(counters.nr_dir_opened) + " tried");
    print_row("files", std::to_string(counters.nr_file_opened) + " opened, " +
                           std::to_string(counters.nr_scan_file) + " candidates, " +
                           std::to_string(counters.nr_hashed) + " read in full");
    print_omission_counts();
    if (std::max(report_.unsupported, report_.unknown) > 0) {
      print_row("left out", std::to_string(report_.unsupported) + " without deduplication, " +
                                std::to_string(report_.unknown) + " in an unknown state");
    }
  }

  // The library counts an error for each attempt, and not all that is left out.
  void print_omission_counts() const {
    const uint64_t count = omission_count(report_);
    print_row("errors", std::to_string(count > 0 ? count : report_.findings.counters.nr_error));
    for (const std::string &remark : omission_remarks(report_)) {
      print_row("", remark);
    }
  }

  const Report &report_;
  const bool colours_;
};

}  // namespace

void print_text(const Report &report, bool colours) {
  TextPrinter(report, colours).print();
}

void print_omissions(const Report &report) {
  const uint64_t count = omission_count(report);
  for (const Omission &omission : report.omissions) {
    print_error("left out: " + describe(omission));
  }
  if (count > report.omissions.size()) {
    print_error(std::to_string(count - report.omissions.size()) + " more left out");
  }
}

}  // namespace tool
