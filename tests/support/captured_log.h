// Catches the log lines of the library while the object lives. The test executable defines the log
// function itself: it records the format of each line and passes the line on.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace velmarin_test {

// Threads may log at any time; objects are made and destroyed while no other thread logs. Objects
// nest: the innermost one receives the lines.
class captured_log {
 public:
  captured_log();
  ~captured_log();

  // One "KIND message" for each line, in order: ERRO, INFO or SERVICE and the text after the
  // prefix, with its newline if it has one. The kind is MALFORMED, followed by the whole line, when
  // its prefix is none of the three or names a module that writes no such lines, or when the
  // buffer, priority or tag is wrong for the kind.
  std::vector<std::string> messages() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return messages_;
  }

  // The format of each line, without the prefix.
  std::vector<std::string> formats() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return formats_;
  }

 private:
  static void receive(void *log, int buffer_id, int priority, const char *tag, const char *text);

  captured_log *outer_;
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
  std::vector<std::string> formats_;
};

}  // namespace velmarin_test
