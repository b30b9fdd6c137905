#include <ctime>
#include <nlohmann/json.hpp>
#include <string_view>

#include "display_name.h"
#include "report.h"
#include "report_page.h"
#include "size_text.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view PLACE_OF_DATA = "@REPORT_DATA@";

std::string local_time() {
  const time_t now = time(nullptr);
  struct tm parts = {};
  char text[32] = "";
  if (localtime_r(&now, &parts) != nullptr) {
    std::strftime(text, sizeof text, "%F %T", &parts);
  }
  return text;
}

// On file systems that cannot share data the map shows what is not merged, since nothing can be
// freed.
bool can_free_space(const Findings &findings) {
  return findings.unsharable_bytes() == 0 || !findings.reclaimable().is_none();
}

std::string about(const Report &report) {
  std::string text = "Scan of";
  for (const std::string &root : report.roots) {
    text += (&root == &report.roots.front() ? " " : ", ") + escaped_name(root);
  }
  return text + " on " + local_time() + ", " + format_duration(report.elapsed);
}

Json notes(const Report &report) {
  Json list = Json::array();
  if (report.stopped || report.out_of_time) {
    list.push_back("Stopped early: the findings are not complete.");
  }
  for (const std::string &remark : space_remarks(report)) {
    list.push_back("Space: " + remark + ".");
  }
  return list;
}

Json figures(const Report &report) {
  const Findings &findings = report.findings;
  Json list = Json::array();
  if (report.applied) {
    list.push_back({"freed", format_size(findings.freed().certain)});
    list.push_back({findings.is_unsharable() ? "files recorded" : "files merged",
                    std::to_string(count_outcomes(findings).merged)});
  } else {
    list.push_back({"can be freed", format_size(findings.reclaimable().certain)});
    list.push_back({"not merged yet", format_size(findings.unmerged_bytes())});
  }
  const Space space = report.applied ? findings.freed() : findings.reclaimable();
  if (space.uncertain > 0) {
    list.push_back({"at most besides", format_size(space.uncertain)});
  }
  list.push_back({"groups", std::to_string(findings.groups.size())});
  list.push_back({"identical files", std::to_string(findings.grouped_files())});
  return list;
}

uint64_t shown_bytes(const Share &share, bool shows_reclaimable) {
  return shows_reclaimable ? share.reclaimable.certain : share.unmerged_bytes;
}

// The part of each file in what is shown of its group: equal parts within each share.
std::vector<uint64_t> parts_of(const FoundGroup &group, bool shows_reclaimable) {
  std::vector<uint64_t> parts(group.files.size());
  for (const Share &share : group.shares) {
    for (const size_t place : share.files) {
      parts[place] = shown_bytes(share, shows_reclaimable) / share.files.size();
    }
  }
  return parts;
}

Json group_data(const FoundGroup &group, bool shows_reclaimable) {
  const std::vector<uint64_t> parts = parts_of(group, shows_reclaimable);
  Json files = Json::array();
  for (size_t place = 0; place < group.files.size(); ++place) {
    const FoundFile &file = group.files[place];
    files.push_back(
        {escaped_name(file.path), file_word(file), escaped_name(file.reason), parts[place]});
  }
  return {{"bytes", shows_reclaimable ? group.reclaimable().certain : group.unmerged_bytes()},
          {"size", group.size()},
          {"freed", group.freed().certain},
          {"files", std::move(files)}};
}

Json counter_rows(const Report &report) {
  const Counters &counters = report.findings.counters;
  return Json::array({{"directories read", std::to_string(counters.nr_dir_read)},
                      {"directories tried", std::to_string(counters.nr_dir_opened)},
                      {"files opened", std::to_string(counters.nr_file_opened)},
                      {"candidates", std::to_string(counters.nr_scan_file)},
                      {"files read whole", std::to_string(counters.nr_hashed)},
                      {"errors", std::to_string(counters.nr_error)},
                      {"left out: no deduplication", std::to_string(report.unsupported)},
                      {"left out: unknown state", std::to_string(report.unknown)}});
}

Json space_rows(const Report &report) {
  Json rows =
      Json::array({{"saved already by sharing", format_size(report.findings.saved_bytes())}});
  if (report.applied) {
    const MergeCounts counts = count_outcomes(report.findings);
    rows.push_back({"merged", std::to_string(counts.merged)});
    rows.push_back({"shared before", std::to_string(counts.already_shared)});
    rows.push_back({"nothing to gain", std::to_string(counts.no_gain)});
    rows.push_back({"changed since the scan", std::to_string(counts.changed)});
    rows.push_back({"refused", std::to_string(counts.refused)});
    rows.push_back({"not tried", std::to_string(counts.not_tried)});
  }
  return rows;
}

Json page_data(const Report &report) {
  const Findings &findings = report.findings;
  const bool shows_reclaimable = can_free_space(findings);
  Json data;
  data["about"] = about(report);
  data["notes"] = notes(report);
  data["figures"] = figures(report);
  data["applied"] = report.applied;
  data["mapTitle"] = shows_reclaimable ? (report.applied ? "Space that could be freed, by directory"
                                                         : "Space that can be freed, by directory")
                                       : "Data not merged yet, by directory";
  data["bytesTitle"] = !shows_reclaimable ? "Not merged yet"
                       : report.applied   ? "Could be freed"
                                          : "Can be freed";
  data["groups"] = Json::array();
  for (const FoundGroup &group : findings.groups) {
    data["groups"].push_back(group_data(group, shows_reclaimable));
  }
  data["compressed"] = Json::array();
  for (const FoundFile &file : findings.compressed) {
    data["compressed"].push_back(escaped_name(file.path));
  }
  data["lists"] = Json::array({counter_rows(report), space_rows(report)});
  return data;
}

// JSON that cannot end the script element in which it stands.
std::string embedded(const Json &data) {
  std::string text;
  for (const char c : data.dump()) {
    if (c == '<') {
      text += "\\u003c";
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace

std::string html_report(const Report &report) {
  std::string page(REPORT_PAGE);
  return page.replace(page.find(PLACE_OF_DATA), PLACE_OF_DATA.size(), embedded(page_data(report)));
}

}  // namespace tool
