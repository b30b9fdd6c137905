// Tracks what a scan leaves out. The library silently drops a directory or file that it cannot
// open.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "entry_filter.h"
#include "omissions.h"

namespace tool {

// Active while an object lives. At most one may live, created and destroyed while the process has
// one thread. The static functions are thread-safe, preserve errno and do nothing without an
// object.
class OmissionWatch {
 public:
  // `skips` are paths without symbolic links. All arguments must outlive the object.
  OmissionWatch(Omissions &omissions, const EntryFilter &filter,
                const std::vector<std::string> &skips, uint64_t min_size);
  ~OmissionWatch();
  OmissionWatch(const OmissionWatch &) = delete;
  OmissionWatch &operator=(const OmissionWatch &) = delete;

  // Prepares a further run, which sees the same entries again. What is listed is not counted twice;
  // once the list is full, it cannot be told and is not counted.
  void see_again() { sees_again_ = true; }

  static void note(std::string_view path, Cause cause, int error);

  // Notes a failed open if the walk wanted the entry: a file or directory that still exists, is
  // large enough and neither filtered out nor skipped.
  static void note_failed_open(const char *path, int flags, int error);

  // Takes a line that the library logged.
  static void note_log_message(std::string_view message);

 private:
  bool is_wanted(const struct stat &status, std::string_view path) const;
  void take_failed_open(const char *path, int error);

  Omissions &omissions_;
  const EntryFilter &filter_;
  const std::vector<std::string> &skips_;
  const uint64_t min_size_;
  bool sees_again_ = false;
};

}  // namespace tool
