// Every call of the library that can fail is made to fail in turn: for each kind of call the first,
// the second and so on, until no call of the operation fails. After each failure the operation must
// have the stated result, and files, process and log must be as expected.
//
// VELMARIN_FAILURE_STRIDE=n fails, after the first eight calls of a kind, only every n-th one; slow
// builds set it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/xattr.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <map>

#include "support/alarm_owner.h"
#include "support/captured_log.h"
#include "support/failure_injector.h"
#include "support/temporary_tree.h"
#include "support/test_scan.h"
#include "velmarin/files.h"

namespace {

using namespace velmarin;
using namespace velmarin_test;
using lines = std::vector<std::string>;
using enum library_call;
namespace fs = std::filesystem;

constexpr bool SILENT = true;

// The results of an operation when the first, the second ... call of a kind fails; the last result
// also holds for all later calls.
struct answer {
  std::set<library_call> calls;
  std::vector<int> results;
  bool may_be_silent = false;  // otherwise a log line says what failed
};

// An operation that can be run again and again. A failing kind of call that is not among its
// answers does not change its result.
struct operation {
  std::string name;
  std::function<void()> prepare;
  std::function<int()> run;
  int result;  // without a failure
  std::vector<answer> answers;

  bool may_go_on = false;  // a failure after the first may also have no effect on the result
  bool every_later_too = false;
  std::set<std::pair<library_call, uint64_t>> left_out = {};
  std::function<void()> afterwards = [] {};
};

// The lines without their numbers.
lines lines_without_numbers(const captured_log &log) {
  lines messages = log.messages();
  for (std::string &message : messages) {
    std::erase_if(message, [](char c) { return c == '-' || (c >= '0' && c <= '9'); });
  }
  return messages;
}

lines unusual_lines(const captured_log &log, const lines &usual) {
  lines unusual = lines_without_numbers(log);
  std::erase_if(unusual, [&](const auto &line) { return std::ranges::count(usual, line) > 0; });
  return unusual;
}

bool has_part(const lines &messages, const std::string &part) {
  return std::ranges::any_of(
      messages, [&](const std::string &message) { return message.find(part) != message.npos; });
}

// The size, modification time and, for the files that operations work on, content of each file. The
// scans compare the content of the larger ones.
std::map<std::string, std::string> files_of(const temporary_tree &tree) {
  std::map<std::string, std::string> files;
  for (const auto &entry : fs::recursive_directory_iterator("t")) {
    const std::string name = entry.path();
    const uintmax_t size = entry.is_regular_file() ? entry.file_size() : 0;
    const auto time = entry.last_write_time().time_since_epoch().count();
    files[name] = std::to_string(size) + " " + std::to_string(time) + " " +
                  (size == 5000 ? tree.read(name) : "");
  }
  return files;
}

void close_digest_files() {
  for (int fd = 3; fd < 256; fd++) {
    std::error_code not_open;
    const fs::path file = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), not_open);
    if (file.extension() == ".hsh") {
      ::close(fd);
    }
  }
}

// What an operation must leave unchanged.
struct state {
  std::map<std::string, std::string> files;
  std::ptrdiff_t descriptors = count_in("/proc/self/fd");
  std::ptrdiff_t threads = count_in("/proc/self/task");
};

// After these failures the loaded digest file stays open and locked, and the save of the same run
// would wait for it forever.
const std::set<std::pair<library_call, uint64_t>> LEFT_OUT = {{strcpy_s, 4}, {flock, 2}};

// The formats of all lines that the operations on files log while one of their calls fails.
const char FILE_OPERATION_FORMATS[] =
    "1st lstat Error %s; 2nd lstat Error %s; Create tmp_file Failed, malloc fail; Create "
    "tmp_file Failed, memcpy_s fail; Failed to realpath %s returned %d; created layered "
    "inode[ino:%lu,size:%lu] for %s[ino:%lu,size:%lu]; creating temporary file for %s; "
    "creating temporary file under %s; done deduplication for %s[ino:%lu,size:%lu]; fail to "
    "allocate a group of %d files returned %s; fail to clone to temperory file returned %s; "
    "fail to create layered inode returned %s; fail to deduplicate %s returned %s; fail to do "
    "rapid copy from %s to %s return %s; fail to get real path of %s returned %s; fail to open "
    "%s return %s; fail to open %s returned %s; fail to open temporary file returned %s; fail "
    "to query %s return %s; fail to revoke %s return %s; fail to stat %s return %s; fail to "
    "stat %s returned %s; fail to stat temporary file returned %s; ioctl clone file failed! "
    "ret = %d, errno = %d; ioctl connect failed! ret = %d, errno = %d; ioctl dedup file "
    "failed! ret = %d, errno = %d; ioctl get %s coincide flag failed! ret = %d, errno = %d; "
    "ioctl get %s(%lu) file info failed! ret = %d, errno = %d; ioctl get file info failed! ret "
    "= %d, errno = %d; ioctl set %s(%lu) coincide flag failed! ret = %d, errno = %d; open "
    "file1:%s failed !; open file2:%s failed !; open file:%s failed !; open tmp_fd failed! ret "
    "= %d, errno = %d, tmp_file %s; recover file %s, open FAIL; reflink %s[ino:%lu,size:%lu] "
    "to %s[ino:%lu,size:%lu]; revoke %s[ino:%lu,size:%lu] from its %s inode[ino:%d]; ";

class Failure : public testing::Test {
 protected:
  Failure() {
    fs::current_path(tree.root());
    fs::resize_file("t/sparse", 70000);
    std::thread([] {}).join();  // the first thread may make a sanitizer start its own
  }

  void expect(const char *name, const std::function<void()> &prepare, int result,
              const std::vector<answer> &answers, const std::function<int()> &run) const {
    fail_every_call({name, prepare, run, result, answers});
  }

  // Prints how many.
  void fail_every_call(const operation &tried) const {
    tried.prepare();
    const lines usual = [&] {
      const captured_log log;
      EXPECT_EQ(tried.run(), tried.result);
      note_formats(log);
      return lines_without_numbers(log);
    }();
    const char *text = getenv("VELMARIN_FAILURE_STRIDE");
    const uint64_t stride = text != nullptr ? std::stoul(text) : 1;
    uint64_t count = 0;
    for (unsigned i = 0; i < static_cast<unsigned>(library_call::end); i++) {
      const library_call call{i};
      for (uint64_t nth = 1; !HasFailure(); nth += nth < 8 ? 1 : stride) {
        const bool is_left_out = tried.left_out.contains({call, nth});
        if (!is_left_out && !fail(tried, call, nth, usual)) {
          break;
        }
        count += is_left_out ? 0 : 1;
      }
    }
    printf("%s: %lu points failed\n", tried.name.c_str(), count);
  }

  // Returns whether there was such a call.
  bool fail(const operation &tried, library_call call, uint64_t nth, const lines &usual) const {
    const std::string point = tried.name + ", " + LIBRARY_CALL_NAMES[static_cast<unsigned>(call)] +
                              " " + std::to_string(nth);
    SCOPED_TRACE(point);
    tried.prepare();
    const state before = {files_of(tree)};
    const alarm_owner owner;
    const captured_log log;
    bool is_blocked = false;
    uint64_t calls = 0;
    auto running = std::async(std::launch::async, [&] {
      const failure_injector injector(call, nth, tried.every_later_too);
      const int result = tried.run();
      calls = injector.calls();
      is_blocked = alarm_owner::mask_alarm(SIG_UNBLOCK);
      return result;
    });
    if (running.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      fprintf(stderr, "hangs: %s\n", point.c_str());
      abort();
    }
    note_formats(log);
    const lines unusual = unusual_lines(log, usual);
    SCOPED_TRACE(unusual.empty() ? "no line" : unusual.back());
    const uint64_t failed = calls < nth ? 0 : tried.every_later_too ? calls - nth + 1 : 1;
    // A worker that cannot be started is logged twice.
    EXPECT_LE(unusual.size(), failed * (call == library_call::pthread_create ? 2 : 1));
    EXPECT_FALSE(has_part(unusual, "MALFORMED"));
    expect_answer(tried, call, failed > 0 ? nth : 0, running.get(), unusual.empty());
    // The signal stays blocked if arming fails after blocking it, or if the release can block but
    // not unblock it. A failing sigaction cannot restore the previous action.
    EXPECT_EQ(is_blocked,
              has_part(unusual, "timer") || has_part(unusual, "unblock") ||
                  (call == library_call::sigprocmask && nth == 4 && tried.every_later_too));
    EXPECT_TRUE(owner.has_its_action() || (call == library_call::sigaction && nth > 1));
    expect_unchanged(before, unusual);
    tried.afterwards();
    return failed > 0;
  }

  void note_formats(const captured_log &log) const {
    const lines formats = log.formats();
    formats_seen_.insert(formats.begin(), formats.end());
  }

  static void expect_answer(const operation &tried, library_call call, uint64_t nth, int result,
                            bool is_silent) {
    const auto stated = std::ranges::find_if(
        tried.answers, [&](const answer &candidate) { return candidate.calls.contains(call); });
    if (nth == 0 || stated == tried.answers.end() ||
        (tried.may_go_on && nth > 1 && result == tried.result)) {
      EXPECT_EQ(result, tried.result);
      return;
    }
    EXPECT_EQ(result, stated->results[std::min<size_t>(nth, stated->results.size()) - 1]);
    EXPECT_TRUE(!is_silent || stated->may_be_silent || result == tried.result);
  }

  // A digest file that cannot be unlocked, or whose path cannot be formed for closing, stays open.
  void expect_unchanged(const state &before, const lines &unusual) const {
    EXPECT_TRUE(files_of(tree) == before.files);
    EXPECT_EQ(library_blocks, 0);
    if (has_part(unusual, "Cannot unlock") || has_part(unusual, "fail to copy string")) {
      close_digest_files();
    }
    EXPECT_EQ(count_in("/proc/self/fd"), before.descriptors);
    for (const auto &entry : fs::directory_iterator("s")) {
      const int fd = ::open(entry.path().c_str(), O_RDONLY);
      EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0) << "left locked";
      ::close(fd);
    }
    while (count_in("/proc/self/task") > before.threads) {  // a joined thread may linger
      std::this_thread::yield();
    }
  }

  static int scan_tree() {
    scan s = {.skips = {"t/skip", "t/a3", "t/skip"}, .counters = {UINT64_MAX}};
    const int result = s.request();
    EXPECT_EQ(result == 0, s.counters[0] != UINT64_MAX) << "only then is the report complete";
    EXPECT_TRUE(s.found_parts_of({{"t/a1", "t/a3", "t/d/a2", "t/skip/a4"}, {"t/b1", "t/d/b2"}}));
    return result;
  }

  static void expect_good_scan() {
    workers_allowed = 3;
    const captured_log log;
    const failure_injector counter(library_call::sigaction, UINT64_MAX);
    scan s = {.skips = {"t/skip", "t/a3"}};
    EXPECT_EQ(s.request(), 0);
    EXPECT_EQ(s.found, (groups{{"t/a1", "t/d/a2"}, {"t/b1", "t/d/b2"}}));
    // A process started by another thread inherits the action in force at that moment.
    EXPECT_EQ(counter.calls(), 2U) << "it is set once and restored once";
    for (const char *time : {"full scan process:3.000000000s", "scan_directory:0.600000000s"}) {
      EXPECT_TRUE(has_part(log.messages(), time)) << time;
    }
  }

  // Every scan finds the digest file of an earlier scan, after which two files changed their time.
  void keep_stale_digests() {
    expect_good_scan();
    fs::copy("s", "kept");
    for (const char *changed : {"t/a1", "t/d/b2"}) {
      const struct timespec mtime = tree.status(changed).st_mtim;
      tree.set_mtime(changed, mtime.tv_sec, mtime.tv_nsec ^ 1);
    }
  }

  static operation scan_operation(const char *name, int workers) {
    const auto prepare = [workers] {
      fs::remove_all("s");
      fs::copy("kept", "s");
      workers_allowed = workers;
    };
    const std::vector<answer> answers = {
        {{malloc, calloc, memcpy_s, snprintf_s}, {1}},
        {{memset_s, pthread_mutex_init, pthread_cond_init, pthread_spin_init}, {1}, SILENT},
        {{library_call::access}, {EIO}}};
    operation tried = {name, prepare, scan_tree, 0, answers};
    tried.may_go_on = true;
    tried.afterwards = expect_good_scan;
    return tried;
  }

  mutable std::set<std::string> formats_seen_;
  // Files whose names begin with the same letter have the same content.
  const temporary_tree tree{
      "t/a1=a*65536 t/d/a2=a*65536 t/a3=a*65536 t/skip/a4=a*65536 t/e1=e*65536 t/sparse= "
      "t/b1=b*1048576 t/d/b2=b*1048576 t/c1=c*1048576 t/x1=x*5000 t/x2=x*5000 t/x3=x*5000 "
      "u/1=same u/2=same s/ kept/"};
};

TEST_F(Failure, OfACallInAFileOperationHasTheStatedResult) {
  static char a[] = "t/x1", b[] = "t/x2", c[] = "t/x3";
  static char *group[] = {a, b, c};
  if (setxattr(a, "user.velmarin.probe", "1", 1, 0) != 0) {
    GTEST_SKIP() << "no user attributes in the temporary directory";  // where state is kept
  }
  const int fd = ::open(a, O_RDWR);
  const struct timespec mtime = tree.status(a).st_mtim;
  const auto separate = [] {
    for (const char *path : group) {
      EXPECT_LE(revoke_file(path), 1);
    }
    fs::remove("copy");
  };
  const auto attach = [&] {  // `a` and `b` to one layered inode
    separate();
    EXPECT_EQ(sisFileTaskImpl(a, b), 0);
  };
  const auto share = [] { return sisFileTaskImpl(a, c); };
  const std::vector<answer> share_answers = {
      {{malloc, memcpy_s}, {-1}}, {{open}, {-1, -1, EIO}}, {{ioctl}, {EIO}}};
  const std::vector<answer> errnos = {{{open, fstat, realpath, ioctl}, {EIO}},
                                      {{calloc}, {ENOMEM}}};

  expect("sisFileTaskImpl on a plain file", separate, 0, share_answers, share);
  expect("sisFileTaskImpl on an attached file", attach, 0, share_answers, share);
  expect("getSISFileInfoImpl", attach, 1, {{{realpath, open, ioctl}, {-1}}},
         [] { return getSISFileInfoImpl(b); });
  expect("recoverFileImpl", attach, 0,
         {{{realpath}, {-EIO, -1}}, {{open}, {-1}}, {{ioctl}, {-EIO, -1}, SILENT}},
         [] { return recoverFileImpl(b); });
  expect("setCheckFlagImpl", separate, 0, {{{realpath, open, lstat}, {-1}}, {{ioctl}, {-1, -EIO}}},
         [&] { return setCheckFlagImpl(a, mtime.tv_sec, mtime.tv_nsec); });
  expect("getCoincideFlagImpl", separate, 2, {{{realpath, ioctl}, {-EIO}}, {{open}, {-1}}},
         [] { return getCoincideFlagImpl(a); });
  expect("sis_them_all", separate, 0, errnos, [] { return sis_them_all(group, 3); });
  expect("dedup_file", attach, 0, errnos, [fd] { return dedup_file(c, fd); });
  expect("reflink_copy", attach, 0, errnos, [] { return reflink_copy(a, "copy"); });
  expect("revoke_file", attach, 0, errnos, [] { return revoke_file(b); });
  expect("create_layer", separate, 0, {{{open, fstat, realpath, ioctl}, {-1}}}, [] {
    const int layer_fd = create_layer(a);
    return layer_fd < 0 ? layer_fd : ::close(layer_fd);
  });
  ::close(fd);
  std::string formats;
  for (const std::string &format : formats_seen_) {
    formats += format.substr(0, format.find_last_not_of(" \n") + 1) + "; ";
  }
  EXPECT_EQ(formats, FILE_OPERATION_FORMATS);
}

// A scan of two files by one worker, in which one call fails.
TEST_F(Failure, OfACallIsCountedAndLoggedAsStatedAndLosesAtMostTheDigestsInHand) {
  lines usual;
  uint64_t calls = 0;
  std::string digests;  // how many are loaded and saved, and how many digest files there are then
  // The counters, whether the files were found, and the lines that a scan without failures lacks.
  const auto outcome_of = [&](library_call call, uint64_t nth, int error = EIO) {
    fs::remove_all("s");
    fs::copy("kept", "s");
    workers_allowed = 1;
    failing_errno = error;
    const captured_log log;
    scan s = {.roots = {"u"}};
    {
      const failure_injector injector(call, nth);
      s.run();
      calls = injector.calls();
    }
    failing_errno = EIO;
    digests.clear();
    for (const std::string &line : log.messages()) {
      const size_t count = line.find("usable_hash(") + 12;
      digests += count < 12 ? "" : line.substr(count, line.find(' ', count) - count) + ",";
    }
    digests += std::to_string(count_in("s"));
    close_digest_files();
    std::string outcome;
    for (const uint64_t counter : s.counters) {
      outcome += std::to_string(counter) + " ";
    }
    outcome += s.found == groups{{"u/1", "u/2"}} ? "found" : "";
    usual = usual.empty() ? lines_without_numbers(log) : usual;
    for (const std::string &line : unusual_lines(log, usual)) {
      outcome += line;
    }
    return outcome;
  };
  const std::string failed = " returned Input/output error";
  EXPECT_EQ(outcome_of(readdir, 100), "1 1 4 2 2 0 found") << "there is no such call";
  EXPECT_EQ(outcome_of(open, 2), "1 0 0 0 0 0 ");
  EXPECT_EQ(outcome_of(fdopendir, 1), "1 1 0 0 0 1 ERRO failed to open u as directory" + failed);
  EXPECT_EQ(outcome_of(readdir, 1), "1 1 0 0 0 1 ");
  EXPECT_EQ(outcome_of(readdir, 5), "1 1 4 2 2 1 found");
  EXPECT_EQ(outcome_of(malloc, 9),
            "1 1 1 1 0 1 ERRO failed to allocate dentry for  returned Cannot allocate memory");
  EXPECT_EQ(outcome_of(closedir, 1), "1 1 4 2 2 0 foundERRO closedir u" + failed);
  EXPECT_EQ(outcome_of(fstat, 2), "1 1 2 1 0 0 ");
  EXPECT_EQ(outcome_of(open, 6), "1 1 4 2 1 1 ERRO cannot open u/" + failed);
  EXPECT_EQ(outcome_of(open, 6, EINTR), "1 1 5 2 2 0 found");
  EXPECT_EQ(outcome_of(fstat, 4), "1 1 4 2 1 1 ERRO failed to get stat of []u/" + failed);
  EXPECT_EQ(outcome_of(fstat, 5), "1 1 4 2 2 0 ERRO failed to get stat of u/" + failed);
  EXPECT_EQ(outcome_of(read, 1), "1 1 4 2 2 1 ERRO failed to read []u/" + failed);
  EXPECT_EQ(outcome_of(calloc, 6), "1 1 4 2 2 0 found") << "without an index of digests";
  EXPECT_EQ(outcome_of(library_call::sigaction, 1), "1 1 4 2 2 0 found") << "without a budget";

  fs::remove("kept");
  fs::copy("s", "kept");
  usual.clear();
  outcome_of(readdir, 100);
  // For each call that fails, from the first one during the run on; '!' where a line tells it.
  const std::tuple<library_call, uint64_t, const char *> rows[] = {
      {open, 1, "-1,2,1! 2,0,1 2,0,1 2,0,1 2,0,0! "},
      {flock, 1, "-1,2,1! 2,0,0! 2,2,1! "},
      {read, 1, "-1,2,1! -1,2,1! -1,2,1! -1,2,1! -1,2,1! "},
      {write, 1, "2,0,0! 2,0,0! 2,1,0! 2,1,0! "},
      {fsync, 1, "2,2,1 "},
      {strcpy_s, 1, "-1,2,1! -1,2,1! -1,2,1! 2,2,1! 2,2,1! 2,0,0! 2,0,0! 2,0,0! 2,2,1! "},
      {memset_s, 2,
       "-1,2,1 -1,2,1 -1,2,1 2,2,1! 2,2,1! 2,0,1 2,0,1 2,0,1 2,0,1 2,0,1 2,0,1 2,0,0 2,0,0 2,2,1! "
       "2,2,1 2,2,1 "},
      {memcpy_s, 2,
       "-1,2,1 -1,2,1 2,0,1 2,0,1 2,0,1 2,0,1 2,0,1 2,0,1 2,0,1 2,0,1 2,0,0 2,1,0 2,2,1 2,2,1 "
       "2,2,1 2,2,1 "}};
  for (const auto &[call, first, expected] : rows) {
    std::string outcomes;
    for (uint64_t nth = first; nth == first || calls >= nth - 1; nth++) {
      if (!LEFT_OUT.contains({call, nth})) {
        const bool is_told = outcome_of(call, nth).find("O ") != std::string::npos;
        outcomes += calls < nth ? "" : digests + (is_told ? "! " : " ");
      }
    }
    EXPECT_EQ(outcomes, expected);
  }
}

TEST_F(Failure, OfACallCostsAScanWithADigestFileOnlyWhatItTouched) {
  keep_stale_digests();
  operation second = scan_operation("second scan", 1);
  second.left_out = LEFT_OUT;
  fail_every_call(second);
}

TEST_F(Failure, OfACallAndAllLaterOnesEndsAScanCleanly) {
  keep_stale_digests();
  operation second = scan_operation("second scan, all later calls too", 3);
  second.every_later_too = true;
  second.answers.push_back({{pthread_create}, {1}});
  fail_every_call(second);
}

}  // namespace
