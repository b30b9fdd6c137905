// Puts the data of a report into the page of `--html`.
#include "html_report.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_map>

#include "display_name.h"
#include "page_frame.h"
#include "size_text.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

// Indexes of the kinds of bytes in a share; the page gives each a colour and a label.
enum Kind { FREE, FREED, SHARED, STUCK };

std::string local_time() {
  const time_t now = time(nullptr);
  struct tm parts = {};
  char text[32];
  std::strftime(text, sizeof text, "%F %T", localtime_r(&now, &parts));
  return text;
}

std::string about(const Report &report, const PageContext &context) {
  std::string text = "Scan of";
  for (const std::string &root : report.roots) {
    text += (&root == &report.roots.front() ? " " : ", ") + escaped_name(root);
  }
  return text + (context.host.empty() ? "" : " on the host " + escaped_name(context.host)) + ", " +
         local_time() + ", " + format_duration(report.elapsed);
}

Json systems(const PageContext &context) {
  Json list = Json::array();
  for (const Mount &mount : context.mounts) {
    list.push_back({{"type", escaped_name(mount.type)},
                    {"label", escaped_name(mount.label)},
                    {"mount", escaped_name(mount.point)},
                    {"source", escaped_name(mount.source)},
                    {"sharing", mount.can_share}});
  }
  return list;
}

Json history(const PageContext &context) {
  Json list = Json::array();
  for (const HistoryEntry &run : context.history) {
    list.push_back({{"start", run.start}, {"freed", run.freed_bytes}, {"merged", run.merged}});
  }
  return list;
}

Json notes(const Report &report) {
  Json list = Json::array();
  if (report.stopped || report.out_of_time) {
    list.push_back(std::string("Stopped early: ") + undone_remark(report) + ".");
  }
  for (const std::string &remark : space_remarks(report)) {
    list.push_back("Space: " + remark + ".");
  }
  return list;
}

Json omission_data(const Omission &omission) {
  return {escaped_name(omission.path), explain(omission)};
}

// More may have been freed than expected.
uint64_t left_bytes(const Share &share) {
  return share.reclaimable.certain - std::min(share.reclaimable.certain, share.freed.certain);
}

Json share_data(const Share &share) {
  return {left_bytes(share), share.freed.certain, share.saved_bytes,
          share.can_share ? 0 : share.unmerged_bytes};
}

uint64_t all_left_bytes(const Findings &findings) {
  uint64_t bytes = 0;
  for (const FoundGroup &group : findings.groups) {
    for (const Share &share : group.shares) {
      bytes += left_bytes(share);
    }
  }
  return bytes;
}

Json size(const char *label, uint64_t bytes) {
  return {{"label", label}, {"size", bytes}};
}

Json count(const char *label, uint64_t number) {
  return {{"label", label}, {"count", number}};
}

Json size_of_kind(Kind kind, uint64_t bytes) {
  return {{"label", ""}, {"kind", kind}, {"size", bytes}};
}

Json figures(const Report &report) {
  const Findings &findings = report.findings;
  const Space space = report.applied ? findings.freed() : findings.reclaimable();
  Json list = Json::array();
  if (report.applied) {
    list.push_back(size_of_kind(FREED, space.certain));
  }
  list.push_back(size_of_kind(FREE, all_left_bytes(findings)));
  if (space.uncertain > 0) {
    list.push_back(size("up to this much more", space.uncertain));
  }
  list.push_back(size_of_kind(SHARED, findings.saved_bytes()));
  if (findings.unsharable_bytes() > 0) {
    list.push_back(size_of_kind(STUCK, findings.unsharable_bytes()));
  }
  if (report.applied) {
    const MergeCounts counts = count_outcomes(findings);
    list.push_back(findings.is_unsharable() ? count("files recorded", counts.recorded)
                                            : count("files merged", counts.merged));
  }
  list.push_back(count("groups", findings.groups.size()));
  list.push_back(count("identical files", findings.grouped_files()));
  return list;
}

// Repeated texts, each stored once.
class TextTable {
 public:
  size_t index_of(const std::string &text) {
    const auto [found, is_new] = indices_.try_emplace(text, texts_.size());
    if (is_new) {
      texts_.push_back(escaped_name(text));
    }
    return found->second;
  }

  const Json &texts() const { return texts_; }

 private:
  std::unordered_map<std::string, size_t> indices_;
  Json texts_ = Json::array();
};

// The report's files in compact form: each gives its directory and its word by number.
class FileData {
 public:
  Json group(const FoundGroup &group) {
    Json shares = Json::array();
    std::vector<int> share_of(group.files.size(), -1);
    for (const Share &share : group.shares) {
      for (const size_t index : share.files) {
        share_of[index] = static_cast<int>(shares.size());
      }
      shares.push_back(share_data(share));
    }
    Json files = Json::array();
    for (size_t index = 0; index < group.files.size(); ++index) {
      files.push_back(file(group.files[index], share_of[index]));
    }
    return {group.size(), std::move(shares), std::move(files)};
  }

  Json file(const FoundFile &file, int share) {
    const size_t name = file.path.rfind('/') + 1;
    Json data = {directories_.index_of(file.path.substr(0, name)),
                 escaped_name(std::string_view(file.path).substr(name)),
                 words_.index_of(file_word(file)), share};
    if (!file.reason.empty()) {
      data.push_back(escaped_name(file.reason));
    }
    return data;
  }

  const Json &directories() const { return directories_.texts(); }
  const Json &words() const { return words_.texts(); }

 private:
  TextTable directories_;
  TextTable words_;
};

Json counter_rows(const Report &report) {
  const Counters &counters = report.findings.counters;
  return {count("directories read", counters.nr_dir_read),
          count("directories tried", counters.nr_dir_opened),
          count("files opened", counters.nr_file_opened),
          count("candidates", counters.nr_scan_file),
          count("files read in full", counters.nr_hashed),
          count("errors", counters.nr_error),
          count("left out: no deduplication", report.unsupported),
          count("left out: unknown state", report.unknown)};
}

Json space_rows(const Report &report) {
  Json rows = Json::array();
  rows.push_back(size("held by unmerged copies", report.findings.unmerged_bytes()));
  if (report.applied) {
    const MergeCounts counts = count_outcomes(report.findings);
    rows.push_back(count("merged", counts.merged));
    rows.push_back(count("shared before", counts.already_shared));
    if (counts.recorded + counts.already_recorded > 0) {
      rows.push_back(count("recorded as identical", counts.recorded));
      rows.push_back(count("recorded before", counts.already_recorded));
    }
    rows.push_back(count("no gain", counts.no_gain));
    rows.push_back(count("changed since the scan", counts.changed));
    rows.push_back(count("refused", counts.refused));
    rows.push_back(count("not tried", counts.not_tried));
  }
  return rows;
}

// Appends JSON that cannot end its script element.
void embed(std::string &page, const Json &data) {
  for (const char c : data.dump()) {
    if (c == '<') {
      page += "\\u003c";
    } else {
      page += c;
    }
  }
}

// Appends a list with only one element at a time held as JSON: there may be very many.
template <typename Element, typename MakeJson>
void embed_list(std::string &page, const char *name, const std::vector<Element> &elements,
                MakeJson make) {
  page += std::string("\"") + name + "\":[";
  const char *before = "";
  for (const Element &element : elements) {
    page += before;
    embed(page, make(element));
    before = ",\n";
  }
  page += "],\n";
}

void embed_data(std::string &page, const Report &report, const PageContext &context) {
  const Findings &findings = report.findings;
  FileData files;
  page += "{";
  embed_list(page, "groups", findings.groups,
             [&files](const FoundGroup &group) { return files.group(group); });
  embed_list(page, "compressed", findings.compressed,
             [&files](const FoundFile &file) { return files.file(file, -1); });
  embed_list(page, "omissions", report.omissions, omission_data);
  const Json rest = {{"directories", files.directories()},
                     {"words", files.words()},
                     {"about", about(report, context)},
                     {"systems", systems(context)},
                     {"history", history(context)},
                     {"notes", notes(report)},
                     {"figures", figures(report)},
                     {"applied", report.applied},
                     {"omissionCounts", omission_remarks(report)},
                     {"unlisted", omission_count(report) - report.omissions.size()},
                     {"lists", Json::array({counter_rows(report), space_rows(report)})}};
  std::string members;
  embed(members, rest);
  page += members.substr(1);  // continues the open object
}

}  // namespace

std::string html_report(const Report &report, const PageContext &context) {
  const std::string frame = page_frame();
  const size_t data_begin = frame.find(DATA_PLACEHOLDER);
  std::string page = frame.substr(0, data_begin);
  embed_data(page, report, context);
  return page + frame.substr(data_begin + DATA_PLACEHOLDER.size());
}

}  // namespace tool
