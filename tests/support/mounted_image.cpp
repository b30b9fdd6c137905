#include "support/mounted_image.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

namespace velmarin_test {
namespace {

// The image is sparse. XFS wants 300 MiB.
const std::map<std::string, std::string> make_commands = {
    {"btrfs", "truncate -s 384M image && mkfs.btrfs -q image"},
    {"xfs", "truncate -s 384M image && mkfs.xfs -q -m reflink=1 image"},
    {"ext4", "truncate -s 384M image && mkfs.ext4 -q -F image"},
};

}  // namespace

mounted_image::mounted_image(const std::string &type) {
  char name[] = "/tmp/velmarin-mount-XXXXXX";
  if (mkdtemp(name) == nullptr || unshare(CLONE_NEWNS) != 0 ||
      mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0) {
    failure_ = std::string("no mount namespace: ") + strerror(errno);
    rmdir(name);
    return;
  }
  directory_ = name;
  const auto make = make_commands.find(type);
  const std::string commands =
      make == make_commands.end()
          ? "mount -t " + type + " none ."
          : make->second + " && mount -o loop image . ; result=$?; rm -f image; exit $result";
  const std::string shell =
      "cd " + directory_ + " && { PATH=$PATH:/usr/sbin:/sbin; " + commands + "; } >/dev/null 2>&1";
  if (system(shell.c_str()) != 0) {
    failure_ = "failed: " + shell;
  }
}

mounted_image::~mounted_image() {
  if (failure_.empty()) {
    umount2(directory_.c_str(), MNT_DETACH);
  }
  rmdir(directory_.c_str());
}

}  // namespace velmarin_test
