#include "support/captured_log.h"

#include <android/log.h>

#include <regex>

#include "velmarin_platform/log_sink.h"

namespace velmarin_test {
namespace {

captured_log *innermost = nullptr;

std::string message_of(int buffer_id, int priority, const char *tag, const char *text) {
  static const std::regex prefix(R"(\[velmarin\]\[\d+\] |\[(ERRO|INFO) from thread \d+ at )"
                                 R"((reflink|fbddp|digest_reservation)\.cpp:\d{4} @\d+\.\d{9}\] )");
  std::cmatch match;
  const bool fits = std::regex_search(text, match, prefix, std::regex_constants::match_continuous);
  const std::string kind = fits && match[1].matched ? match[1] : std::string("SERVICE");
  const int usual_priority = kind == "INFO" ? ANDROID_LOG_INFO : ANDROID_LOG_ERROR;
  if (!fits || buffer_id != LOG_ID_SYSTEM || priority != usual_priority || tag != nullptr) {
    return std::string("MALFORMED ") + text;
  }
  return kind + " " + match.suffix().str();
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
