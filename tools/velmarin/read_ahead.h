// Has the disk fetch the files that are merged next while another one is compared. A scan drops the
// pages that it read, so merging finds none of them in memory.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "findings.h"

namespace tool {

// Fetches from a thread of its own, a few files ahead of the merging thread, until the object goes.
// It skips a file that it cannot open. Of a file's record it reads the path alone, which merging
// does not write.
class ReadAhead {
 public:
  // `files`: in the order in which they are merged.
  explicit ReadAhead(std::vector<const FoundFile *> files);
  ~ReadAhead();
  ReadAhead(const ReadAhead &) = delete;
  ReadAhead &operator=(const ReadAhead &) = delete;

  // The merging thread has come to that file; those before it need no fetching any more.
  void reach(const FoundFile &file);

 private:
  void run();
  const FoundFile *next_file();

  const std::vector<const FoundFile *> files_;
  std::mutex lock_;
  std::condition_variable wake_;
  size_t reached_ = 0;  // place of the file in hand; guarded by `lock_`, as the next two
  size_t fetched_ = 0;  // place of the next file to fetch
  bool finished_ = false;
  std::thread thread_;
};

}  // namespace tool
