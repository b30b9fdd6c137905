#include "support/captured_log.h"

#include <android/log.h>

#include <cstdio>
#include <cstring>

#include "velmarin_platform/log_sink.h"

namespace velmarin_test {
namespace {

captured_log *innermost = nullptr;

std::string message_of(int buffer_id, int priority, const char *tag, const char *text) {
  char kind[8] = "SERVICE";
  char module[40] = "reflink";
  int end = 0;
  sscanf(text, "[velmarin][%*d]%n", &end);
  if (end == 0) {
    sscanf(text, "[%7[A-Z] from thread %*d at %39[a-z_].cpp:%*d @%*d.%*d]%n", kind, module, &end);
  }
  if (end == 0 || text[end] != ' ' || !strstr("reflink fbddp digest_reservation", module) ||
      buffer_id != LOG_ID_SYSTEM || tag != nullptr ||
      priority != (strcmp(kind, "INFO") == 0 ? ANDROID_LOG_INFO : ANDROID_LOG_ERROR)) {
    return std::string("MALFORMED ") + text;
  }
  return std::string(kind) + (text + end);
}

}  // namespace

captured_log::captured_log() : outer_(innermost) {
  innermost = this;
  velmarin_set_log_sink(receive, this);
}

captured_log::~captured_log() {
  innermost = outer_;
  velmarin_set_log_sink(outer_ != nullptr ? receive : nullptr, outer_);
}

void captured_log::receive(void *log, int buffer_id, int priority, const char *tag,
                           const char *text) {
  auto *self = static_cast<captured_log *>(log);
  const std::lock_guard<std::mutex> guard(self->mutex_);
  self->messages_.push_back(message_of(buffer_id, priority, tag, text));
}

}  // namespace velmarin_test
