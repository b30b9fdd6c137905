// Bounds-checked memory and string functions. Each takes the size of its destination and writes
// nothing beyond it. All are thread-safe.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Sets `count` bytes to `value`. Returns 0; EINVAL for a null destination; ERANGE when `count` is
// greater than `dest_max`, and nothing is written then.
int memset_s(void *dest, size_t dest_max, int value, size_t count);

// Copies `count` bytes between buffers that do not overlap. Returns 0; EINVAL for a null pointer;
// ERANGE when `count` is greater than `dest_max`, and nothing is written then.
int memcpy_s(void *dest, size_t dest_max, const void *src, size_t count);

// Copies a string with its terminator. Returns 0; EINVAL for a null pointer; ERANGE when the string
// does not fit: the destination is then an empty string, if it has room for one.
int strcpy_s(char *dest, size_t dest_max, const char *src);

// Formats at most `count` characters and a terminator into `dest`. Returns the number of characters
// written; -1 on error or when the text does not fit: the destination is then an empty string.
__attribute__((__format__(printf, 4, 5))) int snprintf_s(char *dest, size_t dest_max, size_t count,
                                                         const char *format, ...);

#ifdef __cplusplus
}
#endif
