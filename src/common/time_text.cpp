// Formats the local date and time.

#include <bounds_checked.h>

#include <cstddef>
#include <ctime>

#include "velmarin/primitives.h"

int timespec2str(char *buf, unsigned len, const struct timespec *ts) {
  struct tm local = {};
  tzset();
  if (localtime_r(&ts->tv_sec, &local) == nullptr) {
    return 1;
  }
  const size_t written = strftime(buf, len, "%F %T", &local);
  if (written == 0) {
    return 2;
  }
  if (ts->tv_nsec == 0) {
    return written < len ? 0 : 3;
  }
  const size_t room = len - written;
  const int fraction = snprintf_s(buf + written, room, room - 1, ".%09ld", ts->tv_nsec);
  if (fraction < 0) {
    buf[written] = '\0';
    return 1;
  }
  return static_cast<size_t>(fraction) < room ? 0 : 3;
}
