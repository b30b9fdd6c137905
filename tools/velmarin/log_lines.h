// Receives the library's log lines while the tool runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace tool {

// The phase of a scan, recognized by the line that the library logs when it starts.
enum class ScanPhase { loading, walking, grouping, saving, reporting };

// The process-wide log sink for as long as the object lives. With `show`, every line goes to
// standard error. In any case the sink keeps what the tool reports: the phase of the scan, the
// number of error lines and the first of them, why the digests were not saved, and each thread's
// last message.
class LogLines {
 public:
  explicit LogLines(bool show);
  ~LogLines();
  LogLines(const LogLines &) = delete;
  LogLines &operator=(const LogLines &) = delete;

  ScanPhase phase() const { return phase_; }

  // Error lines of the scan and of the file operations. Lines of the service calls are excluded:
  // all of them have error priority.
  uint64_t error_count() const;
  std::string first_error() const;

  // Why the digests could not be saved; empty if they were. The scan succeeds all the same.
  std::string save_failure() const;

  // The calling thread's last message since its `forget`, without prefix and newline; empty if
  // there is none.
  std::string last_message() const;
  void forget();

 private:
  static void receive(void *self, int buffer_id, int priority, const char *tag, const char *line);
  void keep(std::string_view line);

  const bool show_;
  std::atomic<ScanPhase> phase_{ScanPhase::loading};
  mutable std::mutex lock_;  // guards the fields below, since any thread may log
  uint64_t error_count_ = 0;
  std::string first_error_;
  std::string save_failure_;
};

}  // namespace tool
