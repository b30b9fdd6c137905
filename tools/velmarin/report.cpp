#include "report.h"

#include "velmarin/control_codes.h"

namespace tool {

MergeCounts count_outcomes(const Findings &findings) {
  MergeCounts counts;
  for (const FoundGroup &group : findings.groups) {
    for (const FoundFile &file : group.files) {
      counts.merged += file.outcome == Outcome::merged;
      counts.already_shared += file.outcome == Outcome::already_shared;
      counts.changed += file.outcome == Outcome::changed;
      counts.refused += file.outcome == Outcome::refused;
      counts.not_tried += file.outcome == Outcome::not_tried;
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

}  // namespace tool
