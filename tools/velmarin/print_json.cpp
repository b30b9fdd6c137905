// Prints a report for programs: one JSON object, one group a line, never held in memory as a whole.
#include <cstring>
#include <nlohmann/json.hpp>

#include "display_name.h"
#include "report.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

// A name that is not UTF-8 is also given as bytes, to tell it from similar names.
void put_name(Json &object, const std::string &path) {
  if (is_utf8(path)) {
    object["path"] = path;
    return;
  }
  object["path"] = utf8_name(path);
  object["path_bytes"] = hex_text(path);
}

Json json_digest(const FoundFile &file) {
  if (!file.digest) {
    return nullptr;
  }
  return hex_text({reinterpret_cast<const char *>(file.digest->data()), file.digest->size()});
}

Json json_file(const FoundFile &file) {
  Json object;
  put_name(object, file.path);
  object["inode"] = file.state.unchanged ? file.state.inode : file.inode;
  object["device"] = file.state.error == 0 ? Json(file.state.device) : Json(nullptr);
  object["status"] = file.status;
  object["blocks"] = file.blocks;
  object["mtime"] = {{"sec", file.mtime.tv_sec}, {"nsec", file.mtime.tv_nsec}};
  if (file.outcome != Outcome::none) {
    object["outcome"] = outcome_word(file.outcome);
  }
  if (!file.reason.empty()) {
    object["reason"] = utf8_name(file.reason);
  }
  return object;
}

Json json_group(const FoundGroup &group, bool applied) {
  Json object;
  object["size"] = group.size();
  object["digest"] = json_digest(group.files.front());
  object["unmerged_bytes"] = group.unmerged_bytes();
  object["reclaimable_bytes"] = group.reclaimable().certain;
  object["uncertain_bytes"] = group.reclaimable().uncertain;
  object["saved_bytes"] = group.saved_bytes();
  if (!group.is_examined()) {
    object["examined"] = false;
  }
  if (applied) {
    object["freed_bytes"] = group.freed().certain;
    object["freed_uncertain_bytes"] = group.freed().uncertain;
  }
  object["files"] = Json::array();
  for (const FoundFile &file : group.files) {
    object["files"].push_back(json_file(file));
  }
  return object;
}

Json json_compressed(const FoundFile &file) {
  Json object = json_file(file);
  object["size"] = file.size;
  object["digest"] = json_digest(file);
  return object;
}

Json json_counters(const Report &report) {
  const Counters &counters = report.findings.counters;
  return {{"nr_dir_opened", counters.nr_dir_opened},   {"nr_dir_read", counters.nr_dir_read},
          {"nr_file_opened", counters.nr_file_opened}, {"nr_scan_file", counters.nr_scan_file},
          {"nr_hashed", counters.nr_hashed},           {"nr_error", counters.nr_error},
          {"nr_unsupported", report.unsupported},      {"nr_unknown", report.unknown}};
}

Json json_statistics(const Statistics &statistics) {
  return {{"compressed_files", statistics.compressed_files},
          {"deduped_files", statistics.deduped_files},
          {"compressed_saved_bytes", statistics.compressed_saved_bytes},
          {"deduped_saved_bytes", statistics.deduped_saved_bytes}};
}

Json json_merged(const Findings &findings) {
  const MergeCounts counts = count_outcomes(findings);
  return {{"files", counts.merged},
          {"already_shared", counts.already_shared},
          {"recorded", counts.recorded},
          {"already_recorded", counts.already_recorded},
          {"no_gain", counts.no_gain},
          {"changed", counts.changed},
          {"refused", counts.refused},
          {"not_tried", counts.not_tried},
          {"freed_bytes", findings.freed().certain},
          {"freed_uncertain_bytes", findings.freed().uncertain}};
}

Json json_roots(const std::vector<std::string> &roots) {
  Json list = Json::array();
  for (const std::string &root : roots) {
    Json object;
    put_name(object, root);
    list.push_back(std::move(object));
  }
  return list;
}

Json json_omission(const Omission &omission) {
  Json object;
  put_name(object, omission.path);
  object["cause"] = cause_word(omission.cause);
  const std::string name = errno_name(omission.error);
  object["errno"] = name.empty() ? Json(nullptr) : Json(name);
  return object;
}

Json json_omission_counts(const Report &report) {
  Json counts;
  for (size_t cause = 0; cause < CAUSES; ++cause) {
    counts[cause_word(static_cast<Cause>(cause))] = report.omission_counts[cause];
  }
  return counts;
}

// Prints one object, with each member and each element of its long arrays on its own line. Holds
// only one of them at a time: there may be very many files.
class ObjectPrinter {
 public:
  explicit ObjectPrinter(std::FILE *out) : out_(out) {}
  ~ObjectPrinter() { std::fputs("\n}\n", out_); }
  ObjectPrinter(const ObjectPrinter &) = delete;
  ObjectPrinter &operator=(const ObjectPrinter &) = delete;

  void print(const char *name, const Json &value) {
    print_name(name);
    std::fputs(value.dump().c_str(), out_);
  }

  template <typename Element, typename MakeJson>
  void print_array(const char *name, const std::vector<Element> &elements, MakeJson make) {
    print_name(name);
    const char *before = "[\n    ";
    for (const Element &element : elements) {
      std::fputs(before, out_);
      std::fputs(make(element).dump().c_str(), out_);
      before = ",\n    ";
    }
    std::fputs(elements.empty() ? "[]" : "\n  ]", out_);
  }

 private:
  void print_name(const char *name) {
    std::fprintf(out_, "%s\n  \"%s\": ", before_member_, name);
    before_member_ = ",";
  }

  std::FILE *out_;
  const char *before_member_ = "{";
};

}  // namespace

void print_json(const Report &report, std::FILE *out) {
  const Findings &findings = report.findings;
  ObjectPrinter object(out);
  object.print("format", 1);
  object.print("velmarin", VELMARIN_VERSION);
  object.print("roots", json_roots(report.roots));
  object.print("stopped", report.stopped);
  object.print("out_of_time", report.out_of_time);
  object.print("elapsed_ms", report.elapsed.count());
  object.print("unmerged_bytes", findings.unmerged_bytes());
  object.print("reclaimable_bytes", findings.reclaimable().certain);
  object.print("uncertain_bytes", findings.reclaimable().uncertain);
  object.print("saved_bytes", findings.saved_bytes());
  object.print("unexamined_groups", findings.unexamined_groups());
  object.print_array("groups", findings.groups,
                     [&](const FoundGroup &group) { return json_group(group, report.applied); });
  object.print_array("compressed", findings.compressed, json_compressed);
  if (report.is_scan) {
    object.print_array("errors", report.omissions, json_omission);
    object.print("error_counts", json_omission_counts(report));
    object.print("counters", json_counters(report));
    object.print("statistics", json_statistics(findings.statistics));
  }
  if (report.applied || !report.is_scan) {
    object.print("merged", json_merged(findings));
  }
}

}  // namespace tool
