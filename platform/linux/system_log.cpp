// The system log: formats one line on the stack and passes it to the process-wide sink, by default
// syslog(3). Nothing before the sink locks or allocates, but syslog does both. Preserves errno.
#include <android/log.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/atomic_word.h"
#include "velmarin/export.h"
#include "velmarin_platform/log_sink.h"

namespace velmarin {
namespace {

// Room for two paths of 4096 bytes and the text around them. A longer line is truncated and loses
// its newline.
constexpr size_t LINE_SIZE = 12 * 1024;

int syslog_level(int priority) {
  switch (priority) {
    case ANDROID_LOG_VERBOSE:
    case ANDROID_LOG_DEBUG:
      return LOG_DEBUG;
    case ANDROID_LOG_WARN:
      return LOG_WARNING;
    case ANDROID_LOG_ERROR:
      return LOG_ERR;
    case ANDROID_LOG_FATAL:
      return LOG_CRIT;
    default:
      return LOG_INFO;
  }
}

// syslog ends every line itself.
void write_to_syslog(void *, int, int priority, const char *tag, const char *line) {
  size_t length = strlen(line);
  if (length > 0 && line[length - 1] == '\n') {
    length--;
  }
  syslog(syslog_level(priority), "%s%s%.*s", tag != nullptr ? tag : "", tag != nullptr ? ": " : "",
         static_cast<int>(length), line);
}

// Two words, which are not replaced in one step: no thread may log while the sink is set.
velmarin_log_sink current_sink = write_to_syslog;
void *sink_user_data = nullptr;

}  // namespace
}  // namespace velmarin

extern "C" {

VELMARIN_EXPORT void velmarin_set_log_sink(velmarin_log_sink sink, void *user_data) {
  velmarin::store_release(&velmarin::sink_user_data, user_data);
  velmarin::store_release(&velmarin::current_sink,
                          sink != nullptr ? sink : velmarin::write_to_syslog);
}

VELMARIN_EXPORT int __android_log_buf_print(int buffer_id, int priority, const char *tag,
                                            const char *format, ...) {
  const int saved_errno = errno;
  char line[velmarin::LINE_SIZE];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
  if (length >= 0) {
    const velmarin_log_sink sink = velmarin::load_acquire(&velmarin::current_sink);
    sink(velmarin::load_acquire(&velmarin::sink_user_data), buffer_id, priority, tag, line);
  }
  errno = saved_errno;
  return length < 0 ? -1 : 1;
}

}  // extern "C"
