// Arbitrary text as a report to be applied, and a good report with arbitrary edits. It is refused
// in one line, or else it names files below its roots, each once and in groups; then what is
// printed of it must be read as the same, and without any one of its groups' lines as the other
// groups.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "display_name.h"
#include "report_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void require(bool holds, const char *what) {
  if (!holds) {
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
  }
}

std::string good_file(const char *names) {
  return std::string("{") + names +
         R"(,"inode":257,"device":45,"status":0,"blocks":144,"mtime":{"sec":5,"nsec":6}})";
}

std::string good_report() {
  const std::string group =
      R"({"size":70000,"digest":")" + std::string(64, 'a') + R"(","unmerged_bytes":0,"files":[)";
  return R"({"format":1,"roots":[{"path":"/r"},{"path":"/s"}],"groups":[)" + group +
         good_file(R"("path":"/r/a")") + "," + good_file(R"("path":"/s/b")") + "]},\n" + group +
         good_file(R"("path":"/r/\ufffd","path_bytes":"2f722fff")") + "," +
         good_file(R"("path":"/r/c/d")") + "]}\n],\"compressed\":[]}";
}

std::string edited_report(FuzzedDataProvider &input) {
  constexpr const char *TOKENS[] = {
      "",        ",",        "\n",   "{}",     "[]",        "null", "-1",
      "1e9",     "1e999",    "\"\"", "\"x\":", "\"path\":", "..",   "/",
      "\\u0000", "\"/r/a\"", "{",    "[",      "true",      "1.5",  "257",
      "aa",      "\\",       "\"",   "/r/a",   "2f72",      "\xff", "\"path_bytes\":\"2f722f61\","};
  std::string text = good_report();
  for (int edits = 0; edits < 8 && input.remaining_bytes() > 0; edits++) {
    const auto place = input.ConsumeIntegralInRange<size_t>(0, text.size());
    const auto removed = input.ConsumeIntegralInRange<size_t>(0, 16);
    const auto token = input.ConsumeIntegralInRange<size_t>(0, std::size(TOKENS));
    text.replace(place, removed,
                 token < std::size(TOKENS) ? TOKENS[token] : input.ConsumeRandomLengthString(16));
  }
  return text;
}

std::optional<tool::Report> parsed(const std::string &text) {
  try {
    return tool::parse_report(text);
  } catch (const tool::ReportError &error) {
    const std::string what = error.what();
    require(!what.empty() && tool::escaped_name(what) == what,
            "an error message is printable text");
    return std::nullopt;
  }
}

bool is_below_a_root(const std::filesystem::path &path, const tool::Report &report) {
  return std::any_of(report.roots.begin(), report.roots.end(), [&](const std::string &root) {
    const std::filesystem::path below = path.lexically_relative(root);
    return root.starts_with('/') && !below.empty() && *below.begin() != "..";
  });
}

void check_files(const tool::Report &report) {
  std::set<std::string> paths;
  for (const tool::FoundGroup &group : report.findings.groups) {
    require(group.files.size() > 1, "a group has two files");
    for (const tool::FoundFile &file : group.files) {
      require(paths.insert(file.path).second, "no file is there twice");
      require(file.path.find('\0') == std::string::npos, "no path ends early");
      require(is_below_a_root(file.path, report), "every file lies below a root");
      require(std::filesystem::path(file.path).lexically_normal() == file.path,
              "no path leads astray");
    }
  }
}

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

bool is_same(const tool::FoundFile &left, const tool::FoundFile &right) {
  return left.path == right.path && left.inode == right.inode && left.status == right.status &&
         left.size == right.size && left.blocks == right.blocks && left.digest == right.digest &&
         left.mtime.tv_sec == right.mtime.tv_sec && left.mtime.tv_nsec == right.mtime.tv_nsec;
}

bool is_same(const tool::FoundGroup &left, const tool::FoundGroup &right) {
  return std::equal(left.files.begin(), left.files.end(), right.files.begin(), right.files.end(),
                    [](const auto &a, const auto &b) { return is_same(a, b); });
}

// Reads `text` and compares with the report, of which group `removed`, if there is one of that
// number, is expected to be missing.
void check_reading(const std::string &text, tool::Report report, size_t removed) {
  auto &groups = report.findings.groups;
  if (removed < groups.size()) {
    groups.erase(groups.begin() + static_cast<std::ptrdiff_t>(removed));
  }
  const auto again = parsed(text);
  require(again.has_value() && again->roots == report.roots, "what was printed can be read");
  require(std::equal(groups.begin(), groups.end(), again->findings.groups.begin(),
                     again->findings.groups.end(),
                     [](const auto &a, const auto &b) { return is_same(a, b); }),
          "a report keeps its groups");
}

void check_round(const tool::Report &report) {
  const std::string text = printed(report);
  check_reading(text, report, report.findings.groups.size());
  size_t line = text.find("\"groups\": [");
  for (size_t group = 0; group < report.findings.groups.size(); group++) {
    line = text.find('\n', line) + 1;
    std::string shorter = text;
    shorter.erase(line, text.find('\n', line) + 1 - line);
    check_reading(shorter, report, group);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider input(data, size);
  const bool is_edited = input.ConsumeBool();  // told by the last byte
  const std::string text = is_edited ? edited_report(input) : input.ConsumeRemainingBytesAsString();
  if (const auto report = parsed(text)) {
    check_files(*report);
    check_round(*report);
  }
  return 0;
}
