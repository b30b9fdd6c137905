#include "report_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "common/unique_fd.h"
#include "display_name.h"
#include "scan_paths.h"

namespace tool {
namespace {

using Json = nlohmann::json;
using Digest = std::array<uint8_t, 32>;

constexpr int FORMAT = 1;
constexpr size_t TEXT_MAX = size_t{512} << 20;
constexpr int DEPTH_MAX = 32;  // of nested lists and objects; a scan prints 6
constexpr int64_t ERRNO_MAX = 4095;
constexpr int64_t NANOSECONDS_MAX = 999'999'999;

// An object of the report, and its location there.
class Element {
 public:
  Element(const Json &value, std::string location) : value_(value), location_(std::move(location)) {
    if (!value.is_object()) {
      fail("not an object");
    }
  }

  [[noreturn]] void fail(const std::string &what) const {
    throw ReportError(location_ + ": " + what);
  }

  bool has(const char *name) const { return value_.contains(name); }

  const Json &member(const char *name) const {
    const auto found = value_.find(name);
    if (found == value_.end()) {
      fail(std::string(name) + " is missing");
    }
    return *found;
  }

  const std::string &text(const char *name) const {
    const Json &value = member(name);
    if (!value.is_string()) {
      fail(std::string(name) + " is not a string");
    }
    return value.get_ref<const std::string &>();
  }

  template <typename Number>
  Number number(const char *name, Number lowest, Number highest) const {
    const Json &value = member(name);
    if (!value.is_number_integer()) {
      fail(std::string(name) + " is not a whole number");
    }
    const auto fits = [&](auto number) {
      return std::cmp_greater_equal(number, lowest) && std::cmp_less_equal(number, highest);
    };
    if (value.is_number_unsigned() ? !fits(value.get<uint64_t>()) : !fits(value.get<int64_t>())) {
      fail(std::string(name) + " is out of range");
    }
    return value.get<Number>();
  }

  Element object(const char *name) const { return {member(name), location_ + ", " + name}; }

  // The bytes that the hexadecimal digits encode.
  std::string bytes(const char *name) const {
    const std::string &digits = text(name);
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
      const char *const pair = &digits[i];
      unsigned byte = 0;
      if (std::from_chars(pair, pair + 2, byte, 16).ptr != pair + 2) {  // a NUL ends an odd text
        fail(std::string(name) + " is not an even number of hexadecimal digits");
      }
      bytes += static_cast<char>(byte);
    }
    return bytes;
  }

 private:
  const Json &value_;
  const std::string location_;
};

// Why no scan could have seen this path; null if one could.
const char *path_error(std::string_view path) {
  if (!path.starts_with('/')) {
    return "path is not absolute";
  }
  if (path.find('\0') != std::string_view::npos) {
    return "path contains a NUL byte";
  }
  if (path.size() >= PATH_MAX) {
    return "path is too long";
  }
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::string_view part = path.substr(0, path.find('/'));
    if (part.empty() || part == "." || part == "..") {
      return "path has an empty, \".\" or \"..\" component";
    }
    if (part.size() > NAME_MAX) {
      return "path is too long";
    }
    path.remove_prefix(part.size());
  }
  return nullptr;
}

// The path that people see in the report must be the one that is used.
std::string path_of(const Element &element) {
  const std::string &shown = element.text("path");
  std::string path = element.has("path_bytes") ? element.bytes("path_bytes") : shown;
  if (utf8_name(path) != shown) {
    element.fail("path and path_bytes do not match");
  }
  const char *const error = path == "/" ? nullptr : path_error(path);
  if (error != nullptr) {
    element.fail(error);
  }
  return path;
}

Digest digest_of(const Element &group) {
  const std::string bytes = group.bytes("digest");
  Digest digest;
  if (bytes.size() != digest.size()) {
    group.fail("digest does not have 64 digits");
  }
  std::copy(bytes.begin(), bytes.end(), digest.begin());
  return digest;
}

FoundFile file_of(const Element &element) {
  const Element mtime = element.object("mtime");
  FoundFile file;
  file.path = path_of(element);
  file.inode = element.number<uint64_t>("inode", 0, UINT64_MAX);
  file.status = element.number<int64_t>("status", -ERRNO_MAX, 3);
  file.blocks = element.number<uint64_t>("blocks", 0, INT64_MAX);
  file.mtime.tv_sec = mtime.number<int64_t>("sec", INT64_MIN, INT64_MAX);
  file.mtime.tv_nsec = mtime.number<int64_t>("nsec", 0, NANOSECONDS_MAX);
  return file;
}

std::string numbered(const char *what, size_t number) {
  return std::string(what) + " " + std::to_string(number);
}

FoundGroup group_of(const Json &value, const std::string &location) {
  const Element element(value, location);
  const auto size = element.number<uint64_t>("size", 1, INT64_MAX);
  const Digest digest = digest_of(element);
  const Json &files = element.member("files");
  if (!files.is_array() || files.size() < 2) {
    element.fail("files is not a list of two or more files");
  }
  FoundGroup group;
  for (const Json &file : files) {
    group.files.push_back(
        file_of(Element(file, location + numbered(", file", group.files.size() + 1))));
    group.files.back().size = size;
    group.files.back().digest = digest;
  }
  return group;
}

// Builds the groups during parsing, so that only one of them at a time is held as JSON.
class ReportParser {
 public:
  Report run(const std::string &text) {
    const auto discarded =
        Json::parse(text, [this](int depth, Json::parse_event_t event, Json &value) {
          return take(depth, event, value);
        });
    for (const char *const name : {"format", "roots", "groups"}) {
      if (!complete_.contains(name)) {
        throw ReportError(std::string(name) + " is missing");
      }
    }
    return std::move(report_);
  }

 private:
  // Returns whether to keep the value in its parent.
  bool take(int depth, Json::parse_event_t event, Json &value) {
    switch (event) {
      case Json::parse_event_t::object_start:
      case Json::parse_event_t::array_start:
        begin(depth);
        return true;
      case Json::parse_event_t::key:
        take_key(depth, value.get<std::string>());
        return true;
      default:
        return take_value(depth, value);
    }
  }

  void begin(int depth) {
    if (depth >= DEPTH_MAX) {
      throw ReportError(location() + "lists and objects are nested too deeply");
    }
    keys_.resize(static_cast<size_t>(depth) + 1);
    keys_.back().clear();
  }

  void take_key(int depth, const std::string &key) {
    if (!keys_[static_cast<size_t>(depth) - 1].insert(key).second) {
      throw ReportError(location() + "duplicate " + escaped_name(key));
    }
    if (depth == 1) {
      member_ = key;
    }
  }

  bool take_value(int depth, const Json &value) {
    if (depth == 0 && !value.is_object()) {
      throw ReportError("not an object");
    }
    if (depth == 1) {
      take_member(value);
    }
    if (depth == 2 && member_ == "groups") {
      const size_t number = report_.findings.groups.size() + 1;
      report_.findings.groups.push_back(group_of(value, numbered("group", number)));
    }
    if (depth == 2 && member_ == "roots") {
      const std::string location = numbered("root", report_.roots.size() + 1);
      report_.roots.push_back(path_of(Element(value, location)));
    }
    return depth > 2 && (member_ == "groups" || member_ == "roots");
  }

  void take_member(const Json &value) {
    if (member_ == "format" && value != FORMAT) {
      throw ReportError("format is not " + std::to_string(FORMAT));
    }
    if ((member_ == "groups" || member_ == "roots") && !value.is_array()) {
      throw ReportError(member_ + " is not a list");
    }
    complete_.insert(member_);
  }

  std::string location() const {
    return member_ == "groups" && !complete_.contains(member_)
               ? numbered("group", report_.findings.groups.size() + 1) + ": "
               : "";
  }

  Report report_;
  std::string member_;                       // the report's member being parsed
  std::set<std::string> complete_;           // members parsed so far
  std::vector<std::set<std::string>> keys_;  // seen so far, for each object being parsed
};

// Deleting the last line of a list leaves a comma at the end of the line before it. Blanks such
// commas.
void blank_last_commas(std::string &text) {
  constexpr std::string_view SPACES = " \t\r\n";
  constexpr std::string_view NO_ELEMENT = ",:[{";
  char *comma = nullptr;  // after an element, with only spaces since
  bool is_in_string = false;
  bool is_behind_element = false;
  for (char *at = text.data(); *at != '\0'; ++at) {
    if (is_in_string) {
      if (*at == '\\' && at[1] != '\0') {
        ++at;
      } else {
        is_in_string = *at != '"';
      }
      continue;
    }
    if (SPACES.find(*at) != std::string_view::npos) {
      continue;
    }
    if (comma != nullptr && (*at == ']' || *at == '}')) {
      *comma = ' ';
    }
    comma = *at == ',' && is_behind_element ? at : nullptr;
    is_behind_element = NO_ELEMENT.find(*at) == std::string_view::npos;
    is_in_string = *at == '"';
  }
}

std::string line_and_column(std::string_view text, size_t byte) {
  const std::string_view before = text.substr(0, byte == 0 ? 0 : byte - 1);
  const auto line = std::count(before.begin(), before.end(), '\n') + 1;
  const size_t column = before.size() - (before.rfind('\n') + 1) + 1;
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

void check_paths(const Report &report) {
  std::unordered_set<std::string_view> paths;
  size_t group_number = 0;
  for (const FoundGroup &group : report.findings.groups) {
    const std::string location = numbered("group", ++group_number) + ", file ";
    for (size_t i = 0; i < group.files.size(); ++i) {
      const std::string &path = group.files[i].path;
      const char *const error =
          std::none_of(report.roots.begin(), report.roots.end(),
                       [&](const std::string &root) { return is_below(path, root); })
              ? ": path is not below any root"
          : !paths.insert(path).second ? ": duplicate path"
                                       : nullptr;
      if (error != nullptr) {
        throw ReportError(location + std::to_string(i + 1) + error);
      }
    }
  }
}

int open_input(const std::string &file) {
  return file == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                     : open(file.c_str(), O_RDONLY | O_CLOEXEC);
}

// Returns 0 or an errno.
int read_all(int fd, std::string &text) {
  struct stat status = {};
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
      std::cmp_greater(status.st_size, TEXT_MAX)) {
    return EFBIG;
  }
  char buffer[1 << 16];
  ssize_t count = 0;
  while ((count = read(fd, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<size_t>(count));
    if (text.size() > TEXT_MAX) {
      return EFBIG;
    }
  }
  return count < 0 ? errno : 0;
}

}  // namespace

std::string read_report_text(const std::string &file) {
  const velmarin::unique_fd fd(open_input(file));
  if (!fd.is_open()) {
    throw ReportError(std::strerror(errno));
  }
  std::string text;
  const int error = read_all(fd.get(), text);
  if (error == EFBIG) {
    throw ReportError("larger than 512 MiB");
  }
  if (error != 0) {
    throw ReportError(std::strerror(error));
  }
  return text;
}

Report parse_report(std::string text) {
  blank_last_commas(text);
  try {
    Report report = ReportParser().run(text);
    if (report.roots.empty()) {
      throw ReportError("roots is empty");
    }
    check_paths(report);
    return report;
  } catch (const Json::parse_error &error) {
    throw ReportError(line_and_column(text, error.byte) +
                      (error.byte > text.size() ? ": unexpected end" : ": not valid JSON"));
  } catch (const Json::out_of_range &) {
    throw ReportError("a number is out of range");
  }
}

}  // namespace tool
