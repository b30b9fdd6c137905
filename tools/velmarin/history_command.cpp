#include "history_command.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "display_name.h"
#include "history.h"
#include "message.h"
#include "scan_paths.h"
#include "size_text.h"

namespace tool {
namespace {

std::string local_minute(uint64_t seconds) {
  const time_t time = static_cast<time_t>(seconds);
  struct tm parts = {};
  char text[32] = "?";
  if (localtime_r(&time, &parts) != nullptr) {
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
  }
  return text;
}

// How the run ended.
const char *end_word(const HistoryEntry &entry) {
  return entry.stopped ? "stopped" : entry.out_of_time ? "out of time" : "done";
}

// What is left, if the run knew all of it.
std::string left_text(const HistoryEntry &entry) {
  return entry.left_is_minimum ? "-" : format_size(entry.left_bytes);
}

void print_row(const HistoryEntry &entry) {
  std::printf("%-16s  %11s  %8llu  %11s  %11s  %s\n", local_minute(entry.start).c_str(),
              format_size(entry.freed_bytes).c_str(), static_cast<unsigned long long>(entry.merged),
              left_text(entry).c_str(),
              format_duration(std::chrono::milliseconds(entry.elapsed_ms)).c_str(),
              end_word(entry));
}

void print_table(const std::vector<HistoryEntry> &entries) {
  std::printf("%-16s  %11s  %8s  %11s  %11s  %s\n", "run", "freed", "merged", "left", "time",
              "end");
  uint64_t freed = 0;
  uint64_t merged = 0;
  for (const HistoryEntry &entry : entries) {
    print_row(entry);
    freed += entry.freed_bytes;
    merged += entry.merged;
  }
  std::printf("%-16s  %11s  %8llu\n", format_count(entries.size(), "run").c_str(),
              format_size(freed).c_str(), static_cast<unsigned long long>(merged));
}

void print_objects(const std::vector<HistoryEntry> &entries) {
  const char *before = "\n    ";
  std::printf("{\n  \"format\": 1,\n  \"velmarin\": \"%s\",\n  \"runs\": [", VELMARIN_VERSION);
  for (const HistoryEntry &entry : entries) {
    std::printf("%s%s", before, history_line(entry).c_str());
    before = ",\n    ";
  }
  std::printf("%s]\n}\n", entries.empty() ? "" : "\n  ");
}

// Prints an error message if not. The default directory may be missing: there was no run yet.
bool is_directory(const std::string &state) {
  struct stat status = {};
  const int error = stat(state.c_str(), &status) != 0 ? errno : 0;
  if (error == 0 && S_ISDIR(status.st_mode)) {
    return true;
  }
  print_error("cannot use the state directory", state, std::strerror(error == 0 ? ENOTDIR : error));
  return false;
}

}  // namespace

bool run_history(const HistoryOptions &options) {
  const std::string state = state_directory(options.state);
  if (!options.state.empty() && !is_directory(state)) {
    return false;
  }
  const auto entries = read_history(state);
  if (!entries) {
    return false;
  }
  if (options.json) {
    print_objects(*entries);
  } else if (entries->empty()) {
    std::printf("No merging run is recorded in %s\n", escaped_name(state).c_str());
  } else {
    print_table(*entries);
  }
  return true;
}

}  // namespace tool
