#include "support/captured_log.h"

#include <android/log.h>

#include <algorithm>
#include <regex>

#include "velmarin_platform/log_sink.h"

namespace velmarin_test {
namespace {

captured_log *innermost = nullptr;

log_line parse(int buffer_id, int priority, bool has_tag, const std::string &text) {
  static const std::regex form(
      R"((?:\[(ERRO|INFO) from thread \d+ at (\w+\.cpp):\d{4,} @\d+\.\d{9}\] |\[velmarin\]\[\d+\] )([^]*))");
  std::smatch parts;
  if (!std::regex_match(text, parts, form)) {
    return {buffer_id, priority, has_tag, text, "MALFORMED", "", text};
  }
  std::string kind = parts[1].matched ? parts[1].str() : "SERVICE";
  const int kind_priority = kind == "INFO" ? ANDROID_LOG_INFO : ANDROID_LOG_ERROR;
  if (buffer_id != LOG_ID_SYSTEM || priority != kind_priority || has_tag) {
    kind = "MALFORMED";
  }
  return {buffer_id, priority, has_tag, text, kind, parts[2].str(), parts[3].str()};
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
