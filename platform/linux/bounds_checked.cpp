// Bounds-checked memory and string functions: every argument is checked before anything is written.
#include "bounds_checked.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "velmarin/export.h"

extern "C" {

VELMARIN_EXPORT int memset_s(void *dest, size_t dest_max, int value, size_t count) {
  if (dest == nullptr) {
    return EINVAL;
  }
  if (count > dest_max) {
    return ERANGE;
  }
  memset(dest, value, count);
  return 0;
}

VELMARIN_EXPORT int memcpy_s(void *dest, size_t dest_max, const void *src, size_t count) {
  if (dest == nullptr || src == nullptr) {
    return EINVAL;
  }
  if (count > dest_max) {
    return ERANGE;
  }
  memcpy(dest, src, count);
  return 0;
}

VELMARIN_EXPORT int strcpy_s(char *dest, size_t dest_max, const char *src) {
  if (dest == nullptr || src == nullptr) {
    return EINVAL;
  }
  const size_t length = strnlen(src, dest_max);
  if (length == dest_max) {
    if (dest_max > 0) {
      dest[0] = '\0';
    }
    return ERANGE;
  }
  memcpy(dest, src, length + 1);
  return 0;
}

VELMARIN_EXPORT int snprintf_s(char *dest, size_t dest_max, size_t count, const char *format, ...) {
  if (dest == nullptr || dest_max == 0) {
    return -1;
  }
  int length = -1;
  const size_t limit = std::min(count, dest_max - 1);
  if (format != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    length = vsnprintf(dest, limit + 1, format, arguments);
    va_end(arguments);
  }
  if (length < 0 || static_cast<size_t>(length) > limit) {
    dest[0] = '\0';
    return -1;
  }
  return length;
}

}  // extern "C"
