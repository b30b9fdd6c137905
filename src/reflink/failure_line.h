// The line that an operation writes when a call fails. Operations that share a step use the same
// words and differ only in the kind of line and the verb before the error text. Each format fixes
// both; the style selects the format.
#pragma once

#include <cerrno>
#include <cstring>

#include "common/log.h"

namespace velmarin {

enum class failure_style { erro_returned, info_returned, erro_return, info_return };

}  // namespace velmarin

// Writes the line and evaluates to the error. `error`, the errno of the failed call, is read first;
// the verb and the error text are appended to the message.
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
