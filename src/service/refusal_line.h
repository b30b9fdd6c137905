// The line that a service entry point writes when the file system refuses a control code.
#pragma once

#include "common/log.h"

// Writes the line and evaluates to the error. `result` is the request's result and `error` its
// errno, which is read first; `request` names the request and becomes part of the format.
#define log_refusal(result, error, request, ...)                    \
  [&](const int refused_with_) {                                    \
    log_service("ioctl " request " failed! ret = %d, errno = %d\n", \
                __VA_ARGS__ __VA_OPT__(, ) result, refused_with_);  \
    return refused_with_;                                           \
  }(error)
