// A file opened before long work, so that errors show early, and written after it.
#pragma once

#include <string>

namespace tool {

class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;

  // Opens the file without changing its contents. Returns false on failure, after an error message;
  // so does `write`.
  bool open(const std::string &path);

  // Replaces the file's contents and closes it.
  bool write(const std::string &text);

 private:
  bool fail();

  std::string path_;
  int fd_ = -1;
};

}  // namespace tool
