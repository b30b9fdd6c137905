// A scripted control-code layer. The test executable defines `ioctl`, which every call in the
// process reaches first; while a scripted_fs lives, it records each request of type 0xf5 and each
// FS_IOC_GETFLAGS, and answers or refuses it as scripted. All other requests, and all requests
// while no object lives, pass to the platform layer.
#pragma once

#include <linux/fs.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "support/captured_log.h"
#include "support/temporary_tree.h"

namespace velmarin_test {

// The log, and a tree that is the working directory, so that its files have short names.
struct working_tree : temporary_tree {
  captured_log log;

  explicit working_tree(const std::string &description) : temporary_tree(description) {
    std::filesystem::current_path(root());
  }
};

constexpr unsigned GETFLAGS = static_cast<unsigned>(FS_IOC_GETFLAGS);

// Requests without a scripted answer succeed and write nothing.
struct scripted_fs {
  scripted_fs() { current = this; }
  ~scripted_fs() { current = nullptr; }

  // The record is written back for all later requests with this code.
  template <typename Record>
  void answer_with(unsigned code, const Record &record) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    answers[code] = {bytes, bytes + sizeof(record)};
  }
  // The errno with which the n-th request, counted from 1, is refused. The answer is still written
  // back.
  std::map<size_t, int> failures;
  // Runs after a request was recorded and before it is answered.
  std::function<void(unsigned code, int fd)> before_each = [](unsigned, int) {};
  // One line for each request: its name, the file and how it is open, and the two words of the
  // argument, such as "DEDUP_FILE b rw a 1" or "CLONE_FILE d/[600] rw d/c 96". An unnamed file is
  // shown by its mode; names are relative to the working directory.
  std::vector<std::string> texts;

  // For the executable's `ioctl` only.
  static inline std::atomic<scripted_fs *> current = nullptr;
  std::mutex mutex;
  std::map<unsigned, std::vector<uint8_t>> answers;
};

}  // namespace velmarin_test
