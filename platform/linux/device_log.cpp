// The system log of a build with a device's libraries: lines formatted by liblog go to the
// process-wide sink, by default standard error. liblog truncates a line to 1023 bytes.
#include <android/log.h>

#include "common/atomic_word.h"
#include "velmarin/export.h"
#include "velmarin_platform/log_sink.h"

namespace velmarin {
namespace {

velmarin_log_sink current_sink = nullptr;
void *sink_user_data = nullptr;

// liblog replaces a null tag with the default tag, which is empty here.
void forward_line(const __android_logger_data *data, const char *line) {
  const velmarin_log_sink sink = load_acquire(&current_sink);
  const char *const tag = data->tag != nullptr && *data->tag != '\0' ? data->tag : nullptr;
  sink(load_acquire(&sink_user_data), data->buffer_id, data->priority, tag, line);
}

}  // namespace
}  // namespace velmarin

extern "C" VELMARIN_EXPORT void velmarin_set_log_sink(velmarin_log_sink sink, void *user_data) {
  velmarin::store_release(&velmarin::sink_user_data, user_data);
  velmarin::store_release(&velmarin::current_sink, sink);
  __android_log_set_default_tag("");
  __android_log_set_logger(sink != nullptr ? velmarin::forward_line : __android_log_stderr_logger);
}
