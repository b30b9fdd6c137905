// The control codes as the platform layer emulates them on real file systems.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>

#include "../src/common/unique_fd.h"
#include "../src/reflink/control.h"
#include "support/kernel_call.h"
#include "support/mounted_image.h"
#include "support/temporary_tree.h"

namespace velmarin_test {
namespace {

using namespace velmarin;

constexpr int NEW_COPY = O_RDONLY | O_CREAT | O_EXCL;  // how reflink_copy opens its destination
constexpr int NAMELESS = O_TMPFILE | O_RDWR;

std::string random_bytes(size_t size) {  // never 0 nor 'x'
  std::mt19937 random(1);
  std::string content(size, '\0');
  std::ranges::generate(content, [&] { return static_cast<char>(random() % 100 + 1); });
  return content;
}

int error_of(int result) {
  return result == 0 ? 0 : errno;
}

// An open file, usable as its descriptor.
struct test_file : unique_fd {
  explicit test_file(int fd) : unique_fd(fd) {}
  operator int() const { return get(); }  // so that it can be passed to any call

  struct stat status() const {
    struct stat status = {};
    EXPECT_EQ(fstat(get(), &status), 0);
    return status;
  }
  std::string content() const {
    std::string content(static_cast<size_t>(status().st_size), '\0');
    EXPECT_EQ(pread(get(), content.data(), content.size(), 0), std::ssize(content));
    return content;
  }
  void set_time(time_t seconds) const {
    const timespec times[] = {{seconds, 5}, {seconds, 5}};
    EXPECT_EQ(futimens(get(), times), 0);
  }
  bool write(const std::string &content, off_t offset = 0) const {
    return pwrite(get(), content.data(), content.size(), offset) == std::ssize(content);
  }
  int dedup(int source) const { return error_of(share_data(get(), source, SIS_DEDUP_ATTACHED)); }
  int copy(int source) const { return error_of(share_data(get(), source, SIS_DEDUP_COPY)); }
  int clone(int source) const { return error_of(clone_into_temporary(get(), source)); }
  int connect(int layer) const { return error_of(connect_layer(get(), layer)); }
  int freeze() const { return error_of(set_coincide_flag(get())); }
  int clear() const { return error_of(clear_coincide_flag(get())); }
  int recover() const { return error_of(revoke(get())); }
  int read_flags(uint32_t flags = 0) const { return error_of(get_flag_word(get(), &flags)); }
  int query(sis_file_info info = {}) const { return error_of(query_file_info(get(), &info)); }
  bool is_frozen() const {
    uint32_t flags = 0;
    return get_flag_word(get(), &flags) == 0 && flags == SIS_FLAG_COINCIDE;
  }
  // "plain", or the number of the layered inode and whether the file is layered or deduped.
  std::string state() const {
    sis_file_info info;
    EXPECT_EQ(query_file_info(get(), &info), 0);
    const char *kind = info.deduped != 0 ? "deduped" : "layered";
    return info.layered == 0 ? "plain" : std::to_string(info.layer_ino) + kind;
  }
};

class ControlCodes : public testing::TestWithParam<const char *> {
 protected:
  void SetUp() override {
    if (!image_.is_mounted ||
        setxattr(image_.directory.c_str(), "user.velmarin.probe", "", 0, 0) != 0) {
      GTEST_SKIP() << "cannot be mounted here, or keeps no user attributes: tmpfs before Linux 6.6";
    }
  }
  test_file open_file(const std::string &name, int flags) {
    return test_file(open(image_.path(name).c_str(), flags | O_CLOEXEC, 0644));
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

INSTANTIATE_TEST_SUITE_P(, ControlCodes, testing::Values("btrfs", "xfs", "ext4"),
                         [](const auto &type) { return std::string(type.param); });

TEST_P(ControlCodes, FilesAreMergedAndSeparatedWithContentTimesAndHolesKept) {
  for (const unsigned size : {0u, 4095u, 4096u, 4097u, (33u << 20) + 5}) {
    const test_file a = make_file("a", random_bytes(size));
    ASSERT_TRUE(size != 4097 || (a.write("far", 8 << 20) && ftruncate(a, 9 << 20) == 0));
    const std::string content = a.content();
    const test_file b = make_file("b", content);
    const auto time = b.status().st_mtim.tv_nsec;
    EXPECT_EQ(b.dedup(a), EINVAL);  // a is plain
    ASSERT_TRUE(attach(a) && b.dedup(a) == 0);
    EXPECT_TRUE(a.state().ends_with("layered") && b.state().ends_with("deduped"));
    EXPECT_EQ(stoul(a.state()), stoul(b.state()));
    EXPECT_EQ(has_shared_extents("b"), shares_extents_ && size > 0);

    EXPECT_TRUE(a.recover() == 0 && open_file("b", O_RDONLY).recover() == 0 &&
                b.recover() == EINVAL);
    EXPECT_EQ(a.state() + b.state(), "plainplain");
    EXPECT_EQ(b.status().st_mtim.tv_nsec, time);
    EXPECT_FALSE(has_shared_extents("a") || has_shared_extents("b"));
    EXPECT_LE(a.status().st_blocks * 512, size + (4 << 20));

    ASSERT_TRUE(attach(a) && b.dedup(a) == 0 && b.write("new"));
    EXPECT_TRUE(b.state() == "plain" && b.recover() == 0);  // it may still share the rest
    EXPECT_FALSE(has_shared_extents("b"));
    EXPECT_TRUE(a.content() == content);
    EXPECT_TRUE(b.content() == "new" + content.substr(std::min(size, 3u)));
  }
}

TEST_P(ControlCodes, InvalidRequestsAreRefusedWithEveryByteKept) {
  const mounted_image bare("ramfs");
  const test_file stateless(creat(bare.path("f").c_str(), 0644));
  const std::string content = random_bytes((17 << 20) + 9);
  const test_file source = make_file("source", content);
  const test_file copy = open_file("copy", NEW_COPY);
  const test_file layer = open_file("", NAMELESS);
  const test_file directory = open_file("", O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(error_of(share_data(copy, source, 2)) == EINVAL && copy.dedup(source) == EBADF &&
              copy.copy(source) == 0);
  EXPECT_TRUE(copy.content() == content && copy.state() == "plain");
  EXPECT_EQ(source.connect(layer), EINVAL);  // not cloned

  ASSERT_TRUE(attach(source) && layer.clone(source) == 0);
  const std::string all_but_last = content.substr(0, content.size() - 1);
  for (const std::string &other : {all_but_last + "x", content + "x", all_but_last, {}}) {
    const test_file target = make_file("target", other);
    EXPECT_EQ(target.copy(source), EBADE);
    EXPECT_TRUE(target.content() == other && target.state() == "plain");
  }
  EXPECT_EQ(copy.clone(source), EINVAL);  // has a name
  EXPECT_EQ(open_file("", NAMELESS | O_APPEND).clone(source), EBADF);
  EXPECT_EQ(copy.connect(layer), EINVAL);  // cloned from another file
  EXPECT_EQ(source.dedup(source), EINVAL);
  EXPECT_EQ(source.dedup(AT_FDCWD), EBADF);
  EXPECT_EQ(source.dedup(directory), EISDIR);
  EXPECT_EQ(open_file("target", O_WRONLY).dedup(source), EBADF);
  EXPECT_EQ(stateless.dedup(source), EXDEV);
  EXPECT_EQ(stateless.freeze(), EOPNOTSUPP);
  EXPECT_EQ(error_of(ioctl(source, 0x4004f536, nullptr)), ENOTTY);
  for (const unsigned code : {SIS_IOC_GET_FILE_INFO, SIS_IOC_COINCIDE_FLAG, SIS_IOC_CONNECT}) {
    EXPECT_EQ(error_of(ioctl(source, code, nullptr)), EFAULT);
    EXPECT_EQ(error_of(ioctl(-1, code, nullptr)), EBADF);
  }
  sis_coincide_arg no_flag = {0, SIS_COINCIDE_SET};
  EXPECT_EQ(error_of(ioctl(source, SIS_IOC_COINCIDE_FLAG, &no_flag)), EINVAL);
  ASSERT_TRUE(source.write("changed"));
  EXPECT_EQ(source.connect(layer), EAGAIN);
  EXPECT_EQ(make_file("target", content).dedup(source), EINVAL);  // no longer attached

  if (image_.run("mkdir in_place && chattr +C in_place")) {  // no copy on write there
    const test_file own = make_file("in_place/own", content);
    const test_file other = open_file("other", NEW_COPY);
    EXPECT_EQ(open_file("", NAMELESS).clone(own), 0) << "as a copy";
    EXPECT_TRUE(attach(own) && other.copy(own) == 0 && other.content() == content &&
                other.state() == "plain");
    EXPECT_TRUE(image_.run("mv in_place/own own") && own.recover() == 0);  // beside files with it
  }
}

TEST_P(ControlCodes, AnAttributeIsValidOnlyForItsOwnFileAndUntilTheNextWrite) {
  const mounted_image coarse("ext4 -I 128");  // keeps times in whole seconds
  image_.run("btrfs subvolume create one; btrfs subvolume create two; mkdir -p one two");
  const test_file writer = make_file("one/file", "content");  // has the same number as two/file
  const test_file reader = open_file("one/file", O_RDONLY);
  for (int round = 0; round < 20; round++) {  // each set within the clock tick of the write before
    EXPECT_TRUE(reader.freeze() == 0 && reader.is_frozen());
    ASSERT_TRUE(writer.write("CONTENT") && !reader.is_frozen());
  }
  ASSERT_TRUE(attach(writer) && reader.freeze() == 0);
  EXPECT_EQ((kernel_call("fsetxattr", 1), reader.freeze()), 0) << "without another write";
  ASSERT_TRUE(image_.run("cp -a one/file two/file"));
  const test_file copy = open_file("two/file", O_RDWR);
  for (const char *name : {"user.velmarin.layer", "user.velmarin.coincide"}) {
    char record[64];
    EXPECT_TRUE(fgetxattr(copy, name, record, sizeof(record)) > 0 && record[0] == 1)
        << "the version, also of records on disk";
  }
  EXPECT_TRUE(reader.is_frozen() && !copy.is_frozen());
  EXPECT_TRUE(copy.state() == "plain" && copy.recover() == EINVAL);
  EXPECT_TRUE(reader.clear() == 0 && !reader.is_frozen());
  EXPECT_TRUE(reader.state().ends_with("layered"));
  if (coarse.is_mounted) {
    const test_file late(creat(coarse.path("late").c_str(), 0644));
    EXPECT_TRUE(late.write("one") && late.freeze() == 0 && late.is_frozen());
    EXPECT_TRUE(late.write("two") && !late.is_frozen());
  }
}

TEST_P(ControlCodes, AFileWhoseRecordCannotChangeIsRefusedBeforeItsDataDoes) {
  const std::string content = random_bytes(100'000);
  ASSERT_TRUE(image_.run("mkdir lower upper work overlay"));
  const test_file a = make_file("lower/a", content);
  const test_file b = make_file("lower/b", content);
  ASSERT_TRUE(attach(a) && b.dedup(a) == 0);
  if (image_.run("chattr +a lower/b")) {
    EXPECT_EQ(b.recover(), EPERM);
    EXPECT_TRUE(b.state().ends_with("deduped"));
    EXPECT_EQ(has_shared_extents("lower/b"), shares_extents_);
    EXPECT_TRUE(image_.run("chattr -a lower/b"));
  }
  if (image_.run("mount -t overlay -o lowerdir=lower,upperdir=upper,workdir=work none overlay")) {
    const test_file over_a = open_file("overlay/a", O_RDONLY);
    const test_file over_b = open_file("overlay/b", O_RDONLY);
    const test_file layer = open_file("overlay", NAMELESS);
    for (const int error :
         {over_b.freeze(), over_b.clear(), over_b.recover(), over_b.dedup(over_a)}) {
      EXPECT_EQ(error, EOPNOTSUPP);
    }
    if (layer.is_open()) {  // Linux 6.1 makes no nameless file there
      EXPECT_TRUE(layer.clone(over_b) == EOPNOTSUPP && over_b.connect(layer) == EOPNOTSUPP);
    }
    EXPECT_TRUE(!over_b.is_frozen() && over_b.content() == content);
    EXPECT_TRUE(image_.run("umount overlay; rmdir upper"));  // it is empty
  }
}

// The files of a request: `a` is attached to a layered inode, `b` has the same content and is
// attached to it if the request is to detach it.
struct request_files {
  test_file a, b;
  test_file layer;   // a clone of `a` if the request is to connect it
  test_file copy;    // new and empty
  test_file writer;  // of the copy
};

struct request {
  const char *name;
  std::function<int(const request_files &)> make;
  // Calls whose failure need not fail the request: they only decide how it is done.
  std::string optional_calls;
  bool can_be_repeated = true;
};

const request REQUESTS[] = {
    {"clone", [](const auto &f) { return f.layer.clone(f.a); }, "fstatfs", false},
    {"connect", [](const auto &f) { return f.a.connect(f.layer); }, "fstatfs"},
    {"dedup", [](const auto &f) { return futimens(f.b, nullptr), f.b.dedup(f.a); }, "fstatfs"},
    {"copy", [](const auto &f) { return f.copy.copy(f.a); }, "fstatfs statx"},
    {"recover", [](const auto &f) { return f.b.recover(); }, "fstatfs GETFLAGS SETFLAGS"},
    {"freeze", [](const auto &f) { return f.a.freeze(); }, "fstatfs fgetxattr"},
    {"clear", [](const auto &f) { return f.a.clear(); }, "fstatfs"},
    {"get flags", [](const auto &f) { return f.a.read_flags(); }, ""},
    {"query", [](const auto &f) { return f.a.query(); }, ""}};

class Requests : public ControlCodes {
 protected:
  request_files prepare(const std::string &name) {
    image_.run("rm -f a b copy");
    request_files f = {make_file("a", content_), make_file("b", content_), open_file("", NAMELESS),
                       open_file("copy", NEW_COPY), open_file("copy", O_WRONLY)};
    EXPECT_EQ(ftruncate(f.a, HOLE_END) | ftruncate(f.b, HOLE_END), 0);
    f.a.set_time(1);  // an old time, so that only dedup waits for the clock to tick
    f.b.set_time(1);
    EXPECT_TRUE(attach(f.a) && (name != "connect" || f.layer.clone(f.a) == 0));
    EXPECT_TRUE(name != "recover" || f.b.dedup(f.a) == 0);
    EXPECT_TRUE((name != "clear" && name != "get flags") || f.a.freeze() == 0);
    return f;
  }
  // Its state and, if it is not empty, the changed bytes at its beginning.
  std::string outcome_of(const test_file &file) const {
    const std::string content = file.content(), original = whole();
    const auto same = std::mismatch(content.rbegin(), content.rend(), original.rbegin());
    const std::string state = file.state(), changed(content.begin(), same.first.base());
    return content.empty() ? "new"
                           : state.substr(state.find_first_not_of("0123456789")) +
                                 (changed.empty() ? "" : " " + changed);
  }
  std::string whole() const { return content_ + std::string(HOLE_END - content_.size(), '\0'); }

  static constexpr size_t HOLE_END = 400'000;
  const std::string content_ = random_bytes(200'000);
};

INSTANTIATE_TEST_SUITE_P(, Requests, testing::Values("btrfs", "ext4"),
                         [](const auto &type) { return std::string(type.param); });

TEST_P(Requests, FailWhenACallFailsAndChangeNoContent) {
  for (const request &tried : REQUESTS) {
    for (const std::string call : KERNEL_CALLS) {
      for (unsigned nth = 1;; nth++) {
        SCOPED_TRACE(std::string(tried.name) + ", " + call + " " + std::to_string(nth));
        const request_files f = prepare(tried.name);
        const std::ptrdiff_t descriptors = count_in("/proc/self/fd");
        int result = 0;
        bool was_called = false;
        {
          const kernel_call failing(call, nth);
          result = tried.make(f);
          was_called = failing.has_come();
        }
        const bool may_go_on = !was_called || tried.optional_calls.find(call) != std::string::npos;
        EXPECT_TRUE(result == EIO ? was_called : result == 0 && may_go_on) << result;
        EXPECT_EQ(count_in("/proc/self/fd"), descriptors);
        EXPECT_TRUE(f.a.content() == whole() && f.b.content() == whole());
        const bool is_copy = tried.name == std::string("copy");
        if (is_copy && call == "statx" && result != 0) {
          continue;  // a filled copy that cannot be examined is left as it is
        }
        EXPECT_EQ(outcome_of(f.copy), is_copy && result == 0 ? "deduped" : "new");
        EXPECT_TRUE(result == 0 || !tried.can_be_repeated || tried.make(f) == 0);
        if (!was_called || HasFailure()) {
          break;
        }
      }
    }
  }
}

TEST_P(Requests, NoticeConcurrentChangesToTheirFiles) {
  const std::string share = shares_extents_ ? "FIDEDUPERANGE" : "pread";
  const std::string clone = shares_extents_ ? "FICLONE" : "pread";
  const int unless_shared = shares_extents_ ? 0 : EAGAIN;
  // Until it shows in the file's time: before Linux 6.13, that is in the next tick of the clock.
  const auto write = [](const test_file &file) {
    const auto before = file.status().st_mtim.tv_nsec;
    do {
      EXPECT_TRUE(file.write("mine"));
    } while (file.status().st_mtim.tv_nsec == before);
  };
  off_t attempts = 0;
  // A request, what happens before the n-th call that it makes, its result, and the outcome for
  // `a`, `b` and the new file.
  const std::tuple<std::string, std::string, unsigned, std::function<void(const request_files &)>,
                   int, std::string>
      rows[] = {
          {"dedup", share, 1, [](auto &f) { f.b.set_time(2); }, EAGAIN, "layered, plain, new"},
          {"dedup", share, 1, [](auto &f) { f.a.set_time(2); }, EAGAIN, "plain, plain, new"},
          {"dedup", share, 1, [&](auto &f) { write(f.b); }, EBADE, "layered, plain mine, new"},
          {"copy", clone, 1, [](auto &f) { f.a.set_time(2); }, unless_shared,
           shares_extents_ ? "plain, plain, plain" : "plain, plain, new"},
          {"copy", "fgetxattr", 1, [&](auto &f) { write(f.writer); }, EAGAIN,
           "layered, plain, plain mine"},
          {"copy", "open", 1, [&](auto &f) { write(f.writer); }, EINVAL,
           "layered, plain, plain mine"},
          {"copy", "statx", shares_extents_ ? 6U : 8U, [](auto &f) { f.a.set_time(2); }, EAGAIN,
           "plain, plain, new"},
          {"clone", clone, 1, [](auto &f) { f.a.set_time(2); }, unless_shared, "plain, plain, new"},
          {"connect", "fstatfs", 1, [](auto &f) { f.a.set_time(2); }, EAGAIN, "plain, plain, new"},
          {"connect", "fstatfs", 1, [&](auto &f) { write(f.layer); }, EAGAIN,
           "layered, plain, new"},
          {"connect", "fstatfs", 1, [](auto &f) { EXPECT_EQ(ftruncate(f.layer, 1), 0); }, EINVAL,
           "layered, plain, new"},
          {"recover", "fgetxattr", 2, [&](auto &f) { EXPECT_TRUE(attach(f.b)); }, 0,
           "layered, layered, new"},  // another request's record stays
          {"recover", share, 0, [&](auto &f) { f.b.write("x", attempts++); }, EBUSY,
           "layered, plain xxxxx, new"},
          {"recover", share, 1, [](auto &f) { f.b.write("n"), f.b.set_time(1); }, 0,
           "layered, plain n, new"}};
  for (const auto &[name, call, nth, happens, result, outcome] : rows) {
    if (!shares_extents_ && name == "recover" && call == share) {
      continue;
    }
    SCOPED_TRACE(outcome);
    const request_files f = prepare(name);
    const auto tried = std::ranges::find(REQUESTS, name, &request::name);
    const kernel_call watched(call, nth, [&, &change = happens] { change(f); });
    EXPECT_EQ(tried->make(f), result);
    EXPECT_TRUE(watched.has_come()) << call;
    EXPECT_EQ(outcome_of(f.a) + ", " + outcome_of(f.b) + ", " + outcome_of(f.copy), outcome);
    EXPECT_FALSE(name == "recover" && result == 0 && has_shared_extents("b"));
    EXPECT_TRUE(name != "clone" || f.a.connect(f.layer) == (result == 0 ? EAGAIN : EINVAL));
  }
}

}  // namespace
}  // namespace velmarin_test
