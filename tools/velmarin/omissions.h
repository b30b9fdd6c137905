// What a scan should have examined but left out, and why.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tool {

enum class Cause { directory_not_read, not_opened, not_marked, not_read, state_unknown, changed };
inline constexpr size_t CAUSES = 6;

struct Omission {
  std::string path;
  Cause cause = Cause::not_opened;
  int error = 0;  // errno; 0 if there is none
};

// "directory not read", "not opened", ...: the word used in JSON.
const char *cause_word(Cause cause);

// "not opened, Permission denied".
std::string explain(const Omission &omission);

// "PATH: not opened, Permission denied", the path escaped.
std::string describe(const Omission &omission);

// "2 directories could not be read".
std::string describe_omissions(Cause cause, uint64_t count);

// "EACCES"; empty for 0 and for a number without a name.
std::string errno_name(int error);

// A thread-safe collection. Counts all omissions and keeps the paths of the first.
class Omissions {
 public:
  void add(std::string_view path, Cause cause, int error);

  // Adds the file that a library log line reports as left out. Ignores all other lines.
  void read_log_message(std::string_view message);

  // By cause.
  std::array<uint64_t, CAUSES> counts() const;

  // Whether further paths are only counted.
  bool is_full() const;

  // Sorted by path; at most `MAX_LISTED`.
  std::vector<Omission> list() const;

  static constexpr size_t MAX_LISTED = 10000;

 private:
  mutable std::mutex lock_;
  std::map<std::pair<std::string, Cause>, int> listed_;  // the errno of each
  std::array<uint64_t, CAUSES> counts_ = {};
};

}  // namespace tool
