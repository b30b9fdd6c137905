// The part of the platform's logging interface that the library uses. Here the line goes to the
// process-wide sink of velmarin_platform/log_sink.h.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
  ANDROID_LOG_UNKNOWN = 0,
  ANDROID_LOG_DEFAULT,
  ANDROID_LOG_VERBOSE,
  ANDROID_LOG_DEBUG,
  ANDROID_LOG_INFO,
  ANDROID_LOG_WARN,
  ANDROID_LOG_ERROR,
  ANDROID_LOG_FATAL,
  ANDROID_LOG_SILENT,
} android_LogPriority;

typedef enum log_id {
  LOG_ID_MAIN = 0,
  LOG_ID_RADIO = 1,
  LOG_ID_EVENTS = 2,
  LOG_ID_SYSTEM = 3,
} log_id_t;

// Formats one line and passes it to the sink. Returns a positive value, or a negative one when the
// line could not be formatted. Preserves errno. Thread-safe.
int __android_log_buf_print(int buffer_id, int priority, const char *tag, const char *format, ...)
    __attribute__((__format__(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
