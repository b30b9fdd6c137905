#include "support/captured_log.h"

#include <android/log.h>
#include <dlfcn.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <regex>

#include "velmarin_platform/log_sink.h"

namespace velmarin_test {
namespace {

captured_log *innermost = nullptr;
thread_local const char *current_format = "";

std::string message_of(int buffer_id, int priority, const char *tag, const char *text) {
  static const std::regex prefix(
      R"(\[velmarin\]\[\d+\] |\[(ERRO|INFO) from thread \d+ at )"
      R"((reflink|fbddp|digest_reservation)\.cpp:\d{4} @[1-9]\d*\.\d{9}\] )");
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
  const std::string_view format = current_format;
  self->formats_.emplace_back(format.substr(format.find("] ") + 2));
}

}  // namespace velmarin_test

extern "C" int __android_log_buf_print(int buffer_id, int priority, const char *tag,
                                       const char *format, ...) {
  static const auto next =
      reinterpret_cast<decltype(&__android_log_buf_print)>(dlsym(RTLD_NEXT, __func__));
  const int saved_errno = errno;
  char text[12 * 1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  velmarin_test::current_format = format;
  const int result = next(buffer_id, priority, tag, "%s", text);
  errno = saved_errno;
  return result;
}
