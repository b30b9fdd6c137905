#include "progress_text.h"

#include <cstdio>
#include <memory>

#include "scan_probes.h"
#include "size_text.h"

namespace tool {
namespace {

const char *phase_word(ScanPhase phase) {
  switch (phase) {
    case ScanPhase::loading:
      return "loading digests";
    case ScanPhase::walking:
      return "walking";
    case ScanPhase::grouping:
      return "grouping";
    case ScanPhase::saving:
      return "saving digests";
    case ScanPhase::reporting:
      break;
  }
  return "reporting";
}

// The bytes that this process has read from files, as counted by the kernel; 0 if it keeps no
// count.
uint64_t bytes_read() {
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> account(std::fopen("/proc/self/io", "re"),
                                                                 std::fclose);
  unsigned long long bytes = 0;
  return account != nullptr && std::fscanf(account.get(), "rchar: %llu", &bytes) == 1 ? bytes : 0;
}

std::string rate_text(const Rate &rate) {
  const double bytes = rate.per_second();
  return bytes >= 1 ? ", " + format_size(static_cast<uint64_t>(bytes)) + "/s" : "";
}

}  // namespace

ScanText::ScanText(const LogLines &log) : log_(log), read_before_(bytes_read()) {}

std::string ScanText::describe(std::chrono::milliseconds elapsed) {
  const uint64_t bytes = bytes_read() - read_before_;
  rate_.note(elapsed, static_cast<double>(bytes));
  return format_duration(elapsed) + "  " + phase_word(log_.phase()) + "  " +
         format_count(probe_counts.entries, "file") + " examined, " +
         std::to_string(probe_counts.read) + " read (" + format_size(bytes) + ")" +
         rate_text(rate_);
}

MergeText::MergeText(std::chrono::milliseconds start, const MergeProgress &merging)
    : merging_(merging), start_(start), estimate_({merging.bytes_to_do, merging.files_to_do}) {}

std::string MergeText::describe(std::chrono::milliseconds elapsed) {
  const Estimate::Work done = {merging_.bytes_done, merging_.files_done};
  rate_.note(elapsed - start_, static_cast<double>(done.bytes));
  estimate_.note(elapsed - start_, done, merging_.bytes_in_hand);
  const auto left = estimate_.left();  // first, since a narrow terminal cuts the line short
  return format_duration(elapsed) + (left ? ", about " + rough_duration(*left) + " left" : "") +
         "  merging  " + std::to_string(done.files) + " of " +
         format_count(merging_.files_to_do, "file") + ", " + format_size(done.bytes) + " of " +
         format_size(merging_.bytes_to_do) + rate_text(rate_) + ", " +
         format_size(merging_.freed_bytes) + " freed";
}

}  // namespace tool
