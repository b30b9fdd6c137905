// Whole scans of real trees through the built library.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/scripted_fs.h"
#include "support/test_scan.h"
#include "velmarin/control_codes.h"

static std::function<void(int fd)> before_reading = [](int) {};
static std::string requested;  // what a scan request asks of the system

// The engine advises the kernel about the whole file before it reads it.
extern "C" int posix_fadvise(int fd, off_t offset, off_t length, int advice) noexcept {
  offset + length == 0 && advice == POSIX_FADV_SEQUENTIAL ? before_reading(fd) : void();
  return 0;
}

extern "C" int access(const char *path, int mode) noexcept {
  requested += std::string(mode == F_OK   ? "exists "
                           : mode == R_OK ? "is readable "
                                          : "?") +
               path + ", ";
  return faccessat(AT_FDCWD, path, mode, 0);
}

extern "C" int timer_create(clockid_t clock, sigevent *event, timer_t *timer) noexcept {
  static const auto next =
      reinterpret_cast<decltype(&timer_create)>(dlsym(RTLD_NEXT, "timer_create"));
  requested += clock == CLOCK_REALTIME ? "timer, " : "other timer, ";
  return next(clock, event, timer);
}

extern "C" int timer_settime(timer_t, int flags, const itimerspec *value, itimerspec *) noexcept {
  requested += "budget " + std::to_string(flags + value->it_value.tv_sec) + "." +
               std::to_string(value->it_value.tv_nsec + value->it_interval.tv_sec) + ", ";
  return 0;
}

namespace {

using namespace velmarin;
using namespace velmarin_test;
namespace fs = std::filesystem;

TEST(Scan, FindsIdenticalFilesAndReadsNoUnchangedFileAgain) {
  const working_tree tree(
      "t/one=abc t/d/two=abc t/d/e/three=abc t/other=abd t/p=pair u/q=pair t/unique=longer_text "
      "t/skipped=abc t/skip/x=abc t/small=ab t/small2=ab t/hard=hardly s/");
  fs::create_hard_link("t/hard", "t/link");
  fs::create_symlink("d", "t/symlink");
  ASSERT_EQ(mkfifo("t/fifo", 0600), 0);
  const auto expect_counters = [](const counts &expected) {
    scan s = {.roots = {"t", "u", "missing"},
              .skips = {"t/skipped", "t/skip", "t/skip", "t/symlink", "t/fifo", "gone"},
              .min_size = 3};
    EXPECT_EQ(s.run().found, (groups{{"t/d/e/three", "t/d/two", "t/one"}, {"t/p", "u/q"}}));
    EXPECT_EQ(s.counters, expected);
  };
  expect_counters({8, 4, 18, 9, 6, 0});
  expect_counters({8, 4, 12, 9, 0, 0});
  const fs::path digest_file =  // the name is the SHA-256 of "tumissing"
      "s/1db7a12f84b5c9d1f97932d83643b891ef39d4cfd7606883714d7a78ec032987.hsh";
  fs::resize_file(digest_file, fs::file_size(digest_file) - 1);  // then it is ignored
  expect_counters({8, 4, 18, 9, 6, 0});
  tree.set_mtime("t/one", tree.status("t/one").st_mtim.tv_sec, 1);
  tree.set_mtime("t/p", 1, tree.status("t/p").st_mtim.tv_nsec);
  expect_counters({8, 4, 14, 9, 2, 0});
}

TEST(Scan, ObeysItsLimitsAndCallbacks) {
  const working_tree tree("t/a=same t/b=same t/d/c=same t/d/e=more t/ab/x=1 s/ s1/");
  scan shallow = {.max_depth = 1};
  EXPECT_EQ(shallow.run().found, (groups{{"t/a", "t/b"}}));
  EXPECT_EQ(shallow.counters, (counts{1, 1, 4, 2, 2, 0}));

  scan filtered = {.roots = {"t", "t/d"}, .min_size = 5};
  filtered.ops.filter = [](int, const struct stat *status, const char *path) {
    const std::string_view name = path;
    return S_ISDIR(status->st_mode) ? (name.ends_with("/d") ? -1 : 1) : name.ends_with('b') ? 0 : 7;
  };
  EXPECT_EQ(filtered.run().found, groups{}) << "b is too small, a is alone, t/d is skipped";
  EXPECT_EQ(filtered.counters, (counts{4, 2, 3, 2, 0, 0}));

  scan judged = {.roots = {"t", "t/d"}};
  judged.ops.get_status = [](int, const struct stat *, const char *path) {
    return path[strlen(path) - 1] == 'b' ? 0 : SIS_STATUS_COMPRESSED;
  };
  EXPECT_EQ(judged.run().found, (groups{{"t/a", "t/b", "t/d/c"}}));
  EXPECT_EQ(judged.reported, (names{"t/a", "t/ab/x", "t/d/c", "t/d/e"}));

  scan frozen = {.save_dir = "s1"};
  frozen.ops.prep = [](int, const char *path) { return path[strlen(path) - 1] == 'e' ? EPERM : 0; };
  frozen.ops.verify = [](int, const char *path) { return path[strlen(path) - 1] == 'c' ? -1 : 0; };
  EXPECT_EQ(frozen.run().found, (groups{{"t/a", "t/b"}}));
  EXPECT_EQ(frozen.counters, (counts{3, 3, 9, 5, 3, 1}));
}

TEST(Scan, WithoutFreezingDiscardsTheDigestOfAFileWhoseTimeChangesMeanwhile) {
  const working_tree tree("t/a=abc t/b=abc t/c=abc t/d=abc s/");
  before_reading = [&tree](int fd) {
    for (const std::string name : {"t/a", "t/b"}) {
      if (fs::equivalent("/proc/self/fd/" + std::to_string(fd), name)) {
        const timespec time = tree.status(name).st_mtim;
        tree.set_mtime(name, time.tv_sec - (name == "t/a"), time.tv_nsec ^ (name == "t/b"));
      }
    }
  };
  scan s;
  s.ops.prep = [](int, const char *) { return EPERM; };  // never used alone
  EXPECT_EQ(s.run().found, (groups{{"t/c", "t/d"}}));
  EXPECT_EQ(s.counters, (counts{1, 1, 8, 4, 4, 0}));
  before_reading = [](int) {};
}

TEST(ScanRequest, ChoosesTheMinimumSizeProbesEachFileAndFreezesWhatItReads) {
  const working_tree tree("t/a=x*65536 t/b=x*65536 t/small1=x*65535 t/small2=x*65535 s/");
  scripted_fs file_system;
  file_system.answer_with(GETFLAGS, uint32_t{FS_COMPR_FL});
  file_system.answer_with(SIS_IOC_COINCIDE_FLAG, sis_coincide_arg{SIS_FLAG_COINCIDE, 0});
  requested.clear();
  EXPECT_EQ(scan{.save_dir = "no"}.request(), ENOENT);
  EXPECT_EQ(scan({.roots = {"t", "gone"}}).request(), ENOENT);
  EXPECT_EQ(requested, "exists no, exists s, is readable t, is readable gone, ");
  EXPECT_EQ(
      tree.log.messages(),
      (std::vector<std::string>{"SERVICE minimum is:65536\n", "SERVICE Cannot access no",
                                "SERVICE minimum is:65536\n", "SERVICE Cannot read from gone"}));
  for (const int64_t size_hint : {0x10000001, 0x10000000, 0}) {  // from 1 MiB on, from 64 KiB on
    scan s;
    requested.clear();
    EXPECT_EQ(s.request(size_hint), 0);
    EXPECT_EQ(requested, "exists s, is readable t, timer, budget 300.0, ");
    const names expected = size_hint > 0x10000000 ? names{} : names{"t/a", "t/b"};
    EXPECT_EQ(s.found, expected.empty() ? groups{} : groups{expected});
    EXPECT_EQ(s.reported, expected) << "both are compressed";
  }
  std::erase_if(file_system.texts, [](const auto &text) { return !text.starts_with("COIN"); });
  std::ranges::sort(file_system.texts);
  EXPECT_EQ(file_system.texts,
            (std::vector<std::string>{"COINCIDE_FLAG t/a ro 0 8", "COINCIDE_FLAG t/a ro 2 4",
                                      "COINCIDE_FLAG t/b ro 0 8", "COINCIDE_FLAG t/b ro 2 4"}))
      << "no unchanged file is read again";
  EXPECT_EQ(single_instance_storage(nullptr, 0, nullptr, 0, "s", 0, 0, 0, 9, nullptr, 0, nullptr),
            EINVAL);
}

}  // namespace
