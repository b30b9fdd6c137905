// A scan by the calling thread, through the library's exports: its arguments and its results. Paths
// are relative to the working directory.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "velmarin/scan.h"

namespace velmarin_test {

using names = std::set<std::string>;
using groups = std::set<names>;
using counts = std::array<uint64_t, 6>;

struct scan {
  std::vector<const char *> roots = {"t"};
  const char *save_dir = "s";
  std::vector<const char *> skips = {};
  uint64_t min_size = 0;
  int max_depth = 0;
  unsigned time_budget = 0;  // seconds
  velmarin::sis_ops ops = {nullptr, nullptr, nullptr, nullptr, receive};

  std::thread::id host = std::this_thread::get_id();
  int *stop_handle = nullptr;
  bool was_stopped = false;  // as seen at REPORT_END
  groups found = {};
  names reported = {};  // since the last group
  counts counters = {};

  scan &run() {
    EXPECT_EQ(single_instance_storage(roots.data(), length(roots), skips.data(), length(skips),
                                      save_dir, min_size, max_depth, 32, time_budget, &ops,
                                      reinterpret_cast<uint64_t>(this), &stop_handle),
              0);
    return *this;
  }

  // Runs it through the service entry point, which sets limits and callbacks. Returns the result.
  int request(int64_t size_hint = 0) {
    const velmarin::sis_scan_request wanted = {length(roots), length(skips), roots.data(),
                                               skips.data(),  save_dir,      size_hint};
    return startScanDirImpl(&wanted, reinterpret_cast<uint64_t>(this), receive);
  }

  // Whether each group found is a subset of one in `identical`.
  bool found_parts_of(const groups &identical) const {
    return std::ranges::all_of(found, [&](const names &part) {
      return std::ranges::any_of(
          identical, [&](const names &whole) { return std::ranges::includes(whole, part); });
    });
  }

  // A path that could not be built is empty.
  static int receive(uint64_t caller_data, velmarin::sis_report *record) {
    auto *self = reinterpret_cast<scan *>(caller_data);
    EXPECT_EQ(std::this_thread::get_id(), self->host);
    if (record->stage == velmarin::REPORT_GROUP || record->stage == velmarin::REPORT_FILE) {
      EXPECT_TRUE(*record->path == '\0' || self->reported.insert(record->path).second)
          << record->path << " is reported twice";
    } else if (record->stage == velmarin::REPORT_GROUP_END) {
      self->found.insert(std::exchange(self->reported, {}));
    } else if (record->stage == velmarin::REPORT_END) {
      memcpy(self->counters.data(), record, sizeof(self->counters));
      self->was_stopped =
          self->stop_handle != nullptr && __atomic_load_n(self->stop_handle, __ATOMIC_RELAXED) == 0;
    }
    return 0;
  }

  static int length(const std::vector<const char *> &list) { return static_cast<int>(list.size()); }
};

}  // namespace velmarin_test
