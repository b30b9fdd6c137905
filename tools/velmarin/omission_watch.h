// Notices what a scan leaves out. The library says little of that: it drops a directory or file
// that it cannot open without a word.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "choice.h"
#include "omissions.h"

namespace tool {

// Takes notes while an object lives; at most one does, and it is made and destroyed while the
// process has one thread. The static functions are for any thread, do nothing without an object and
// keep errno.
class OmissionWatch {
 public:
  // `skips` are paths without symbolic links. Everything outlives the object.
  OmissionWatch(Omissions &omissions, const Choice &choice, const std::vector<std::string> &skips,
                uint64_t min_size);
  ~OmissionWatch();
  OmissionWatch(const OmissionWatch &) = delete;
  OmissionWatch &operator=(const OmissionWatch &) = delete;

  // The next run sees the same entries again.
  void ignore_opens() { ignores_opens_ = true; }

  static void note(std::string_view path, Cause cause, int error);

  // An open failed. It means something if the walk wanted to look at the entry, which is a file or
  // a directory, still there, chosen, large enough and not to be skipped.
  static void note_failed_open(const char *path, int flags, int error);

  // The library logged a line.
  static void note_log_message(std::string_view message);

 private:
  bool is_wanted(const struct stat &status, std::string_view path) const;
  void take_failed_open(const char *path, int error);

  Omissions &omissions_;
  const Choice &choice_;
  const std::vector<std::string> &skips_;
  const uint64_t min_size_;
  bool ignores_opens_ = false;
};

}  // namespace tool
