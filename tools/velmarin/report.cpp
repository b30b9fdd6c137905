#include "report.h"

#include <numeric>

#include "size_text.h"
#include "velmarin/control_codes.h"

namespace tool {

uint64_t omission_count(const Report &report) {
  return std::accumulate(report.omission_counts.begin(), report.omission_counts.end(), uint64_t{0});
}

std::vector<std::string> omission_remarks(const Report &report) {
  std::vector<std::string> remarks;
  for (size_t cause = 0; cause < CAUSES; ++cause) {
    if (const uint64_t count = report.omission_counts[cause]; count > 0) {
      remarks.push_back(describe_omissions(static_cast<Cause>(cause), count));
    }
  }
  return remarks;
}

MergeCounts count_outcomes(const Findings &findings) {
  MergeCounts counts;
  for (const FoundGroup &group : findings.groups) {
    for (const FoundFile &file : group.files) {
      const bool can_share = file.state.can_share;
      (can_share ? counts.merged : counts.recorded) += file.outcome == Outcome::merged;
      (can_share ? counts.already_shared : counts.already_recorded) +=
          file.outcome == Outcome::already_shared;
      counts.changed += file.outcome == Outcome::changed;
      counts.refused += file.outcome == Outcome::refused;
      counts.not_tried += file.outcome == Outcome::not_tried;
      counts.no_gain += file.outcome == Outcome::no_gain;
    }
  }
  return counts;
}

const char *outcome_word(Outcome outcome) {
  switch (outcome) {
    case Outcome::source:
      return "source";
    case Outcome::merged:
      return "merged";
    case Outcome::already_shared:
      return "shared";
    case Outcome::alone:
      return "alone";
    case Outcome::changed:
      return "changed";
    case Outcome::refused:
      return "refused";
    case Outcome::not_tried:
      return "not tried";
    case Outcome::no_gain:
      return "no gain";
    case Outcome::none:
      break;
  }
  return "";
}

const char *status_word(int64_t status) {
  switch (status) {
    case velmarin::SIS_STATUS_PLAIN:
      return "plain";
    case velmarin::SIS_STATUS_LAYERED:
      return "layered";
    case velmarin::SIS_STATUS_DEDUPED:
      return "deduped";
    case velmarin::SIS_STATUS_COMPRESSED:
      return "compressed";
    default:
      return "unknown";
  }
}

const char *file_word(const FoundFile &file) {
  switch (file.outcome) {
    case Outcome::none:
      return status_word(file.status);
    case Outcome::source:
    case Outcome::merged:
    case Outcome::already_shared:
      return file.state.can_share ? outcome_word(file.outcome) : "recorded";
    default:
      return outcome_word(file.outcome);
  }
}

const char *undone_remark(const Report &report) {
  if (report.is_cut) {
    return "the findings are incomplete";
  }
  return report.applied ? "not all groups were merged" : "not all groups were examined";
}

std::vector<std::string> space_remarks(const Report &report) {
  std::vector<std::string> remarks;
  const Findings &findings = report.findings;
  const uint64_t unexamined = findings.unexamined_groups();
  if (unexamined > 0) {
    remarks.push_back(std::to_string(unexamined) + " of " +
                      format_count(findings.groups.size(), "group") +
                      " not examined: more may be freed");
  }
  if (report.applied && findings.freed().uncertain > 0) {
    remarks.push_back("up to " + format_size(findings.freed().uncertain) +
                      " more, now or once no snapshot or other file holds it");
  }
  if (!report.applied && findings.reclaimable().uncertain > 0) {
    remarks.push_back("up to " + format_size(findings.reclaimable().uncertain) +
                      " more, depending on snapshots, other files and compression");
  }
  if (findings.is_unsharable() && unexamined == 0) {
    remarks.push_back("the file system of these files cannot share data: nothing can be freed");
  } else if (findings.unsharable_bytes() > 0) {
    remarks.push_back(format_size(findings.unsharable_bytes()) +
                      " cannot be freed: the file system cannot share data");
  }
  if (findings.inline_files() > 0) {
    remarks.push_back(format_count(findings.inline_files(), "file") +
                      " with no gain: the data is stored inline in the metadata");
  }
  return remarks;
}

}  // namespace tool
