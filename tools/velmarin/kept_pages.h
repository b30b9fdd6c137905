// Replaces posix_fadvise(3) for the library. The library drops a file's pages from the cache after
// hashing the file, but merging would soon read them again.
#pragma once

namespace tool {

// While an object lives, the library's advice to drop pages is ignored, until the files concerned
// add up to a quarter of the machine's memory. At most one object may live.
class KeptPages {
 public:
  KeptPages();
  ~KeptPages();
  KeptPages(const KeptPages &) = delete;
  KeptPages &operator=(const KeptPages &) = delete;
};

}  // namespace tool
