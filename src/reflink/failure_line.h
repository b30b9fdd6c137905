// The line that an operation writes about a call that failed. Operations that take the same steps
// word them alike and differ in two points, which are data here: the kind of line, and the verb
// before the error text.
#pragma once

#include <cerrno>
#include <cstring>

#include "common/log.h"

namespace velmarin {

enum class line_kind { erro, info };

struct failure_style {
  line_kind kind;
  const char *verb;
};

inline constexpr failure_style ERRO_RETURNED = {line_kind::erro, "returned"};
inline constexpr failure_style INFO_RETURNED = {line_kind::info, "returned"};
inline constexpr failure_style ERRO_RETURN = {line_kind::erro, "return"};
inline constexpr failure_style INFO_RETURN = {line_kind::info, "return"};

}  // namespace velmarin

// An expression that writes the line and yields the error. `error` is the errno of the failed call,
// read before anything else happens; the verb and the error's text are added to the message.
#define log_failure(error, form, message, ...)                                        \
  [&](const int failed_with_) {                                                       \
    const ::velmarin::failure_style &form_ = (form);                                  \
    const char *error_text_ = strerror(failed_with_);                                 \
    if (form_.kind == ::velmarin::line_kind::erro) {                                  \
      log_erro(message " %s %s" __VA_OPT__(, ) __VA_ARGS__, form_.verb, error_text_); \
    } else {                                                                          \
      log_info(message " %s %s" __VA_OPT__(, ) __VA_ARGS__, form_.verb, error_text_); \
    }                                                                                 \
    return failed_with_;                                                              \
  }(error)
