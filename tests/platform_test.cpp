// What stands in for the device's platform: the control codes on real file systems and the
// bounds-checked functions.
#include <bounds_checked.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>

#include "../src/common/unique_fd.h"
#include "support/mounted_image.h"
#include "velmarin/control_codes.h"

namespace velmarin_test {
namespace {

using namespace velmarin;

constexpr int NEW_COPY = O_RDONLY | O_CREAT | O_EXCL;  // how a rapid copy opens its destination

std::string content_of(size_t size, unsigned variant) {
  std::mt19937 random(variant);
  std::string content(size, '\0');
  std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random() | 1); });
  return content;
}

struct stat status_of(const unique_fd &fd) {
  struct stat status = {};
  EXPECT_EQ(fstat(fd.get(), &status), 0);
  return status;
}

std::string read_back(const unique_fd &fd) {
  std::string content(static_cast<size_t>(status_of(fd).st_size), '\0');
  EXPECT_EQ(pread(fd.get(), content.data(), content.size(), 0), std::ssize(content));
  return content;
}

bool overwrite(const unique_fd &fd, const std::string &content, off_t offset = 0) {
  return pwrite(fd.get(), content.data(), content.size(), offset) == std::ssize(content);
}

// Issues a code whose argument is a descriptor, a flags word or both. Returns the errno, or 0.
int request(const unique_fd &fd, unsigned code, int first = 0, uint32_t second = 0) {
  uint32_t words[] = {static_cast<uint32_t>(first), second};
  return ioctl(fd.get(), code, words) == 0 ? 0 : errno;
}

int dedup(const unique_fd &fd, const unique_fd &source, uint32_t mode = SIS_DEDUP_ATTACHED) {
  return request(fd, SIS_IOC_DEDUP_FILE, source.get(), mode);
}

int revoke(const unique_fd &fd) {
  return request(fd, SIS_IOC_REVOKE);
}

int freeze(const unique_fd &fd) {
  return request(fd, SIS_IOC_COINCIDE_FLAG, SIS_FLAG_COINCIDE, SIS_COINCIDE_SET);
}

bool is_frozen(const unique_fd &fd) {
  sis_coincide_arg argument = {0, SIS_COINCIDE_GET};
  EXPECT_EQ(ioctl(fd.get(), SIS_IOC_COINCIDE_FLAG, &argument), 0);
  return argument.flags == SIS_FLAG_COINCIDE;
}

// "plain", or the number of the layered inode and what the file is to it.
std::string state_of(const unique_fd &fd) {
  sis_file_info info = {9, 9, {}, 9};
  EXPECT_EQ(ioctl(fd.get(), SIS_IOC_GET_FILE_INFO, &info), 0);
  const char *kind = info.deduped != 0 ? "deduped" : "layered";
  return info.layered == 0 ? "plain" : std::to_string(info.layer_ino) + kind;
}

class ControlCodes : public testing::TestWithParam<const char *> {
 protected:
  void SetUp() override {
    if (!image_.is_mounted) {
      GTEST_SKIP() << "cannot be mounted here";
    }
  }

  unique_fd open_file(const std::string &name, int flags) {
    unique_fd fd(open(image_.path(name).c_str(), flags | O_CLOEXEC, 0644));
    EXPECT_TRUE(fd.is_open()) << name;
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

  bool has_shared_extents(const std::string &name) {
    return image_.run("filefrag -vs " + name + " | grep -q shared");
  }

  const bool shares_extents_ = strstr("btrfs xfs", GetParam()) != nullptr;
  mounted_image image_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(, ControlCodes, testing::Values("btrfs", "xfs", "ext4", "tmpfs"),
                         [](const auto &type) { return std::string(type.param); });

TEST_P(ControlCodes, FilesOfEverySizeAreMergedAndSeparatedWithContentAndTimesKept) {
  for (const unsigned size : {0u, 4095u, 4096u, 4097u, (33u << 20) + 5}) {
    const std::string content = content_of(size, 1);
    const unique_fd a = make_file("a", content);
    const unique_fd b = make_file("b", content);
    const auto time = status_of(b).st_mtim.tv_nsec;
    EXPECT_EQ(dedup(b, a), EINVAL);  // a is plain
    ASSERT_TRUE(attach(a) == 0 && dedup(b, a) == 0);
    EXPECT_TRUE(state_of(a).ends_with("layered") && state_of(b).ends_with("deduped"));
    EXPECT_EQ(stoul(state_of(a)), stoul(state_of(b)));
    EXPECT_EQ(has_shared_extents("b"), shares_extents_ && size > 0);

    EXPECT_TRUE(revoke(a) == 0 && revoke(open_file("b", O_RDONLY)) == 0 && revoke(b) == EINVAL);
    EXPECT_EQ(state_of(a) + state_of(b), "plainplain");
    EXPECT_EQ(status_of(b).st_mtim.tv_nsec, time);
    EXPECT_FALSE(has_shared_extents("a") || has_shared_extents("b"));

    ASSERT_TRUE(attach(a) == 0 && dedup(b, a) == 0 && overwrite(b, "new"));
    EXPECT_TRUE(state_of(b) == "plain" &&
                revoke(b) == 0);  // it may still share what was not written
    EXPECT_FALSE(has_shared_extents("b"));
    EXPECT_TRUE(read_back(a) == content);
    EXPECT_TRUE(read_back(b) == "new" + content.substr(std::min(size, 3u)));
  }
}

TEST_P(ControlCodes, RevokeKeepsTheHolesOfAFileAndSparesItWhenSpaceIsShort) {
  const unique_fd a = make_file("a", "");
  ASSERT_TRUE(ftruncate(a.get(), 80 << 20) == 0 && overwrite(a, content_of(40 << 20, 2)) &&
              overwrite(a, "far", 64 << 20));
  const std::string content = read_back(a);
  const unique_fd copy = open_file("copy", NEW_COPY);
  ASSERT_TRUE(attach(a) == 0 && dedup(copy, a, SIS_DEDUP_COPY) == 0);
  if (shares_extents_) {
    const unique_fd filler = make_file("filler", "");
    for (off_t end = 0; overwrite(filler, content, end); end += 80 << 20) {}
    EXPECT_EQ(revoke(copy), ENOSPC);
    EXPECT_TRUE(state_of(copy).ends_with("deduped") && has_shared_extents("copy"));
    ASSERT_TRUE(ftruncate(filler.get(), 0) == 0 && syncfs(filler.get()) == 0);
  }
  EXPECT_TRUE(revoke(copy) == 0 && read_back(copy) == content && !has_shared_extents("copy"));
  EXPECT_LT(status_of(copy).st_blocks * 512, 41 << 20);
}

TEST_P(ControlCodes, FilesThatDoNotFitAreRefusedWithEveryByteKept) {
  const std::string content = content_of((17 << 20) + 9, 5);
  const unique_fd source = make_file("source", content);
  const unique_fd copy = open_file("copy", NEW_COPY);
  EXPECT_EQ(dedup(copy, source, SIS_DEDUP_COPY), 0);
  EXPECT_TRUE(read_back(copy) == content && state_of(copy) == "plain");

  ASSERT_EQ(attach(source), 0);
  const std::string all_but_last = content.substr(0, content.size() - 1);  // "x" is no such byte
  for (const std::string &other : {all_but_last + "x", content + "x", all_but_last, {}}) {
    const unique_fd target = make_file("target", other);
    EXPECT_EQ(dedup(target, source, SIS_DEDUP_COPY), EBADE);
    EXPECT_TRUE(read_back(target) == other && state_of(target) == "plain");
  }
  const unique_fd layer = open_file("", O_TMPFILE | O_RDWR);
  EXPECT_EQ(request(layer, SIS_IOC_CLONE_FILE, source.get(), SIS_CLONE_FLAGS), 0);
  EXPECT_EQ(request(copy, SIS_IOC_CLONE_FILE, source.get(), SIS_CLONE_FLAGS), EINVAL);
  EXPECT_EQ(request(copy, SIS_IOC_CONNECT, layer.get()), EINVAL);   // cloned from another file
  EXPECT_EQ(request(copy, SIS_IOC_CONNECT, source.get()), EINVAL);  // has a name
  ASSERT_TRUE(overwrite(source, "changed"));
  EXPECT_EQ(request(source, SIS_IOC_CONNECT, layer.get()), EAGAIN);
  EXPECT_EQ(dedup(make_file("target", content), source), EINVAL);  // no longer attached
}

TEST_P(ControlCodes, AnUnfinishedCopyIsShortAndKeepsWhatAnotherWroteIntoIt) {
  const std::string content = content_of(40 << 20, 7);
  const unique_fd source = make_file("source", content);
  ASSERT_EQ(attach(source), 0);
  const unique_fd copy = open_file("copy", NEW_COPY);
  const unique_fd user = open_file("copy", O_RDWR);
  std::thread copier([&] { dedup(copy, source, SIS_DEDUP_COPY); });
  while (status_of(copy).st_size == 0) {}
  EXPECT_TRUE(content.starts_with(read_back(copy)));
  EXPECT_TRUE(overwrite(user, "kept", 40 << 20) && overwrite(source, "changed"));
  copier.join();
  EXPECT_TRUE(read_back(copy).ends_with("kept"));
}

TEST_P(ControlCodes, AnAttributeCountsUntilTheNextWriteAndForItsOwnFileOnly) {
  const unique_fd writer = make_file("file", "content");
  const unique_fd reader = open_file("file", O_RDONLY);
  for (int round = 0; round < 20; round++) {  // each set within the clock tick of the write before
    EXPECT_TRUE(freeze(reader) == 0 && is_frozen(reader));
    ASSERT_TRUE(overwrite(writer, "CONTENT"));
    EXPECT_FALSE(is_frozen(reader));
  }
  ASSERT_TRUE(attach(writer) == 0 && freeze(reader) == 0);
  ASSERT_TRUE(image_.run("cp -a file copy"));
  const unique_fd copy = open_file("copy", O_RDWR);
  ASSERT_TRUE(fgetxattr(copy.get(), "user.velmarin.layer", nullptr, 0) > 0 &&
              fgetxattr(copy.get(), "user.velmarin.coincide", nullptr, 0) > 0 &&
              status_of(copy).st_mtim.tv_nsec == status_of(writer).st_mtim.tv_nsec);
  EXPECT_TRUE(is_frozen(reader) && !is_frozen(copy));
  EXPECT_TRUE(state_of(copy) == "plain" && revoke(copy) == EINVAL);
  EXPECT_EQ(request(reader, SIS_IOC_COINCIDE_FLAG, SIS_FLAG_COINCIDE, SIS_COINCIDE_CLEAR), 0);
  EXPECT_TRUE(!is_frozen(reader) && state_of(reader).ends_with("layered"));
}

TEST(ControlCodesOn, TimesOfWholeSecondsAndAnOverlayAFreezeHolds) {
  const mounted_image coarse("ext4 -I 128");
  const mounted_image layers("tmpfs");
  if (!coarse.is_mounted || !layers.is_mounted ||
      !layers.run("mkdir l u w m && echo >l/f && mount -t overlay -o "
                  "lowerdir=l,upperdir=u,workdir=w none m")) {
    GTEST_SKIP() << "cannot be mounted here";
  }
  const unique_fd file(open(coarse.path("f").c_str(), O_RDWR | O_CREAT, 0644));
  ASSERT_TRUE(overwrite(file, "one"));
  EXPECT_TRUE(freeze(file) == 0 && is_frozen(file));
  ASSERT_TRUE(overwrite(file, "two"));
  EXPECT_FALSE(is_frozen(file));
  const unique_fd lower(open(layers.path("m/f").c_str(), O_RDONLY));
  EXPECT_TRUE(freeze(lower) == 0 && is_frozen(lower));
}

TEST_P(ControlCodes, ImpossibleRequestsAreRefusedWithTheirErrno) {
  const mounted_image bare("ramfs");
  const unique_fd a = make_file("a", "content");
  const unique_fd write_only = open_file("b", O_WRONLY | O_CREAT);
  const unique_fd directory = open_file("", O_RDONLY | O_DIRECTORY);
  const unique_fd layer = open_file("", O_TMPFILE | O_RDWR);
  const unique_fd appending = open_file("", O_TMPFILE | O_RDWR | O_APPEND);
  const unique_fd stateless(open(bare.path("f").c_str(), O_RDWR | O_CREAT, 0644));
  ASSERT_EQ(attach(a), 0);
  EXPECT_EQ(dedup(a, a), EINVAL);
  EXPECT_EQ(dedup(a, unique_fd(AT_FDCWD)), EBADF);
  EXPECT_EQ(dedup(a, directory), EISDIR);
  EXPECT_EQ(dedup(write_only, a), EBADF);
  EXPECT_EQ(dedup(stateless, a), EXDEV);
  EXPECT_EQ(revoke(directory), EISDIR);
  EXPECT_EQ(freeze(directory), EISDIR);
  EXPECT_EQ(request(layer, SIS_IOC_CLONE_FILE, a.get(), 0x20), EINVAL);
  EXPECT_EQ(request(appending, SIS_IOC_CLONE_FILE, a.get(), SIS_CLONE_FLAGS), EBADF);
  EXPECT_EQ(request(a, SIS_IOC_CONNECT, layer.get()), EINVAL);  // not cloned
  EXPECT_EQ(request(a, SIS_IOC_COINCIDE_FLAG, 3, SIS_COINCIDE_SET), EINVAL);
  EXPECT_EQ(request(stateless, SIS_IOC_GET_FILE_INFO), EOPNOTSUPP);
  EXPECT_EQ(request(a, 0x4004f536), ENOTTY);
  for (const unsigned code : {SIS_IOC_CONNECT, SIS_IOC_DEDUP_FILE, SIS_IOC_CLONE_FILE,
                              SIS_IOC_GET_FILE_INFO, SIS_IOC_COINCIDE_FLAG, SIS_IOC_REVOKE}) {
    EXPECT_EQ(request(unique_fd(), code), EBADF);
    EXPECT_TRUE(ioctl(-1, code, nullptr) == -1 && errno == EBADF);
    const int result = ioctl(a.get(), code, nullptr) == 0 ? 0 : errno;
    EXPECT_EQ(result, code == SIS_IOC_REVOKE ? 0 : EFAULT);
  }
}

TEST_P(ControlCodes, AWriteDuringARequestIsNeverLost) {
  const std::string content = content_of(200'000, 6);
  const unique_fd source = make_file("source", content);
  const unique_fd target = make_file("target", content);
  const timespec long_ago[] = {{1, 0}, {1, 0}};
  ASSERT_EQ(attach(source), 0);
  for (unsigned round = 0; round < 200; round++) {  // the files are identical when a round begins
    EXPECT_EQ(futimens(target.get(), long_ago), 0);
    const unsigned place = round * 4099 % 200'000;
    std::thread writer([&] {
      usleep(round % 20 * 20);
      EXPECT_TRUE(overwrite(target, std::string(1, '\0'), place));
    });
    round % 4 == 0 ? revoke(target) : dedup(target, source);
    writer.join();
    EXPECT_EQ(read_back(target)[place], '\0');
    EXPECT_TRUE(overwrite(target, content));
  }
  EXPECT_TRUE(read_back(source) == content);
}

TEST(BoundsChecked, NothingIsWrittenThatDoesNotFit) {
  char buffer[8] = "1234567";
  EXPECT_EQ(memset_s(buffer, 3, 'y', 4) + memcpy_s(buffer, 3, "abcd", 4), 2 * ERANGE);
  EXPECT_STREQ(buffer, "1234567");
  EXPECT_TRUE(strcpy_s(buffer, 3, "abc") == ERANGE && buffer[0] == '\0' && buffer[3] == '4');
  EXPECT_TRUE(snprintf_s(buffer, 4, 9, "%d", 1234) == -1 && buffer[0] == '\0' && buffer[4] == '5');
}

}  // namespace
}  // namespace velmarin_test
