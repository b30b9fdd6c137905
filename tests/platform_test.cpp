// What stands in for the device's platform: the control codes on real file systems, the
// bounds-checked functions, the log sink.
#include <android/log.h>
#include <bounds_checked.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/btrfs.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../src/common/unique_fd.h"
#include "support/mounted_image.h"
#include "velmarin/control_codes.h"
#include "velmarin_platform/log_sink.h"

namespace velmarin_test {
namespace {

using namespace velmarin;
using namespace std::string_literals;

constexpr int NEW_COPY = O_RDONLY | O_CREAT | O_EXCL;  // how a rapid copy opens its destination

std::string content_of(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string content(size, '\0');
  for (char &byte : content) {
    byte = static_cast<char>(random() | 1);
  }
  return content;
}

struct stat status_of(const unique_fd &fd) {
  struct stat status = {};
  EXPECT_EQ(fstat(fd.get(), &status), 0);
  return status;
}

int64_t mtime_of(const unique_fd &fd) {
  const timespec time = status_of(fd).st_mtim;
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

std::string read_back(const unique_fd &fd) {
  std::string content(static_cast<size_t>(status_of(fd).st_size), '\0');
  const ssize_t length = pread(fd.get(), content.data(), content.size(), 0);
  EXPECT_EQ(length, static_cast<ssize_t>(content.size()));
  return content;
}

bool overwrite(const unique_fd &fd, const std::string &content, off_t offset = 0) {
  const ssize_t length = pwrite(fd.get(), content.data(), content.size(), offset);
  return length == static_cast<ssize_t>(content.size());
}

// Issues a code whose argument is a descriptor, a flags word or both. Returns the errno, or 0.
int request(const unique_fd &fd, unsigned code, int first, uint32_t second = 0) {
  uint32_t words[] = {static_cast<uint32_t>(first), second};
  return ioctl(fd.get(), code, words) == 0 ? 0 : errno;
}

int dedup(const unique_fd &fd, const unique_fd &source, uint32_t mode = SIS_DEDUP_ATTACHED) {
  return request(fd, SIS_IOC_DEDUP_FILE, source.get(), mode);
}

int revoke(const unique_fd &fd) {
  return ioctl(fd.get(), SIS_IOC_REVOKE, nullptr) == 0 ? 0 : errno;
}

int freeze(const unique_fd &fd) {
  return request(fd, SIS_IOC_COINCIDE_FLAG, SIS_FLAG_COINCIDE, SIS_COINCIDE_SET);
}

bool is_frozen(const unique_fd &fd) {
  sis_coincide_arg argument = {0, SIS_COINCIDE_GET};
  EXPECT_EQ(ioctl(fd.get(), SIS_IOC_COINCIDE_FLAG, &argument), 0);
  return argument.flags == SIS_FLAG_COINCIDE;
}

sis_file_info info_of(const unique_fd &fd) {
  sis_file_info info = {9, 9, {}, 9};
  EXPECT_EQ(ioctl(fd.get(), SIS_IOC_GET_FILE_INFO, &info), 0);
  EXPECT_EQ(info.layered != 0, info.layer_ino != 0);
  return info;
}

std::string state_of(const unique_fd &fd) {
  const sis_file_info info = info_of(fd);
  return info.deduped != 0 ? "deduped " : info.layered != 0 ? "layered " : "plain ";
}

struct extent_map {
  std::vector<uint64_t> addresses;
  bool has_shared = false;
};

extent_map extents_of(const unique_fd &fd) {
  std::vector<uint64_t> memory(1024);
  auto *map = reinterpret_cast<fiemap *>(memory.data());
  map->fm_length =
      static_cast<uint64_t>(status_of(fd).st_size) + 1;  // XFS allocates beyond the end
  map->fm_flags = FIEMAP_FLAG_SYNC;
  map->fm_extent_count = 100;
  EXPECT_EQ(ioctl(fd.get(), FS_IOC_FIEMAP, map), 0) << strerror(errno);
  extent_map result;
  for (uint32_t i = 0; i < map->fm_mapped_extents; i++) {
    result.addresses.push_back(map->fm_extents[i].fe_physical);
    result.has_shared |= (map->fm_extents[i].fe_flags & FIEMAP_EXTENT_SHARED) != 0;
  }
  return result;
}

class ControlCodes : public testing::TestWithParam<const char *> {
 protected:
  void SetUp() override {
    if (!image_.failure().empty()) {
      GTEST_SKIP() << "cannot be mounted here: " << image_.failure();
    }
  }

  unique_fd open_file(const std::string &name, int flags) {
    unique_fd fd(open(image_.path(name).c_str(), flags | O_CLOEXEC, 0644));
    EXPECT_TRUE(fd.is_open()) << name << ": " << strerror(errno);
    return fd;
  }

  unique_fd make_file(const std::string &name, const std::string &content) {
    unique_fd fd = open_file(name, O_RDWR | O_CREAT | O_TRUNC);
    EXPECT_TRUE(overwrite(fd, content));
    return fd;
  }

  // Gives the file a new layered inode.
  int attach(const unique_fd &fd) {
    const unique_fd layer = open_file("", O_TMPFILE | O_RDWR);
    const int error = request(layer, SIS_IOC_CLONE_FILE, fd.get(), SIS_CLONE_FLAGS);
    return error != 0 ? error : request(fd, SIS_IOC_CONNECT, layer.get());
  }

  const std::string type_ = GetParam();
  const bool shares_extents_ = type_ == "btrfs" || type_ == "xfs";
  mounted_image image_{type_};
};

INSTANTIATE_TEST_SUITE_P(, ControlCodes, testing::Values("btrfs", "xfs", "ext4", "tmpfs"),
                         [](const auto &type) { return std::string(type.param); });

TEST_P(ControlCodes, FilesOfEverySizeAreMergedAndSeparatedWithContentAndTimesKept) {
  for (const unsigned size :
       {0u, 1u, 2000u, 4095u, 4096u, 4097u, (1u << 20) + 1, (33u << 20) + 5}) {
    SCOPED_TRACE(size);
    const std::string content = content_of(size, 1);
    const unique_fd a = make_file("a", content);
    const unique_fd b = make_file("b", content);
    const unique_fd c = make_file("c", content);
    const unique_fd b_read_only = open_file("b", O_RDONLY);
    const int64_t times[] = {mtime_of(a), mtime_of(b)};
    EXPECT_EQ(dedup(b, a), EINVAL);  // a is plain

    ASSERT_EQ(attach(a), 0);
    ASSERT_EQ(dedup(b, a), 0);
    ASSERT_EQ(dedup(c, a, SIS_DEDUP_COPY), 0);
    EXPECT_EQ(state_of(a) + state_of(b) + state_of(c), "layered deduped deduped ");
    EXPECT_EQ(info_of(b).layer_ino, info_of(a).layer_ino);
    if (shares_extents_ && size >= 4095) {  // Btrfs keeps up to 2 KiB inside the inode
      EXPECT_EQ(extents_of(a).addresses, extents_of(b).addresses);
      EXPECT_TRUE(extents_of(a).has_shared && extents_of(b).has_shared);
    }

    EXPECT_EQ(request(a, SIS_IOC_REVOKE, 12345), 0);
    EXPECT_EQ(revoke(b_read_only), 0);
    EXPECT_EQ(revoke(b), EINVAL);
    EXPECT_EQ(state_of(a) + state_of(b) + state_of(c), "plain plain deduped ");
    EXPECT_TRUE(mtime_of(a) == times[0] && mtime_of(b) == times[1]);
    EXPECT_FALSE(shares_extents_ && (extents_of(a).has_shared || extents_of(b).has_shared));

    ASSERT_TRUE(attach(a) == 0 && dedup(b, a) == 0);
    ASSERT_TRUE(overwrite(b, "new") && overwrite(c, "new"));
    EXPECT_EQ(state_of(a) + state_of(b) + state_of(c), "layered plain plain ");
    EXPECT_EQ(revoke(b), 0);  // it may still share what was not written
    EXPECT_FALSE(shares_extents_ && extents_of(b).has_shared);
    EXPECT_TRUE(read_back(a) == content && read_back(b) == read_back(c));
    EXPECT_TRUE(read_back(b) == "new" + content.substr(std::min(size, 3u)));
  }
}

TEST_P(ControlCodes, RevokeKeepsTheHolesOfAFileAndSparesItWhenSpaceIsShort) {
  const unique_fd a = make_file("a", "");
  ASSERT_EQ(ftruncate(a.get(), 80 << 20), 0);
  ASSERT_TRUE(overwrite(a, content_of(40 << 20, 2)) && overwrite(a, "far", 64 << 20));
  const std::string content = read_back(a);
  const unique_fd copy = open_file("copy", NEW_COPY);
  ASSERT_TRUE(attach(a) == 0 && dedup(copy, a, SIS_DEDUP_COPY) == 0);
  if (shares_extents_) {
    const unique_fd filler = make_file("filler", "");
    off_t filled = 0;
    for (off_t step = 64 << 20; step >= 1 << 20; step /= 2) {
      while (fallocate(filler.get(), 0, filled, step) == 0) {
        filled += step;
      }
    }
    const std::vector<uint64_t> addresses = extents_of(copy).addresses;
    EXPECT_EQ(revoke(copy), ENOSPC);
    EXPECT_EQ(extents_of(copy).addresses, addresses);
    EXPECT_EQ(state_of(copy), "deduped ");
    ASSERT_EQ(ftruncate(filler.get(), 0), 0);
    ASSERT_EQ(syncfs(filler.get()), 0);
  }
  ASSERT_EQ(unlink(image_.path("a").c_str()), 0);
  for (const unique_fd *fd : {&a, &copy}) {
    EXPECT_EQ(revoke(*fd), 0);
    EXPECT_EQ(state_of(*fd), "plain ");
    EXPECT_TRUE(read_back(*fd) == content);
    EXPECT_FALSE(shares_extents_ && extents_of(*fd).has_shared);
    EXPECT_LT(status_of(*fd).st_blocks * 512, 41 << 20);
  }
}

TEST_P(ControlCodes, OnlyAnEmptyReadOnlyTargetIsFilled) {
  const std::string content = content_of(100'000, 4);
  const unique_fd source = make_file("source", content);
  const unique_fd plain_copy = open_file("plain", NEW_COPY);
  EXPECT_EQ(dedup(plain_copy, source, SIS_DEDUP_ATTACHED), EBADF);
  EXPECT_EQ(dedup(plain_copy, source, SIS_DEDUP_COPY), 0);
  EXPECT_EQ(dedup(plain_copy, source, SIS_DEDUP_COPY), EBADF);  // no longer empty

  ASSERT_EQ(attach(source), 0);
  const unique_fd copy = open_file("copy", NEW_COPY);
  EXPECT_EQ(dedup(copy, source, SIS_DEDUP_COPY), 0);
  EXPECT_EQ(state_of(plain_copy) + state_of(copy), "plain deduped ");
  EXPECT_EQ(info_of(copy).layer_ino, info_of(source).layer_ino);
  EXPECT_TRUE(read_back(copy) == content && read_back(plain_copy) == content);

  const unique_fd users_file = make_file("users", "");
  EXPECT_EQ(dedup(users_file, source, SIS_DEDUP_COPY), EBADE);
  EXPECT_EQ(request(users_file, SIS_IOC_CLONE_FILE, source.get(), SIS_CLONE_FLAGS), EINVAL);
  EXPECT_EQ(read_back(users_file), "");
}

TEST_P(ControlCodes, FilesThatDoNotFitAreRefusedWithEveryByteKept) {
  const std::string content = content_of((17 << 20) + 9, 5);
  const unique_fd source = make_file("source", content);
  ASSERT_EQ(attach(source), 0);
  std::string last_byte_differs = content;
  last_byte_differs.back() ^= 2;
  for (const std::string &other : {last_byte_differs, content + "x", content.substr(1)}) {
    const unique_fd target = make_file("target", other);
    const int64_t time = mtime_of(target);
    EXPECT_EQ(dedup(target, source), EBADE);
    EXPECT_TRUE(read_back(target) == other && mtime_of(target) == time);
    EXPECT_EQ(state_of(target), "plain ");
  }

  const unique_fd layer = open_file("", O_TMPFILE | O_RDWR);
  const unique_fd other = make_file("other", content);
  ASSERT_EQ(request(layer, SIS_IOC_CLONE_FILE, source.get(), SIS_CLONE_FLAGS), 0);
  EXPECT_EQ(request(layer, SIS_IOC_CLONE_FILE, source.get(), SIS_CLONE_FLAGS), EINVAL);
  EXPECT_EQ(request(other, SIS_IOC_CONNECT, layer.get()), EINVAL);   // cloned from another file
  EXPECT_EQ(request(other, SIS_IOC_CONNECT, source.get()), EINVAL);  // has a name
  ASSERT_TRUE(overwrite(source, "changed"));
  EXPECT_EQ(request(source, SIS_IOC_CONNECT, layer.get()), EAGAIN);
  EXPECT_EQ(dedup(other, source), EINVAL);  // the write detached the source
}

TEST_P(ControlCodes, TheCoincideFlagIsDroppedByTheNextWrite) {
  const unique_fd writer = make_file("file", "content");
  const unique_fd reader = open_file("file", O_RDONLY);
  for (int round = 0; round < 20; round++) {  // each set within the clock tick of the write before
    EXPECT_FALSE(is_frozen(reader));
    EXPECT_EQ(freeze(reader), 0);
    EXPECT_TRUE(is_frozen(reader));
    ASSERT_TRUE(overwrite(writer, "CONTENT"));
  }
  EXPECT_FALSE(is_frozen(reader));
  EXPECT_TRUE(freeze(reader) == 0 && attach(writer) == 0);
  EXPECT_TRUE(is_frozen(reader));
  for (int round = 0; round < 2; round++) {
    EXPECT_EQ(request(reader, SIS_IOC_COINCIDE_FLAG, SIS_FLAG_COINCIDE, SIS_COINCIDE_CLEAR), 0);
    EXPECT_FALSE(is_frozen(reader));
  }
  EXPECT_EQ(state_of(reader), "layered ");
}

TEST_P(ControlCodes, ACopiedAttributeCountsForNothing) {
  const unique_fd original = make_file("original", "content");
  const unique_fd copy = make_file("copy", "content");
  ASSERT_TRUE(attach(original) == 0 && freeze(original) == 0);
  const timespec times[] = {status_of(original).st_mtim, status_of(original).st_mtim};
  ASSERT_EQ(futimens(copy.get(), times), 0);
  for (const char *name : {"user.velmarin.layer", "user.velmarin.coincide"}) {
    char value[256];
    const ssize_t length = fgetxattr(original.get(), name, value, sizeof(value));
    ASSERT_GT(length, 0);
    ASSERT_EQ(fsetxattr(copy.get(), name, value, static_cast<size_t>(length), 0), 0);
  }
  EXPECT_TRUE(is_frozen(original) && !is_frozen(copy));
  EXPECT_EQ(state_of(original) + state_of(copy), "layered plain ");
  EXPECT_EQ(revoke(copy), EINVAL);
}

TEST_P(ControlCodes, ImpossibleRequestsAreRefusedWithTheirErrno) {
  const unique_fd a = make_file("a", "content");
  const unique_fd write_only = open_file("b", O_WRONLY | O_CREAT);
  const unique_fd directory = open_file("", O_RDONLY | O_DIRECTORY);
  const unique_fd layer = open_file("", O_TMPFILE | O_RDWR);
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const unique_fd pipe_out(pipe_ends[0]);
  const unique_fd pipe_in(pipe_ends[1]);
  const unique_fd closed;
  ASSERT_EQ(attach(a), 0);
  EXPECT_EQ(dedup(a, a), EINVAL);
  EXPECT_EQ(dedup(a, closed), EBADF);
  EXPECT_EQ(dedup(closed, a), EBADF);
  EXPECT_EQ(dedup(a, unique_fd(AT_FDCWD)), EBADF);
  EXPECT_EQ(dedup(a, directory), EISDIR);
  EXPECT_EQ(dedup(pipe_in, a), EINVAL);
  EXPECT_EQ(dedup(write_only, a), EBADF);
  EXPECT_EQ(dedup(write_only, a, 2), EINVAL);
  EXPECT_EQ(request(layer, SIS_IOC_CLONE_FILE, a.get(), 0x20), EINVAL);
  EXPECT_EQ(request(a, SIS_IOC_CONNECT, layer.get()), EINVAL);  // not cloned
  EXPECT_EQ(request(a, SIS_IOC_CONNECT, directory.get()), EISDIR);
  EXPECT_EQ(request(a, SIS_IOC_CONNECT, -1), EBADF);
  EXPECT_EQ(revoke(closed), EBADF);
  EXPECT_EQ(revoke(directory), EISDIR);
  EXPECT_EQ(freeze(closed), EBADF);
  EXPECT_EQ(freeze(directory), EISDIR);
  EXPECT_EQ(request(a, SIS_IOC_COINCIDE_FLAG, 3, SIS_COINCIDE_SET), EINVAL);
  EXPECT_EQ(request(a, SIS_IOC_COINCIDE_FLAG, 2, SIS_COINCIDE_SET | SIS_COINCIDE_GET), EINVAL);
  EXPECT_EQ(request(closed, SIS_IOC_GET_FILE_INFO, 0), EBADF);
  EXPECT_EQ(request(a, 0x4004f536, 0), ENOTTY);
  for (const unsigned code : {SIS_IOC_CONNECT, SIS_IOC_DEDUP_FILE, SIS_IOC_CLONE_FILE,
                              SIS_IOC_GET_FILE_INFO, SIS_IOC_COINCIDE_FLAG}) {
    EXPECT_TRUE(ioctl(a.get(), code, nullptr) == -1 && errno == EFAULT);
  }
}

TEST_P(ControlCodes, AnotherFileSystemIsRefusedAndAnotherSubvolumeIsNot) {
  const mounted_image other("tmpfs");
  const mounted_image bare("ramfs");
  const unique_fd a = make_file("a", "content of a file");
  ASSERT_EQ(attach(a), 0);
  const unique_fd foreign(open(other.path("f").c_str(), O_RDWR | O_CREAT, 0644));
  ASSERT_TRUE(overwrite(foreign, "content of a file"));
  EXPECT_EQ(dedup(foreign, a), EXDEV);

  const unique_fd stateless(open(bare.path("f").c_str(), O_RDWR | O_CREAT, 0644));
  EXPECT_EQ(request(stateless, SIS_IOC_GET_FILE_INFO, 0), EOPNOTSUPP);
  EXPECT_EQ(freeze(stateless), EOPNOTSUPP);
  EXPECT_EQ(revoke(stateless), EOPNOTSUPP);

  if (type_ == "btrfs") {
    btrfs_ioctl_vol_args volume = {};
    ASSERT_EQ(strcpy_s(volume.name, sizeof(volume.name), "volume"), 0);
    const unique_fd root = open_file("", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(ioctl(root.get(), BTRFS_IOC_SUBVOL_CREATE, &volume), 0);
    EXPECT_EQ(dedup(make_file("volume/f", "content of a file"), a), 0);
  }
}

TEST_P(ControlCodes, AWriteDuringARequestIsNeverLost) {
  constexpr int ROUNDS = 200;
  const std::string content = content_of(200'000, 6);
  const unique_fd source = make_file("source", content);
  const unique_fd target = make_file("target", content);
  const unique_fd writer_fd = open_file("target", O_RDWR);
  const timespec long_ago[] = {{1, 0}, {1, 0}};
  const auto place_of = [&](int round) { return round * 4099 % 200'000; };
  ASSERT_EQ(attach(source), 0);
  std::atomic<int> started = 0;
  std::atomic<int> written = 0;
  std::thread writer([&] {
    for (int round = 1; round <= ROUNDS; round++) {
      started.wait(round - 1);
      std::this_thread::sleep_for(std::chrono::microseconds(round % 20 * 20));
      EXPECT_TRUE(overwrite(writer_fd, "\0"s, place_of(round)));
      written = round;
      written.notify_one();
    }
  });
  int lost = 0;
  for (int round = 1; round <= ROUNDS; round++) {  // the files are identical when a round begins
    EXPECT_EQ(futimens(target.get(), long_ago), 0);
    started = round;
    started.notify_one();
    round % 4 == 0 ? revoke(target) : dedup(target, source);
    written.wait(round - 1);
    char byte = 1;
    lost += pread(target.get(), &byte, 1, place_of(round)) != 1 || byte != 0;
    EXPECT_TRUE(overwrite(target, content));
  }
  writer.join();
  EXPECT_EQ(lost, 0);
  EXPECT_TRUE(read_back(target) == content && read_back(source) == content);
}

TEST(BoundsChecked, NothingIsWrittenThatDoesNotFit) {
  char buffer[8] = "1234567";
  const auto after = [&](int result) {
    return (result == ERANGE   ? "range "
            : result == EINVAL ? "invalid "
                               : std::to_string(result)) +
           buffer;
  };
  EXPECT_EQ(after(memset_s(buffer, 3, 'x', 3)), "0xxx4567");
  EXPECT_EQ(after(memset_s(buffer, 3, 'y', 4)), "range xxx4567");
  EXPECT_EQ(after(memset_s(nullptr, 3, 'y', 3)), "invalid xxx4567");
  EXPECT_EQ(after(memcpy_s(buffer, 3, "abcd", 4)), "range xxx4567");
  EXPECT_EQ(after(memcpy_s(buffer, 3, nullptr, 3)), "invalid xxx4567");
  EXPECT_EQ(after(memcpy_s(buffer, 3, "abcd", 3)), "0abc4567");
  EXPECT_EQ(after(strcpy_s(buffer, 4, "xyz")), "0xyz");
  EXPECT_EQ(after(strcpy_s(buffer, 0, "")), "range xyz");
  EXPECT_EQ(after(strcpy_s(buffer, 3, nullptr)), "invalid xyz");
  EXPECT_EQ(after(strcpy_s(buffer, 3, "abc")), "range ");
  EXPECT_EQ(buffer[4], '5');
  EXPECT_EQ(after(snprintf_s(buffer, 8, 7, "%s%d", "abcde", 42)), "7abcde42");
  EXPECT_EQ(after(snprintf_s(buffer, 8, SIZE_MAX, "%d", 12345678)), "-1");
  EXPECT_EQ(after(snprintf_s(buffer, 8, SIZE_MAX, "%d", 1234567)), "71234567");
  EXPECT_EQ(after(snprintf_s(buffer, 8, 2, "%d", 123)), "-1");
  EXPECT_EQ(snprintf_s(buffer, 0, 2, "a") + snprintf_s(nullptr, 8, 2, "a"), -2);
}

TEST(SystemLog, ALineReachesTheSinkWholeUpToTwoLongPathsAndErrnoIsKept) {
  std::string seen;
  velmarin_set_log_sink(
      [](void *data, int buffer, int priority, const char *tag, const char *line) {
        *static_cast<std::string *>(data) =
            std::to_string(buffer) + std::to_string(priority) + (tag ? tag : "-") + line;
        errno = ERANGE;
      },
      &seen);
  const std::string path(PATH_MAX - 1, 'p');
  const char *text = path.c_str();
  errno = ENOENT;
  EXPECT_GT(__android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_ERROR, "t", "%s %s\n", text, text),
            0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(seen, "36t" + path + " " + path + "\n");
  const std::string before = seen;
  velmarin_set_log_sink(nullptr, nullptr);
  EXPECT_GT(__android_log_buf_print(LOG_ID_MAIN, ANDROID_LOG_INFO, "velmarin", "to syslog\n"), 0);
  EXPECT_EQ(seen, before);
}

}  // namespace
}  // namespace velmarin_test
