// A test's private file system, mounted on a temporary directory: an image file on a loop device,
// or a memory file system. The mount belongs to the test process's own mount namespace, and the
// image is unlinked once it is mounted, so however the process ends, the mount and the loop device
// are released.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace velmarin_test {

struct mounted_image {
  // `type` is "ramfs", or a file system that mkfs can make, with options. Create it before
  // the test starts a thread or opens a file on another one: they would not see this mount.
  explicit mounted_image(const std::string &type) {
    const std::string commands =  // the image is sparse; XFS wants 300 MiB
        type == "ramfs" ? "mount -t ramfs none ."
                        : "truncate -s 384M image && mkfs." + type + " -q image && " +
                              "mount -o loop image . ; result=$?; rm -f image; exit $result";
    is_mounted = mkdtemp(directory.data()) != nullptr && unshare(CLONE_NEWNS) == 0 &&
                 mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0 && run(commands);
  }
  ~mounted_image() {
    if (is_mounted) {
      umount2(directory.c_str(), MNT_DETACH);
    }
    rmdir(directory.c_str());
  }

  std::string path(const std::string &name) const { return directory + "/" + name; }
  bool run(const std::string &commands) const {
    const std::string shell = "cd " + directory + " && PATH=$PATH:/usr/sbin:/sbin && { ";
    return system((shell + commands + "; } >/dev/null 2>&1").c_str()) == 0;
  }

  std::string directory = "/tmp/velmarin-mount-XXXXXX";
  bool is_mounted = false;
};

}  // namespace velmarin_test
