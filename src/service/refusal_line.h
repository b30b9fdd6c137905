// The line that a service entry point writes about a control code that the file system refused.
#pragma once

#include "common/log.h"

// An expression that writes the line and yields the error. `result` is that of the request, `error`
// its errno, read before anything else happens; `request` names it and becomes part of the format.
#define log_refusal(result, error, request, ...)                    \
  [&](const int refused_with_) {                                    \
    log_service("ioctl " request " failed! ret = %d, errno = %d\n", \
                __VA_ARGS__ __VA_OPT__(, ) result, refused_with_);  \
    return refused_with_;                                           \
  }(error)
