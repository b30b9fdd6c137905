#include "device_numbers.h"

#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <sstream>

#include "common/unique_fd.h"

namespace tool {
namespace {

struct Identity {
  uint32_t device = 0;
  uint64_t file_system = 0;  // on Btrfs different for each subvolume
};

std::optional<Identity> identify(const std::string &directory) {
  struct stat status = {};
  struct statfs volume = {};
  if (stat(directory.c_str(), &status) != 0 || statfs(directory.c_str(), &volume) != 0) {
    return {};
  }
  Identity identity = {.device = static_cast<uint32_t>(status.st_dev)};
  static_assert(sizeof volume.f_fsid == sizeof identity.file_system);
  std::memcpy(&identity.file_system, &volume.f_fsid, sizeof identity.file_system);
  return identity.file_system == 0 ? std::nullopt : std::optional(identity);  // 0: it has none
}

// Empty if the file is missing or belongs to another user.
std::string read_own_file(const std::string &path) {
  std::string text;
  struct stat status = {};
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid()) {
    char block[4096];
    ssize_t count = read(fd.get(), block, sizeof block);
    while (count > 0) {
      text.append(block, static_cast<size_t>(count));
      count = read(fd.get(), block, sizeof block);
    }
  }
  return text;
}

uint32_t device_of(const SavedDigest &digest) {
  return static_cast<uint32_t>(digest.key >> 32);
}

}  // namespace

// Each line holds a device number, the identity of the file system and a directory on it.
void DeviceNumbers::load(const std::string &path) {
  path_ = path;
  std::istringstream lines(read_own_file(path));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    uint32_t device = 0;
    Entry entry;
    words >> device >> entry.file_system;
    std::getline(words >> std::ws, entry.directory);
    const auto now = words ? identify(entry.directory) : std::nullopt;
    if (now && now->file_system == entry.file_system) {
      if (now->device != device) {
        changed_.emplace(device, now->device);
      }
      entries_.insert_or_assign(now->device, std::move(entry));
    } else if (now && now->device == device) {
      replaced_.insert(device);
    }
  }
}

bool DeviceNumbers::renumber(SavedDigests &digests) const {
  std::set<uint32_t> taken = replaced_;
  for (const auto &[before, now] : changed_) {
    taken.insert(now);
  }
  const auto is_lost = [&](const SavedDigest &digest) {
    return !changed_.contains(device_of(digest)) && taken.contains(device_of(digest));
  };
  bool is_any = std::erase_if(digests, is_lost) > 0;
  for (SavedDigest &digest : digests) {
    if (const auto found = changed_.find(device_of(digest)); found != changed_.end()) {
      digest.key = uint64_t{found->second} << 32 | static_cast<uint32_t>(digest.key);
      is_any = true;
    }
  }
  return is_any;
}

void DeviceNumbers::add(dev_t device, const std::string &directory) {
  const auto now = identify(directory);
  if (now && now->device == static_cast<uint32_t>(device) &&
      directory.find('\n') == std::string::npos) {
    entries_.insert_or_assign(now->device, Entry{now->file_system, directory});
  }
}

void DeviceNumbers::save() const {
  std::ostringstream lines;
  for (const auto &[device, entry] : entries_) {
    lines << device << ' ' << entry.file_system << ' ' << entry.directory << '\n';
  }
  const std::string text = lines.str();
  unlink(path_.c_str());
  const velmarin::unique_fd fd(
      open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  [[maybe_unused]] const ssize_t written = write(fd.get(), text.data(), text.size());
}

}  // namespace tool
