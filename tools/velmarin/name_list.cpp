#include "name_list.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include "message.h"

namespace tool {
namespace {

struct CloseUnlessInput {
  void operator()(std::FILE *stream) const {
    if (stream != stdin) {
      std::fclose(stream);
    }
  }
};

// Returns 0 or an errno.
int read_entries(std::FILE *stream, char separator, std::vector<std::string> &entries) {
  char *line = nullptr;
  size_t room = 0;
  ssize_t length = 0;
  errno = 0;
  while ((length = getdelim(&line, &room, separator, stream)) != -1) {
    entries.emplace_back(line, static_cast<size_t>(length));
    if (entries.back().back() == separator) {
      entries.back().pop_back();
    }
  }
  const int error = errno;
  std::free(line);
  return std::feof(stream) != 0 ? 0 : error;
}

// Prints an error message on failure.
bool read_all(const std::string &file, char separator, std::vector<std::string> &entries) {
  const std::unique_ptr<std::FILE, CloseUnlessInput> stream(
      file == "-" ? stdin : std::fopen(file.c_str(), "re"));
  const int error = stream == nullptr ? errno : read_entries(stream.get(), separator, entries);
  if (error != 0) {
    print_error("cannot read", file == "-" ? "standard input" : file, std::strerror(error));
  }
  return error == 0;
}

}  // namespace

bool read_lines(const std::string &file, std::vector<std::string> &lines) {
  constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";
  const bool is_read = read_all(file, '\n', lines);
  for (std::string &line : lines) {
    if (line.ends_with('\r')) {
      line.pop_back();
    }
  }
  if (!lines.empty() && lines.front().starts_with(BYTE_ORDER_MARK)) {
    lines.front().erase(0, BYTE_ORDER_MARK.size());
  }
  return is_read;
}

bool read_names(const std::string &file, bool end_by_nul, std::vector<std::string> &names) {
  std::vector<std::string> entries;
  const bool is_read = end_by_nul ? read_all(file, '\0', entries) : read_lines(file, entries);
  std::copy_if(entries.begin(), entries.end(), std::back_inserter(names),
               [](const std::string &entry) { return !entry.empty(); });
  return is_read;
}

bool read_globs(const std::string &file, std::vector<std::string> &globs) {
  std::vector<std::string> lines;
  const bool is_read = read_lines(file, lines);
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(globs),
               [](const std::string &line) { return !line.empty() && !line.starts_with('#'); });
  return is_read;
}

}  // namespace tool
