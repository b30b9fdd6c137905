// A file that is opened before long work, so that it fails early, and written after it.
#pragma once

#include <string>

namespace tool {

class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;

  // Opens the file and leaves what it holds for now. Says on standard error what went wrong and
  // returns false then; so does `write`.
  bool open(const std::string &path);

  // Replaces what the file holds and closes it.
  bool write(const std::string &text);

 private:
  bool fail();

  std::string path_;
  int fd_ = -1;
};

}  // namespace tool
