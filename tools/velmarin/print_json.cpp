#include <cstring>
#include <nlohmann/json.hpp>

#include "display_name.h"
#include "report.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

// A name that is not UTF-8 also comes as its bytes, so that it can be told from others like it.
void put_name(Json &object, const std::string &path) {
  object["path"] = utf8_name(path);
  if (!is_utf8(path)) {
    object["path_bytes"] = hex_text(path);
  }
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
  object["inode"] = file.state.error == 0 && file.state.unchanged ? file.state.inode : file.inode;
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
  object["reclaimable_bytes"] = group.reclaimable_bytes();
  if (applied) {
    object["freed_bytes"] = group.freed_bytes();
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
  return {{"files", counts.merged},        {"already_shared", counts.already_shared},
          {"changed", counts.changed},     {"refused", counts.refused},
          {"not_tried", counts.not_tried}, {"freed_bytes", findings.freed_bytes()}};
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

}  // namespace

Json json_report(const Report &report) {
  const Findings &findings = report.findings;
  Json object;
  object["format"] = 1;
  object["velmarin"] = VELMARIN_VERSION;
  object["roots"] = json_roots(report.roots);
  object["stopped"] = report.stopped;
  object["out_of_time"] = report.out_of_time;
  object["elapsed_ms"] = report.elapsed.count();
  object["unmerged_bytes"] = findings.unmerged_bytes();
  object["reclaimable_bytes"] = findings.reclaimable_bytes();
  object["groups"] = Json::array();
  for (const FoundGroup &group : findings.groups) {
    object["groups"].push_back(json_group(group, report.applied));
  }
  object["compressed"] = Json::array();
  for (const FoundFile &file : findings.compressed) {
    object["compressed"].push_back(json_compressed(file));
  }
  object["counters"] = json_counters(report);
  object["statistics"] = json_statistics(findings.statistics);
  if (report.applied) {
    object["merged"] = json_merged(findings);
  }
  return object;
}

}  // namespace tool
