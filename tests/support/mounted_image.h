// A file system of a test's own, mounted on a temporary directory: an image file on a loop device,
// or a memory file system. The mount belongs to a mount namespace of the test process and the image
// loses its name once it is mounted, so that whatever ends the process also unmounts and detaches.
#pragma once

#include <string>

namespace velmarin_test {

class mounted_image {
 public:
  // `type` is "btrfs", "xfs", "ext4", "tmpfs" or "ramfs". To be called before the test starts a
  // thread: a thread sees the mounts that its creator saw.
  explicit mounted_image(const std::string &type);
  ~mounted_image();
  mounted_image(const mounted_image &) = delete;
  mounted_image &operator=(const mounted_image &) = delete;

  // Why there is nothing to test on; empty when the file system is mounted.
  const std::string &failure() const { return failure_; }
  std::string path(const std::string &name) const { return directory_ + "/" + name; }

 private:
  std::string directory_;
  std::string failure_;
};

}  // namespace velmarin_test
