// What becomes of the library's log lines while the tool runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace tool {

// How far a scan has come, told by the line that the library logs when a phase ends.
enum class ScanPhase { loading, walking, grouping, saving, reporting };

// The process-wide sink of log lines for as long as the object lives. With `show`, every line goes
// to standard error; either way the sink keeps what the tool tells its user: the phase of the scan,
// how many error lines there were and the first of them, why the digests were not saved, and the
// message logged last.
class LogLines {
 public:
  explicit LogLines(bool show);
  ~LogLines();
  LogLines(const LogLines &) = delete;
  LogLines &operator=(const LogLines &) = delete;

  ScanPhase phase() const { return phase_; }

  // Error lines of the scan and of the file operations; the lines of the service calls do not
  // count, since those are all written at error priority.
  uint64_t error_count() const;
  std::string first_error() const;

  // Why the digests could not be saved; empty when they were. A scan ends well all the same.
  std::string save_failure() const;

  // The message logged last, without its prefix and newline; empty since the last call of `forget`.
  std::string last_message() const;
  void forget();

 private:
  static void receive(void *self, int buffer_id, int priority, const char *tag, const char *line);
  void keep(std::string_view line);

  const bool show_;
  std::atomic<ScanPhase> phase_{ScanPhase::loading};
  mutable std::mutex lock_;  // guards the fields below: any thread logs
  uint64_t error_count_ = 0;
  std::string first_error_;
  std::string save_failure_;
  std::string last_message_;
};

}  // namespace tool
