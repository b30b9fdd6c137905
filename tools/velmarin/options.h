// The command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "entry_filter.h"

namespace tool {

struct ScanOptions {
  bool apply = false;
  bool dry_run = false;  // given explicitly
  bool json = false;
  bool verbose = false;
  bool quiet = false;
  bool no_color = false;
  bool one_file_system = false;
  bool idle = false;
  std::string state;  // empty: the default directory
  std::string html;   // empty: no page
  std::vector<std::string> skips;
  std::vector<std::string> roots;
  std::string roots_from;          // a file with more roots, "-" for standard input; empty: none
  bool ends_names_by_nul = false;  // in `roots_from`
  EntryFilterRules filter;
  std::vector<std::string> exclude_lists;  // files with more globs
  uint64_t min_size = 64 * 1024;
  int max_depth = 0;         // 0: no limit
  unsigned time_budget = 0;  // seconds; 0: no limit
};

struct FileOptions {
  bool verbose = false;
  std::vector<std::string> files;
};

struct HistoryOptions {
  bool json = false;
  std::string state;  // empty: the default directory
};

struct ApplyOptions {
  std::string state;  // empty: the default directory
  bool dry_run = false;
  bool json = false;
  bool verbose = false;
  bool quiet = false;
  std::string report;        // "-": standard input
  unsigned time_budget = 0;  // seconds; 0: no limit
};

struct CommandLine {
  std::string command;  // empty: nothing is left to do, and `exit_status` is the result
  int exit_status = 0;
  ScanOptions scan;  // of the command `scan`
  ApplyOptions apply;
  HistoryOptions history;
  FileOptions file;  // of every other command
};

// Parses the command line. Prints help, the version or a usage error.
CommandLine parse_command_line(int argc, char **argv);

}  // namespace tool
