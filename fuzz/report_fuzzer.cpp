// Puts arbitrary names into a report. The JSON form must be valid and keep every name. The text
// form must contain only harmless characters, on the same lines as with any other names. In the
// HTML page no name may escape from the element that holds the data. An escaped name must decode to
// its bytes.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "display_name.h"
#include "html_report.h"
#include "page_frame.h"
#include "report.h"

using nlohmann::json;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void require(bool holds, const char *what) {
  if (!holds) {
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
  }
}

// A file name may hold any byte but NUL.
std::string take_name(FuzzedDataProvider &input) {
  std::string name = input.ConsumeRandomLengthString(80);
  std::replace(name.begin(), name.end(), '\0', '0');
  return name;
}

tool::FoundFile take_file(FuzzedDataProvider &input) {
  tool::FoundFile file;
  file.path = take_name(input);
  file.inode = input.ConsumeIntegral<uint32_t>();
  file.status = input.ConsumeIntegralInRange<int64_t>(-140, 5);
  file.size = input.ConsumeIntegral<uint64_t>();
  file.blocks = input.ConsumeIntegral<uint64_t>();
  file.mtime = {input.ConsumeIntegral<time_t>(), input.ConsumeIntegralInRange(0L, 999999999L)};
  if (input.ConsumeBool()) {
    file.digest.emplace().fill(input.ConsumeIntegral<uint8_t>());
  }
  file.state.error = input.ConsumeIntegralInRange(0, 133);
  file.state.unchanged = input.ConsumeBool();
  file.outcome = static_cast<tool::Outcome>(
      input.ConsumeIntegralInRange(0, static_cast<int>(tool::Outcome::not_tried)));
  if (input.ConsumeBool()) {
    file.reason = take_name(input);
  }
  return file;
}

tool::FoundGroup take_group(FuzzedDataProvider &input) {
  tool::FoundGroup group;
  tool::Share share;
  const int count = input.ConsumeIntegralInRange(1, 4);
  for (int i = 0; i < count; i++) {
    group.files.push_back(take_file(input));
    share.files.push_back(static_cast<size_t>(i));
  }
  share.can_share = input.ConsumeBool();
  share.unmerged_bytes = input.ConsumeIntegral<uint64_t>();
  share.reclaimable = {input.ConsumeIntegral<uint64_t>(), input.ConsumeIntegral<uint64_t>()};
  group.shares.push_back(share);
  return group;
}

tool::Report take_report(FuzzedDataProvider &input) {
  tool::Report report;
  report.applied = input.ConsumeBool();
  report.stopped = input.ConsumeBool();
  report.unsupported = input.ConsumeIntegralInRange<uint64_t>(0, 2);
  report.roots.push_back(take_name(input));
  const int compressed = input.ConsumeIntegralInRange(0, 2);
  for (int i = 0; i < compressed; i++) {
    report.findings.compressed.push_back(take_file(input));
  }
  for (int i = 0; i < 4 && input.remaining_bytes() > 0; i++) {
    report.findings.groups.push_back(take_group(input));
  }
  return report;
}

std::string bytes_of_hex(const std::string &text) {
  std::string bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes += static_cast<char>(strtol(text.substr(i, 2).c_str(), nullptr, 16));
  }
  return bytes;
}

std::string name_in(const json &object) {
  return object.contains("path_bytes") ? bytes_of_hex(object["path_bytes"])
                                       : object["path"].get<std::string>();
}

// The dump and the parser both end the program on text that is not UTF-8.
std::string printed(const tool::Report &report) {
  char *text = nullptr;
  size_t size = 0;
  std::FILE *out = open_memstream(&text, &size);
  tool::print_json(report, out);
  fclose(out);
  std::string copy(text, size);
  free(text);
  return copy;
}

void check_json(const tool::Report &report) {
  const json object = json::parse(printed(report));
  require(name_in(object["roots"][0]) == report.roots[0], "the JSON object keeps the root");
  const tool::Findings &findings = report.findings;
  for (size_t g = 0; g < findings.groups.size(); g++) {
    const auto &files = findings.groups[g].files;
    for (size_t f = 0; f < files.size(); f++) {
      require(name_in(object["groups"][g]["files"][f]) == files[f].path,
              "the JSON object keeps every name");
    }
  }
  for (size_t f = 0; f < findings.compressed.size(); f++) {
    require(name_in(object["compressed"][f]) == findings.compressed[f].path,
            "the JSON object keeps the names of compressed files");
  }
}

std::string printed_text(const tool::Report &report) {
  char *text = nullptr;
  size_t size = 0;
  FILE *const previous = stdout;
  stdout = open_memstream(&text, &size);
  require(stdout != nullptr, "text can be printed into memory");
  tool::print_text(report, false);
  fclose(stdout);
  stdout = previous;
  std::string result(text, size);
  free(text);
  return result;
}

// Contains no ASCII or Latin-1 control character, line separator or bidirectional control.
bool is_harmless(const std::string &text) {
  for (size_t i = 0; i < text.size(); i++) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    const auto third = static_cast<unsigned char>(i + 2 < text.size() ? text[i + 2] : 0);
    const bool is_control = (byte < 0x20 && byte != '\n') || byte == 0x7f;
    const bool is_c1 = byte == 0xc2 && next < 0xa0;
    const bool is_separator_or_direction =
        byte == 0xe2 && next == 0x80 && third >= 0xa8 && third <= 0xae;
    const bool is_isolate = byte == 0xe2 && next == 0x81 && third >= 0xa6 && third <= 0xa9;
    if (is_control || is_c1 || is_separator_or_direction || is_isolate) {
      return false;
    }
  }
  return true;
}

void use_plain_names(tool::Report &report) {
  const auto rename = [](tool::FoundFile &file) {
    file.path = "plain";
    file.reason = file.reason.empty() ? "" : "plain";
  };
  std::for_each(report.findings.compressed.begin(), report.findings.compressed.end(), rename);
  for (tool::FoundGroup &group : report.findings.groups) {
    std::for_each(group.files.begin(), group.files.end(), rename);
  }
}

void check_text(tool::Report &report) {
  const std::string text = printed_text(report);
  require(is_harmless(text), "the text is of harmless characters");
  json(text).dump();  // ends the program on text that is not UTF-8
  use_plain_names(report);
  const std::string plain = printed_text(report);
  require(
      std::count(text.begin(), text.end(), '\n') == std::count(plain.begin(), plain.end(), '\n'),
      "no name adds a line");
}

// Decodes an escaped name to its bytes.
std::string unescaped(const std::string &text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] != '\\') {
      bytes += text[i];
      continue;
    }
    switch (text.at(++i)) {
      case 'n':
        bytes += '\n';
        break;
      case 't':
        bytes += '\t';
        break;
      case 'r':
        bytes += '\r';
        break;
      case 'x':
        bytes += bytes_of_hex(text.substr(i + 1, 2));
        i += 2;
        break;
      default:
        bytes += text[i];
    }
  }
  return bytes;
}

bool is_in_order(const json &directories, const json &files,
                 const std::vector<tool::FoundFile> &found) {
  return files.size() == found.size() &&
         std::equal(files.begin(), files.end(), found.begin(),
                    [&](const json &shown, const tool::FoundFile &file) {
                      const std::string directory = directories[shown[0].get<size_t>()];
                      return unescaped(directory) + unescaped(shown[1]) == file.path;
                    });
}

// The page is the template with one JSON object in it that cannot end its element.
void check_page(const tool::Report &report) {
  static const std::string frame = tool::page_frame();
  const size_t place = frame.find(tool::DATA_PLACEHOLDER);
  const std::string before = frame.substr(0, place);
  const std::string behind = frame.substr(place + tool::DATA_PLACEHOLDER.size());
  const std::string page = tool::html_report(report, {});
  require(page.starts_with(before) && page.ends_with(behind), "the page is the template");
  const std::string data = page.substr(place, page.size() - before.size() - behind.size());
  require(data.find('<') == std::string::npos, "the data ends no element");
  const json object = json::parse(data);
  for (size_t g = 0; g < report.findings.groups.size(); g++) {
    require(
        is_in_order(object["directories"], object["groups"][g][2], report.findings.groups[g].files),
        "the page keeps every name");
  }
  require(is_in_order(object["directories"], object["compressed"], report.findings.compressed),
          "the page keeps the names of compressed files");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string all(reinterpret_cast<const char *>(data), size);
  require(unescaped(tool::escaped_name(all)) == all, "an escaped name tells its bytes");
  require(is_harmless(tool::escaped_name(all)), "an escaped name is of harmless characters");
  FuzzedDataProvider input(data, size);
  tool::Report report = take_report(input);
  check_json(report);
  check_page(report);
  check_text(report);
  return 0;
}
