// The library drops a file's pages from the cache once it has hashed the file. When the scan is to
// merge what it finds, it would read those pages again soon. So the tool answers the library's
// calls of posix_fadvise(3) itself.
#pragma once

namespace tool {

// While an object lives, the library's advice to drop pages is ignored, until the files for which
// it came hold a quarter of the machine's memory. At most one object lives.
class KeptPages {
 public:
  KeptPages();
  ~KeptPages();
  KeptPages(const KeptPages &) = delete;
  KeptPages &operator=(const KeptPages &) = delete;
};

}  // namespace tool
