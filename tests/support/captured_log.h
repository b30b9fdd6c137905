// Catches the log lines of the library while the object lives.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace velmarin_test {

struct log_line {
  int buffer_id;
  int priority;
  bool has_tag;
  std::string text;     // as formatted
  std::string kind;     // "ERRO", "INFO" or "SERVICE"; "MALFORMED" when the prefix is none of the
                        // three or buffer, priority or tag are not those of the kind
  std::string module;   // the file named in the prefix, such as "reflink.cpp"
  std::string message;  // the text behind the prefix, with its newline if it has one
};

// Threads may log at any time; objects are made and destroyed while no other thread logs. Objects
// nest: the innermost one receives the lines.
class captured_log {
 public:
  captured_log();
  ~captured_log();
  captured_log(const captured_log &) = delete;
  captured_log &operator=(const captured_log &) = delete;

  std::vector<log_line> lines() const;
  // One "KIND message" for each line, in order.
  std::vector<std::string> messages() const;
  bool has(const std::string &kind_and_message) const;

 private:
  static void receive(void *log, int buffer_id, int priority, const char *tag, const char *text);

  captured_log *outer_;
  mutable std::mutex mutex_;
  std::vector<log_line> lines_;
};

}  // namespace velmarin_test
