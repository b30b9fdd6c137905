#include "support/captured_log.h"

#include <android/log.h>

#include <algorithm>
#include <cstdio>

#include "velmarin_platform/log_sink.h"

namespace velmarin_test {
namespace {

captured_log *innermost = nullptr;

log_line parse(int buffer_id, int priority, bool has_tag, const char *text) {
  log_line line = {buffer_id, priority, has_tag, text, "SERVICE", "", text};
  char kind[8] = "";
  char module[40] = "";
  int end = 0;
  sscanf(text, "[%7[A-Z] from thread %*d at %39[a-z_.]:%*d @%*d.%*d]%n", kind, module, &end);
  if (end > 0) {
    line.kind = kind;
    line.module = module;
  } else {
    sscanf(text, "[velmarin][%*d]%n", &end);
  }
  const int kind_priority = line.kind == "INFO" ? ANDROID_LOG_INFO : ANDROID_LOG_ERROR;
  if (end == 0 || text[end] != ' ' || buffer_id != LOG_ID_SYSTEM || priority != kind_priority ||
      has_tag) {
    line.kind = "MALFORMED";
  } else {
    line.message = text + end + 1;
  }
  return line;
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
  self->lines_.push_back(parse(buffer_id, priority, tag != nullptr, text));
}

std::vector<log_line> captured_log::lines() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return lines_;
}

std::vector<std::string> captured_log::messages() const {
  std::vector<std::string> all;
  for (const log_line &line : lines()) {
    all.push_back(line.kind + " " + line.message);
  }
  return all;
}

bool captured_log::has(const std::string &kind_and_message) const {
  const std::vector<std::string> all = messages();
  return std::find(all.begin(), all.end(), kind_and_message) != all.end();
}

}  // namespace velmarin_test
