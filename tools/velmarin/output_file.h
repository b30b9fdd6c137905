// A file opened before long work, so that errors show early, and written after it.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace tool {

class OutputFile {
 public:
  // Opens the file without changing its contents. Returns false on failure, after an error message;
  // so does `write`.
  bool open(const std::string &path);

  // Replaces the file's contents and closes it.
  bool write(const std::string &text);

 private:
  bool fail();

  std::string path_;
  velmarin::unique_fd fd_;
};

}  // namespace tool
