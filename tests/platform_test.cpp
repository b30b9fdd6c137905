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
constexpr int NAMELESS = O_TMPFILE | O_RDWR;

std::string random_bytes(size_t size) {  // never 0 nor 'x'
  std::mt19937 random(1);
  std::string content(size, '\0');
  std::ranges::generate(content, [&] { return static_cast<char>(random() % 100 + 1); });
  return content;
}

// An open file. Requests return the errno, or 0.
struct test_file {
  unique_fd fd;

  struct stat status() const {
    struct stat status = {};
    EXPECT_EQ(fstat(fd.get(), &status), 0);
    return status;
  }
  std::string content() const {
    std::string content(static_cast<size_t>(status().st_size), '\0');
    EXPECT_EQ(pread(fd.get(), content.data(), content.size(), 0), std::ssize(content));
    return content;
  }
  bool write(const std::string &content, off_t offset = 0) const {
    return pwrite(fd.get(), content.data(), content.size(), offset) == std::ssize(content);
  }
  bool resize(off_t size) const { return ftruncate(fd.get(), size) == 0; }

  // Issues a code whose argument is a descriptor, a flags word or both.
  int request(unsigned code, int first = 0, uint32_t second = 0) const {
    uint32_t words[] = {static_cast<uint32_t>(first), second};
    return ioctl(fd.get(), code, words) == 0 ? 0 : errno;
  }
  int dedup(const test_file &source, uint32_t mode = SIS_DEDUP_ATTACHED) const {
    return request(SIS_IOC_DEDUP_FILE, source.fd.get(), mode);
  }
  int clone(const test_file &source) const {
    return request(SIS_IOC_CLONE_FILE, source.fd.get(), SIS_CLONE_FLAGS);
  }
  int connect(const test_file &layer) const { return request(SIS_IOC_CONNECT, layer.fd.get()); }
  int revoke() const { return request(SIS_IOC_REVOKE); }
  int mark(uint32_t operation, int flags = SIS_FLAG_COINCIDE) const {
    return request(SIS_IOC_COINCIDE_FLAG, flags, operation);
  }
  bool is_marked() const {
    sis_coincide_arg argument = {0, SIS_COINCIDE_GET};
    EXPECT_EQ(ioctl(fd.get(), SIS_IOC_COINCIDE_FLAG, &argument), 0);
    return argument.flags == SIS_FLAG_COINCIDE;
  }
  // "plain", or the number of the layered inode and what the file is to it.
  std::string state() const {
    sis_file_info info = {9, 9, {}, 9};
    EXPECT_EQ(ioctl(fd.get(), SIS_IOC_GET_FILE_INFO, &info), 0);
    const char *kind = info.deduped != 0 ? "deduped" : "layered";
    return info.layered == 0 ? "plain" : std::to_string(info.layer_ino) + kind;
  }
};

class ControlCodes : public testing::TestWithParam<const char *> {
 protected:
  void SetUp() override {
    if (!image_.is_mounted) {
      GTEST_SKIP() << "cannot be mounted here";
    }
  }
  test_file open_file(const std::string &name, int flags) {
    return {unique_fd(open(image_.path(name).c_str(), flags | O_CLOEXEC, 0644))};
  }
  test_file make_file(const std::string &name, const std::string &content) {
    test_file file = open_file(name, O_RDWR | O_CREAT | O_TRUNC);
    EXPECT_TRUE(file.write(content));
    return file;
  }
  // Gives the file a new layered inode.
  bool attach(const test_file &file) {
    const test_file layer = open_file("", NAMELESS);
    return layer.clone(file) == 0 && file.connect(layer) == 0;
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
    const std::string content = random_bytes(size);
    const test_file a = make_file("a", content);
    const test_file b = make_file("b", content);
    const auto time = b.status().st_mtim.tv_nsec;
    EXPECT_EQ(b.dedup(a), EINVAL);  // a is plain
    ASSERT_TRUE(attach(a) && b.dedup(a) == 0);
    EXPECT_TRUE(a.state().ends_with("layered") && b.state().ends_with("deduped"));
    EXPECT_EQ(stoul(a.state()), stoul(b.state()));
    EXPECT_EQ(has_shared_extents("b"), shares_extents_ && size > 0);

    EXPECT_TRUE(a.revoke() == 0 && open_file("b", O_RDONLY).revoke() == 0 && b.revoke() == EINVAL);
    EXPECT_EQ(a.state() + b.state(), "plainplain");
    EXPECT_EQ(b.status().st_mtim.tv_nsec, time);
    EXPECT_FALSE(has_shared_extents("a") || has_shared_extents("b"));

    ASSERT_TRUE(attach(a) && b.dedup(a) == 0 && b.write("new"));
    EXPECT_TRUE(b.state() == "plain" && b.revoke() == 0);  // it may still share the rest
    EXPECT_FALSE(has_shared_extents("b"));
    EXPECT_TRUE(a.content() == content);
    EXPECT_TRUE(b.content() == "new" + content.substr(std::min(size, 3u)));
  }
}

TEST_P(ControlCodes, RevokeKeepsTheHolesOfAFileAndSparesItWhenSpaceIsShort) {
  const test_file a = make_file("a", random_bytes(40 << 20));
  ASSERT_TRUE(a.write("far", 64 << 20) && a.resize(80 << 20) && attach(a));
  const std::string content = a.content();
  const test_file copy = open_file("copy", NEW_COPY);
  ASSERT_EQ(copy.dedup(a, SIS_DEDUP_COPY), 0);
  if (shares_extents_) {
    const test_file filler = make_file("filler", "");
    for (off_t end = 0; filler.write(content, end); end += 80 << 20) {}
    EXPECT_EQ(copy.revoke(), ENOSPC);
    EXPECT_TRUE(copy.state().ends_with("deduped") && has_shared_extents("copy"));
    ASSERT_TRUE(filler.resize(0) && syncfs(filler.fd.get()) == 0);
  }
  EXPECT_TRUE(copy.revoke() == 0 && copy.content() == content && !has_shared_extents("copy"));
  EXPECT_LT(copy.status().st_blocks * 512, 41 << 20);
}

TEST_P(ControlCodes, RequestsThatDoNotFitAreRefusedWithEveryByteKept) {
  const mounted_image bare("ramfs");
  const test_file stateless = {unique_fd(open(bare.path("f").c_str(), O_RDWR | O_CREAT, 0644))};
  const std::string content = random_bytes((17 << 20) + 9);
  const test_file source = make_file("source", content);
  const test_file copy = open_file("copy", NEW_COPY);
  const test_file layer = open_file("", NAMELESS);
  const test_file directory = open_file("", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(copy.dedup(source, SIS_DEDUP_COPY), 0);
  EXPECT_TRUE(copy.content() == content && copy.state() == "plain");
  EXPECT_EQ(source.connect(layer), EINVAL);  // not cloned

  ASSERT_TRUE(attach(source) && layer.clone(source) == 0);
  const std::string all_but_last = content.substr(0, content.size() - 1);
  for (const std::string &other : {all_but_last + "x", content + "x", all_but_last, {}}) {
    const test_file target = make_file("target", other);
    EXPECT_EQ(target.dedup(source, SIS_DEDUP_COPY), EBADE);
    EXPECT_TRUE(target.content() == other && target.state() == "plain");
  }
  EXPECT_EQ(copy.clone(source), EINVAL);  // has a name
  EXPECT_EQ(open_file("", NAMELESS | O_APPEND).clone(source), EBADF);
  EXPECT_EQ(copy.connect(layer), EINVAL);  // cloned from another file
  EXPECT_EQ(source.dedup(source), EINVAL);
  EXPECT_EQ(source.dedup({unique_fd(AT_FDCWD)}), EBADF);
  EXPECT_EQ(source.dedup(directory), EISDIR);
  EXPECT_EQ(open_file("target", O_WRONLY).dedup(source), EBADF);
  EXPECT_EQ(stateless.dedup(source), EXDEV);
  EXPECT_EQ(stateless.request(SIS_IOC_GET_FILE_INFO), EOPNOTSUPP);
  EXPECT_EQ(directory.mark(SIS_COINCIDE_SET), EISDIR);
  EXPECT_EQ(source.mark(SIS_COINCIDE_SET, 3), EINVAL);
  EXPECT_EQ(source.request(0x4004f536), ENOTTY);
  ASSERT_TRUE(source.write("changed"));
  EXPECT_EQ(source.connect(layer), EAGAIN);
  EXPECT_EQ(make_file("target", content).dedup(source), EINVAL);  // no longer attached
  for (const unsigned code : {SIS_IOC_CONNECT, SIS_IOC_DEDUP_FILE, SIS_IOC_CLONE_FILE,
                              SIS_IOC_GET_FILE_INFO, SIS_IOC_COINCIDE_FLAG, SIS_IOC_REVOKE}) {
    EXPECT_EQ(test_file().request(code), EBADF);
    const int result = ioctl(source.fd.get(), code, nullptr) == 0 ? 0 : errno;
    EXPECT_EQ(result, code == SIS_IOC_REVOKE ? 0 : EFAULT);
  }
}

TEST_P(ControlCodes, AnUnfinishedCopyIsShortAndKeepsWhatAnotherWroteIntoIt) {
  const test_file source = make_file("source", random_bytes(40 << 20));
  ASSERT_TRUE(source.resize(41 << 20) && attach(source));  // a hole at the end
  const std::string content = source.content();
  const test_file copy = open_file("copy", NEW_COPY);
  const test_file user = open_file("copy", O_RDWR);
  std::thread copier([&] { copy.dedup(source, SIS_DEDUP_COPY); });
  while (copy.status().st_size == 0) {}
  EXPECT_TRUE(content.starts_with(copy.content()));
  EXPECT_TRUE(user.write("kept", 41 << 20) && source.write("changed"));
  copier.join();
  EXPECT_TRUE(copy.content().ends_with("kept"));
}

TEST_P(ControlCodes, AnAttributeCountsUntilTheNextWriteAndForItsOwnFileOnly) {
  const test_file writer = make_file("file", "content");
  const test_file reader = open_file("file", O_RDONLY);
  for (int round = 0; round < 20; round++) {  // each set within the clock tick of the write before
    EXPECT_TRUE(reader.mark(SIS_COINCIDE_SET) == 0 && reader.is_marked());
    ASSERT_TRUE(writer.write("CONTENT") && !reader.is_marked());
  }
  ASSERT_TRUE(attach(writer) && reader.mark(SIS_COINCIDE_SET) == 0);
  ASSERT_TRUE(image_.run("cp -a file copy"));
  const test_file copy = open_file("copy", O_RDWR);
  ASSERT_TRUE(fgetxattr(copy.fd.get(), "user.velmarin.layer", nullptr, 0) > 0 &&
              fgetxattr(copy.fd.get(), "user.velmarin.coincide", nullptr, 0) > 0);
  EXPECT_TRUE(reader.is_marked() && !copy.is_marked());
  EXPECT_TRUE(copy.state() == "plain" && copy.revoke() == EINVAL);
  EXPECT_TRUE(reader.mark(SIS_COINCIDE_CLEAR) == 0 && !reader.is_marked());
  EXPECT_TRUE(reader.state().ends_with("layered"));
}

TEST(ControlCodesOn, TimesOfWholeSecondsTheFlagStillDropsWithAWrite) {
  const mounted_image coarse("ext4 -I 128");
  if (!coarse.is_mounted) {
    GTEST_SKIP() << "cannot be mounted here";
  }
  const test_file file = {unique_fd(open(coarse.path("f").c_str(), O_RDWR | O_CREAT, 0644))};
  EXPECT_TRUE(file.write("one") && file.mark(SIS_COINCIDE_SET) == 0 && file.is_marked());
  EXPECT_TRUE(file.write("two") && !file.is_marked());
}

TEST_P(ControlCodes, AWriteDuringARequestIsNeverLost) {
  const std::string content = random_bytes(200'000);
  const test_file source = make_file("source", content);
  const test_file target = make_file("target", content);
  const timespec long_ago[] = {{1, 0}, {1, 0}};
  ASSERT_TRUE(attach(source));
  for (unsigned round = 0; round < 200; round++) {  // the files are identical when a round begins
    EXPECT_EQ(futimens(target.fd.get(), long_ago), 0);
    const unsigned place = round * 4099 % 200'000;
    std::thread writer([&] {
      usleep(round % 20 * 20);
      EXPECT_TRUE(target.write("x", place));
    });
    round % 4 == 0 ? target.revoke() : target.dedup(source);
    writer.join();
    EXPECT_EQ(target.content()[place], 'x');
    EXPECT_TRUE(target.write(content));
  }
  EXPECT_TRUE(source.content() == content);
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
