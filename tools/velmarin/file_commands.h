// The commands that act on files named on the command line.
#pragma once

#include <string>
#include <vector>

#include "log_lines.h"

namespace tool {

struct FileCommand {
  const char *name;
  const char *summary;
  std::vector<const char *> operands;  // two names: exactly two files; one name: one file or more
  // Runs the command and prints the results. Returns false if anything was refused or failed.
  bool (*run)(const std::vector<std::string> &files, LogLines &log);
};

const std::vector<FileCommand> &file_commands();

}  // namespace tool
