// The line that an operation writes about a call that failed. Operations that take the same steps
// word them alike and differ in two points: the kind of line, and the verb before the error text.
// Both are fixed in each format; the style chooses among the formats.
#pragma once

#include <cerrno>
#include <cstring>

#include "common/log.h"

namespace velmarin {

enum class failure_style { erro_returned, info_returned, erro_return, info_return };

}  // namespace velmarin

// An expression that writes the line and yields the error. `error` is the errno of the failed call,
// read before anything else happens; the verb and the error's text are added to the message.
#define log_failure(error, style, message, ...)                                   \
  [&](const int failed_with_) {                                                   \
    const char *error_text_ = strerror(failed_with_);                             \
    switch (style) {                                                              \
      case ::velmarin::failure_style::erro_returned:                              \
        log_erro(message " returned %s", __VA_ARGS__ __VA_OPT__(, ) error_text_); \
        break;                                                                    \
      case ::velmarin::failure_style::info_returned:                              \
        log_info(message " returned %s", __VA_ARGS__ __VA_OPT__(, ) error_text_); \
        break;                                                                    \
      case ::velmarin::failure_style::erro_return:                                \
        log_erro(message " return %s", __VA_ARGS__ __VA_OPT__(, ) error_text_);   \
        break;                                                                    \
      case ::velmarin::failure_style::info_return:                                \
        log_info(message " return %s", __VA_ARGS__ __VA_OPT__(, ) error_text_);   \
        break;                                                                    \
    }                                                                             \
    return failed_with_;                                                          \
  }(error)
