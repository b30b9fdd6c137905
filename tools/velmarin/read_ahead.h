// Prefetches the files that are merged next while others are compared. The scan may have dropped
// their pages from memory.
#pragma once

#include <array>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "findings.h"

namespace tool {

// The threads that merge, numbered from 0.
inline constexpr size_t MERGING_THREADS = 2;

// Fetches on its own thread, a few files ahead of each merging thread, until the object is
// destroyed. Skips files that it cannot open. Reads only the path in a file's record, which merging
// does not write.
class ReadAhead {
 public:
  // `files`: in merging order.
  explicit ReadAhead(std::vector<const FoundFile *> files);
  ~ReadAhead();
  ReadAhead(const ReadAhead &) = delete;
  ReadAhead &operator=(const ReadAhead &) = delete;

  // That merging thread has reached the file, and needs no earlier ones.
  void reach(size_t merging_thread, const FoundFile &file);

 private:
  struct Lane {
    size_t reached = 0;  // index of the current file of a merging thread
    size_t next = 0;     // index of the next file to fetch for it
  };

  void run();
  const FoundFile *next_file();
  const FoundFile *take_next();

  const std::vector<const FoundFile *> files_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::array<Lane, MERGING_THREADS> lanes_;  // guarded by `lock_`, as are the next two
  std::vector<bool> is_taken_;               // fetched, or reached before that
  bool finished_ = false;
  std::thread thread_;
};

}  // namespace tool
