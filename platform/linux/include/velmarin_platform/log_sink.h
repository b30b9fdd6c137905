// Where log lines go on Linux: by default to syslog(3); a host or a test can set its own sink.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Receives one formatted line, with its final newline, if any. `buffer_id` and `priority` are
// values of <android/log.h>; `tag` may be null. Called by any thread, several at once.
typedef void (*velmarin_log_sink)(void *user_data, int buffer_id, int priority, const char *tag,
                                  const char *line);

// Makes `sink` the process-wide sink; null restores syslog. `user_data` is passed to every call.
// Call it while no other thread logs.
__attribute__((visibility("default"))) void velmarin_set_log_sink(velmarin_log_sink sink,
                                                                  void *user_data);

#ifdef __cplusplus
}
#endif
