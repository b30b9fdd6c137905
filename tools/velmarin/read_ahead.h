// Prefetches the files that are merged next while another one is compared. The scan may have
// dropped their pages from memory.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "findings.h"

namespace tool {

// Fetches on its own thread, a few files ahead of the merging thread, until the object is
// destroyed. Skips files that it cannot open. Reads only the path in a file's record, which merging
// does not write.
class ReadAhead {
 public:
  // `files`: in merging order.
  explicit ReadAhead(std::vector<const FoundFile *> files);
  ~ReadAhead();
  ReadAhead(const ReadAhead &) = delete;
  ReadAhead &operator=(const ReadAhead &) = delete;

  // The merging thread has reached that file; earlier files need no more fetching.
  void reach(const FoundFile &file);

 private:
  void run();
  const FoundFile *next_file();

  const std::vector<const FoundFile *> files_;
  std::mutex lock_;
  std::condition_variable wake_;
  size_t reached_ = 0;  // index of the current file; guarded by `lock_`, as are the next two
  size_t fetched_ = 0;  // index of the next file to fetch
  bool finished_ = false;
  std::thread thread_;
};

}  // namespace tool
