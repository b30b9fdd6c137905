// The host's entry point for a full scan.

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "common/log.h"
#include "velmarin/files.h"
#include "velmarin/scan.h"

namespace velmarin {
namespace {

constexpr int64_t SIZE_HINT_LIMIT = 0x10000000;  // bytes
constexpr size_t MIN_SIZE_SMALL = 0x10000;       // bytes
constexpr size_t MIN_SIZE_LARGE = 0x100000;      // bytes
constexpr unsigned SCAN_TIME_BUDGET = 300;       // seconds
constexpr int SCAN_RESERVED_VALUE = 32;
constexpr int NO_DEPTH_LIMIT = 0;

// Returns 0, or the errno of the first check that failed.
int check_directories(const sis_scan_request *request) {
  if (access(request->save_dir, F_OK) != 0) {
    const int error = errno;
    log_service("Cannot access %s", request->save_dir);
    return error;
  }
  for (int32_t i = 0; i < request->root_count; i++) {
    if (access(request->roots[i], R_OK) != 0) {
      const int error = errno;
      log_service("Cannot read from %s", request->roots[i]);
      return error;
    }
  }
  return 0;
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int startScanDirImpl(const sis_scan_request *request, uint64_t caller_data,
                     sis_report_callback report) {
  const size_t min_size = request->size_hint > SIZE_HINT_LIMIT ? MIN_SIZE_LARGE : MIN_SIZE_SMALL;
  log_service("minimum is:%zu\n", min_size);
  const int error = check_directories(request);
  if (error != 0) {
    return error;
  }
  const sis_ops ops = {filter_out_nonsis, check_file_status, freeze_file, check_frozen, report};
  int *stop_handle = nullptr;
  return single_instance_storage(request->roots, request->root_count, request->skip_paths,
                                 request->skip_count, request->save_dir, min_size, NO_DEPTH_LIMIT,
                                 SCAN_RESERVED_VALUE, SCAN_TIME_BUDGET, &ops, caller_data,
                                 &stop_handle);
}
