#include "name_list.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

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
  while ((length = getdelim(&line, &room, separator, stream)) > 0) {
    std::string entry(line, static_cast<size_t>(length));
    if (entry.back() == separator) {
      entry.pop_back();
    }
    if (!entry.empty()) {
      entries.push_back(std::move(entry));
    }
  }
  const int error = errno;
  std::free(line);
  return std::feof(stream) != 0 ? 0 : error;
}

}  // namespace

bool read_list(const std::string &file, char separator, std::vector<std::string> &entries) {
  const std::unique_ptr<std::FILE, CloseUnlessInput> stream(
      file == "-" ? stdin : std::fopen(file.c_str(), "re"));
  const int error = stream == nullptr ? errno : read_entries(stream.get(), separator, entries);
  if (error != 0) {
    print_error("cannot read", file, std::strerror(error));
  }
  return error == 0;
}

bool read_globs(const std::string &file, std::vector<std::string> &globs) {
  std::vector<std::string> lines;
  const bool is_read = read_list(file, '\n', lines);
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(globs),
               [](const std::string &line) { return !line.starts_with('#'); });
  return is_read;
}

}  // namespace tool
