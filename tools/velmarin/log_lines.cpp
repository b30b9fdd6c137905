#include "log_lines.h"

#include <cstdio>

#include "display_name.h"
#include "omission_watch.h"
#include "velmarin_platform/log_sink.h"

namespace tool {
namespace {

constexpr std::string_view ERROR_PREFIX = "[ERRO ";
constexpr std::string_view SERVICE_PREFIX = "[velmarin][";
constexpr std::string_view DIGEST_FILE_CREATED = "CREATE ";

constexpr std::string_view SAVING_BEGINS = "fetch_all_sis_file:";

struct PhaseStart {
  std::string_view prefix;  // of the message that the library logs when the phase starts
  ScanPhase phase;
};
constexpr PhaseStart PHASE_STARTS[] = {{"load_usable_hash(", ScanPhase::walking},
                                       {"scan_directory:", ScanPhase::grouping},
                                       {SAVING_BEGINS, ScanPhase::saving},
                                       {"save_usable_hash(", ScanPhase::reporting}};

// A call of the library logs on the thread that makes it.
thread_local std::string own_last_message;

// The part of a line after its bracketed prefix.
std::string_view message_of(std::string_view line) {
  const size_t end = line.find("] ");
  return end == std::string_view::npos ? line : line.substr(end + 2);
}

std::string_view without_newline(std::string_view line) {
  return line.ends_with('\n') ? line.substr(0, line.size() - 1) : line;
}

}  // namespace

LogLines::LogLines(bool show) : show_(show) {
  velmarin_set_log_sink(receive, this);
}

LogLines::~LogLines() {
  velmarin_set_log_sink(nullptr, nullptr);
}

void LogLines::receive(void *self, int, int, const char *, const char *line) {
  auto *const lines = static_cast<LogLines *>(self);
  const std::string_view text = without_newline(line);
  if (lines->show_) {
    std::fprintf(stderr, "%s\n", escaped_name(text).c_str());
  }
  lines->keep(text);
}

void LogLines::keep(std::string_view line) {
  const std::string_view message = message_of(line);
  for (const PhaseStart &start : PHASE_STARTS) {
    if (message.starts_with(start.prefix) && !line.starts_with(SERVICE_PREFIX)) {
      phase_ = start.phase;
    }
  }
  OmissionWatch::note_log_message(message);
  own_last_message = message;
  const std::lock_guard guard(lock_);
  // While digests are saved, any line but these two reports a failure.
  if (phase_ == ScanPhase::saving && !message.starts_with(DIGEST_FILE_CREATED) &&
      !message.starts_with(SAVING_BEGINS) && save_failure_.empty()) {
    save_failure_ = message;
  }
  if (line.starts_with(ERROR_PREFIX) && ++error_count_ == 1) {
    first_error_ = message;
  }
}

uint64_t LogLines::error_count() const {
  const std::lock_guard guard(lock_);
  return error_count_;
}

std::string LogLines::first_error() const {
  const std::lock_guard guard(lock_);
  return first_error_;
}

std::string LogLines::save_failure() const {
  const std::lock_guard guard(lock_);
  return save_failure_;
}

std::string LogLines::last_message() const {
  return own_last_message;
}

void LogLines::forget() {
  own_last_message.clear();
}

}  // namespace tool
