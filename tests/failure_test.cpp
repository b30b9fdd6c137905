// Every call of the library that can fail is made to fail in turn: for each kind of call the first,
// the second and so on, until an operation ends untouched. After each failure the process must be
// as before, the files must be as before, and the log must say what it is meant to say.
//
// VELMARIN_FAILURE_STRIDE=n takes, after the first eight calls of a kind, only every n-th one
// (builds that are slow set it).

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include "fbddp/dentry.h"
#include "fbddp/file_index.h"
#include "support/alarm_owner.h"
#include "support/captured_log.h"
#include "support/failure_injector.h"
#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"
#include "velmarin/files.h"
#include "velmarin/scan.h"

namespace {

using namespace velmarin;
using namespace velmarin_test;
using lines = std::vector<std::string>;
using enum library_call;
namespace fs = std::filesystem;

uint64_t stride() {
  const char *text = getenv("VELMARIN_FAILURE_STRIDE");
  return text != nullptr ? std::stoul(text) : 1;
}

// Ends the process, naming the point, when a run does not come back.
class watchdog {
 public:
  explicit watchdog(std::string point) : point_(std::move(point)), thread_([this] { watch(); }) {}
  ~watchdog() {
    done_ = true;
    thread_.join();
  }
  void at(uint64_t nth) {
    nth_ = nth;
    begin_ = std::chrono::steady_clock::now().time_since_epoch();
  }

 private:
  void watch() {
    while (!done_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      if (std::chrono::steady_clock::now().time_since_epoch() - begin_.load() >
          std::chrono::seconds(60)) {
        fprintf(stderr, "hangs: %s, call %lu\n", point_.c_str(), nth_.load());
        abort();
      }
    }
  }

  std::string point_;
  std::atomic<uint64_t> nth_ = 0;
  std::atomic<std::chrono::steady_clock::duration> begin_ =
      std::chrono::steady_clock::now().time_since_epoch();
  std::atomic<bool> done_ = false;
  std::thread thread_;
};

std::map<int, std::string> open_descriptors() {
  std::map<int, std::string> descriptors;
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone);
    if (!gone && !target.ends_with("/fd")) {
      descriptors[std::stoi(entry.path().filename())] = target;
    }
  }
  return descriptors;
}

std::ptrdiff_t thread_count() {
  return std::distance(fs::directory_iterator("/proc/self/task"), {});
}

// What must be as it was once an operation is over.
class process_state {
 public:
  // Closes what `may_stay_open`, the part of a file's name, lets stay open.
  void expect_unchanged(const std::string &may_stay_open = "") const {
    EXPECT_EQ(blocks_of_library(), 0U);
    for (const auto &[fd, target] : open_descriptors()) {
      if (descriptors_.count(fd) == 0) {
        EXPECT_TRUE(!may_stay_open.empty() && target.find(may_stay_open) != std::string::npos)
            << "left open: " << target;
        ::close(fd);
      }
    }
    for (int i = 0; thread_count() > threads_ && i < 5000; i++) {  // a joined one may linger
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    EXPECT_LE(thread_count(), threads_);
  }

 private:
  std::map<int, std::string> descriptors_ = open_descriptors();
  std::ptrdiff_t threads_ = thread_count();
};

// Lines that differ only in numbers have one shape.
std::string shape_of(std::string line) {
  std::erase_if(line, [](char c) { return c == '-' || (c >= '0' && c <= '9'); });
  return line;
}

bool has_line(const lines &messages, const std::string &part) {
  return std::any_of(messages.begin(), messages.end(), [&](const std::string &message) {
    return message.find(part) != std::string::npos;
  });
}

// The points of one operation, counted by kind of call.
class point_count {
 public:
  explicit point_count(const std::string &operation) : operation_(operation) {}
  ~point_count() {
    uint64_t all = 0;
    for (const auto &[name, count] : counts_) {
      all += count;
    }
    printf("%s: %lu points failed%s\n", operation_.c_str(), all,
           stride() == 1 ? "" : (" (stride " + std::to_string(stride()) + ")").c_str());
    for (const auto &[name, count] : counts_) {
      printf("  %s %lu\n", name.c_str(), count);
    }
  }
  void add(const std::string &name) { counts_[name]++; }

 private:
  std::string operation_;
  std::map<std::string, uint64_t> counts_;
};

// What a run did while calls failed.
struct outcome {
  int result;
  lines messages;  // of a shape that an undisturbed run does not write
};

// An operation that can be run again and again.
struct operation {
  std::string name;
  std::function<void()> prepare;
  std::function<int()> run;
};

// How the outcomes of a sweep are judged.
struct verdicts {
  // Sees an outcome before the process is looked at and says which file may stay open.
  std::function<std::string(uint64_t nth, const outcome &)> on_failure;
  std::function<void(const outcome &)> on_untouched;
  std::function<bool(uint64_t nth)> is_left_out = [](uint64_t) { return false; };
  std::function<void()> afterwards = [] {};
};

// Goes through the calls of one kind until a run makes fewer of them.
void sweep(const operation &tried, library_call call, bool every_later_too,
           const std::set<std::string> &usual_shapes, point_count *points,
           const verdicts &verdict) {
  const std::string kind = std::string(name_of(call)) + (every_later_too ? " and all later" : "");
  watchdog dog(tried.name + ", " + kind);
  for (uint64_t nth = 1;; nth += nth < 8 ? 1 : stride()) {
    if (verdict.is_left_out(nth)) {
      continue;
    }
    tried.prepare();
    const process_state before;
    outcome seen = {};
    uint64_t calls = 0;
    dog.at(nth);
    {
      const captured_log log;
      {
        const failure_injector injector(call, nth, every_later_too);
        seen.result = tried.run();
        calls = injector.calls();
      }
      for (const std::string &message : log.messages()) {
        if (usual_shapes.count(shape_of(message)) == 0) {
          seen.messages.push_back(message);
        }
      }
    }
    SCOPED_TRACE(tried.name + ", " + kind + ", call " + std::to_string(nth) +
                 (seen.messages.empty() ? "" : ": " + seen.messages.front()));
    if (calls < nth) {
      verdict.on_untouched(seen);
      before.expect_unchanged();
      return;
    }
    points->add(kind);
    before.expect_unchanged(verdict.on_failure(nth, seen));
    verdict.afterwards();
    if (testing::Test::HasFailure()) {
      return;
    }
  }
}

std::set<std::string> shapes_of(const operation &tried) {
  const watchdog dog(tried.name + ", undisturbed");
  tried.prepare();
  const captured_log log;
  tried.run();
  std::set<std::string> shapes;
  for (const std::string &message : log.messages()) {
    shapes.insert(shape_of(message));
  }
  return shapes;
}

// ---- Operations on files and the digest store: each failure has one result and one line or none.

enum class leaves { nothing, open_file, suffix };

struct stated_failure {
  library_call call;  // entries of one kind are in the order of the calls
  int result;
  const char *line;  // how it begins; null when there is none
  leaves left = leaves::nothing;
};

struct stated_operation {
  operation tried;
  int result;  // undisturbed
  std::vector<stated_failure> failures;
};

// A close that fails changes nothing. What is not in the table is never called.
void expect_stated(const stated_operation &stated, const char *pname = nullptr) {
  point_count points(stated.tried.name);
  const std::set<std::string> shapes = shapes_of(stated.tried);
  for (auto call = malloc; call != library_call::end;
       call = static_cast<library_call>(static_cast<unsigned>(call) + 1)) {
    std::vector<stated_failure> expected;
    std::copy_if(stated.failures.begin(), stated.failures.end(), std::back_inserter(expected),
                 [call](const stated_failure &failure) { return failure.call == call; });
    verdicts verdict;
    verdict.on_failure = [&](uint64_t nth, const outcome &seen) -> std::string {
      if (call == library_call::close) {
        EXPECT_EQ(seen.result, stated.result);
        EXPECT_EQ(seen.messages, lines{});
        return "";
      }
      if (nth > expected.size()) {
        ADD_FAILURE() << "a call that is not in the table";
        return "";
      }
      const stated_failure &failure = expected[nth - 1];
      EXPECT_EQ(seen.result, failure.result);
      EXPECT_EQ(seen.messages.size(), failure.line != nullptr ? 1U : 0U);
      EXPECT_TRUE(failure.line == nullptr || seen.messages.empty() ||
                  seen.messages[0].starts_with(failure.line))
          << failure.line;
      if (pname != nullptr) {
        EXPECT_EQ(pname[64] == '\0', failure.left != leaves::suffix);
      }
      return failure.left == leaves::open_file ? ".hsh" : "";
    };
    verdict.on_untouched = [&](const outcome &seen) {
      EXPECT_EQ(seen.result, stated.result);
      EXPECT_EQ(seen.messages, lines{});
    };
    sweep(stated.tried, call, false, shapes, &points, verdict);
    if (testing::Test::HasFailure()) {
      return;
    }
  }
}

// A tree on a file system that keeps user attributes, in which the platform stores a file's state.
class FailureInFiles : public testing::Test {
 protected:
  void SetUp() override {
    tree.write("probe", "");
    if (setxattr(tree.path("probe").c_str(), "user.velmarin.probe", "1", 1, 0) != 0) {
      GTEST_SKIP() << "no user attributes in the temporary directory";
    }
  }

  // Three files of the same content; none is attached.
  void write_plain() const {
    for (const char *name : {"a", "b", "c"}) {
      fs::remove(tree.path(name));
      tree.write(name, content);
    }
    fs::remove(tree.path("copy"));
  }
  // `a` and `b` are attached to one layered inode.
  void write_attached() const {
    write_plain();
    EXPECT_EQ(sisFileTaskImpl(a.c_str(), b.c_str()), 0);
  }
  void expect(const char *name, bool attached, const std::function<int()> &run, int result,
              const std::vector<stated_failure> &failures) const {
    const auto prepare = [this, attached] { attached ? write_attached() : write_plain(); };
    const auto run_and_compare = [&] {
      const int answer = run();
      for (const char *file : {"a", "b", "c"}) {
        EXPECT_EQ(tree.read(file), content) << file;
      }
      return answer;
    };
    expect_stated({{name, prepare, run_and_compare}, result, failures});
  }

  const temporary_tree tree;
  const std::string content = std::string(5000, 'x');
  const std::string a = tree.path("a");
  const std::string b = tree.path("b");
  const std::string c = tree.path("c");
  const std::string copy = tree.path("copy");
};

TEST_F(FailureInFiles, OfEachCallOfAServiceEntryPointIsAnsweredAndLoggedAsStated) {
  const char *const unresolved = "SERVICE Failed to realpath ";
  const char *const unopened = "SERVICE open file:";
  const char *const unasked = "SERVICE ioctl get file info failed! ret = -1, errno = 5\n";
  const std::vector<stated_failure> before_the_layer = {
      {malloc, -1, "SERVICE Create tmp_file Failed, malloc fail\n"},
      {memcpy_s, -1, "SERVICE Create tmp_file Failed, memcpy_s fail\n"},
      {open, -1, "SERVICE open file1:"},
      {open, -1, "SERVICE open file2:"},
      {ioctl, EIO, unasked}};
  std::vector<stated_failure> plain = before_the_layer;
  plain.insert(plain.end(),
               {{open, EIO, "SERVICE open tmp_fd failed! ret = -1, errno = 5, tmp_file /"},
                {ioctl, EIO, "SERVICE ioctl clone file failed! ret = -1, errno = 5\n"},
                {ioctl, EIO, "SERVICE ioctl connect failed! ret = -1, errno = 5\n"},
                {ioctl, EIO, "SERVICE ioctl dedup file failed! ret = -1, errno = 5\n"}});
  std::vector<stated_failure> attached = before_the_layer;
  attached.push_back({ioctl, EIO, "SERVICE ioctl dedup file failed! ret = -1, errno = 5\n"});
  const auto share = [this] { return sisFileTaskImpl(a.c_str(), c.c_str()); };
  expect("sisFileTaskImpl on a plain file", false, share, 0, plain);
  expect("sisFileTaskImpl on an attached file", true, share, 0, attached);
  expect("getSISFileInfoImpl", true, [this] { return getSISFileInfoImpl(b.c_str()); }, 1,
         {{realpath, -1, unresolved}, {open, -1, unopened}, {ioctl, -1, unasked}});
  expect("recoverFileImpl", true, [this] { return recoverFileImpl(b.c_str()); }, 0,
         {{realpath, -EIO, unresolved},
          {realpath, -1, unresolved},
          {open, -1, "SERVICE recover file "},
          {open, -1, unopened},
          {ioctl, -EIO, nullptr},
          {ioctl, -1, unasked}});
  const auto set_flag = [this] {
    const struct timespec mtime = tree.status("a").st_mtim;
    return setCheckFlagImpl(a.c_str(), mtime.tv_sec, mtime.tv_nsec);
  };
  expect("setCheckFlagImpl", false, set_flag, 0,
         {{realpath, -1, unresolved},
          {open, -1, unopened},
          {lstat, -1, "SERVICE 1st lstat Error "},
          {lstat, -1, "SERVICE 2nd lstat Error "},
          {ioctl, -1, "SERVICE ioctl get "},
          {ioctl, -EIO, "SERVICE ioctl set "}});
  expect("getCoincideFlagImpl", false, [this] { return getCoincideFlagImpl(a.c_str()); }, 0,
         {{realpath, -EIO, unresolved}, {open, -1, unopened}, {ioctl, -EIO, "SERVICE ioctl get "}});
}

TEST_F(FailureInFiles, OfEachCallOfAFileSystemOperationIsAnsweredAndLoggedAsStated) {
  std::string paths[] = {a, b, c};
  char *group[] = {paths[0].data(), paths[1].data(), paths[2].data()};
  expect("sis_them_all", false, [&group] { return sis_them_all(group, 3); }, 0,
         {{calloc, ENOMEM, "ERRO fail to allocate a group of 3 files"},
          {open, EIO, "ERRO fail to open "},
          {open, EIO, "ERRO fail to open "},
          {open, EIO, "ERRO fail to open "},
          {open, EIO, "ERRO fail to open temporary file returned "},
          {fstat, EIO, "ERRO fail to stat "},
          {fstat, EIO, "ERRO fail to stat "},
          {fstat, EIO, "ERRO fail to stat "},
          {fstat, EIO, "ERRO fail to stat temporary file returned "},
          {realpath, EIO, "ERRO fail to get real path of "},
          {ioctl, EIO, "ERRO fail to clone to temperory file returned "},
          {ioctl, EIO, "ERRO fail to create layered inode returned "},
          {ioctl, EIO, "ERRO fail to deduplicate "},
          {ioctl, EIO, "ERRO fail to deduplicate "}});
  const auto make_layer = [this] {
    const int fd = create_layer(a.c_str());
    return fd < 0 ? fd : ::close(fd);
  };
  expect("create_layer", false, make_layer, 0,
         {{open, -1, "INFO fail to open "},
          {open, -1, "INFO fail to open temporary file returned "},
          {fstat, -1, "INFO fail to stat "},
          {fstat, -1, "INFO fail to stat temporary file returned "},
          {realpath, -1, "INFO fail to get real path of "},
          {ioctl, -1, "INFO fail to clone to temperory file returned "},
          {ioctl, -1, "INFO fail to create layered inode returned "}});
  const auto dedup = [this] {
    const int fd = ::open(a.c_str(), O_RDWR);
    const int result = dedup_file(c.c_str(), fd);
    ::close(fd);
    return result;
  };
  expect("dedup_file", true, dedup, 0,
         {{open, EIO, "INFO fail to open "},
          {fstat, EIO, "INFO fail to stat "},
          {ioctl, EIO, "INFO fail to deduplicate "}});
  const auto make_copy = [this] {
    const int result = reflink_copy(a.c_str(), copy.c_str());
    if (result == 0) {
      EXPECT_TRUE(tree.read("copy") == content);
    }
    return result;
  };
  expect("reflink_copy", true, make_copy, 0,
         {{open, EIO, "ERRO fail to open "},
          {open, EIO, "ERRO fail to open "},
          {fstat, EIO, "ERRO fail to stat "},
          {fstat, EIO, "ERRO fail to stat "},
          {ioctl, EIO, "ERRO fail to do rapid copy from "}});
  expect("revoke_file", true, [this] { return revoke_file(b.c_str()); }, 0,
         {{open, EIO, "INFO fail to open "},
          {fstat, EIO, "INFO fail to stat "},
          {ioctl, EIO, "INFO fail to query "},
          {ioctl, EIO, "ERRO fail to revoke "}});
}

TEST_F(FailureInFiles, OfEachRequestOfAStatusProbeIsAnsweredAsStated) {
  write_plain();
  const int fd = ::open(c.c_str(), O_RDONLY);
  struct stat full = tree.status("c");
  struct stat sparse = full;
  sparse.st_blocks = 0;
  const std::vector<stated_failure> status_failures = {
      {ioctl, -EIO, "INFO cannot determine whether c is compressed, errno = 5"},
      {ioctl, -EIO, "INFO cannot determine whether c is dedupped, errno = 5"}};
  const auto nothing = [] {};
  expect_stated({{"filter_out_nonsis on a full file", nothing,
                  [&] { return filter_out_nonsis(fd, &full, "c"); }},
                 0,
                 {{ioctl, 0, nullptr}}});
  expect_stated({{"filter_out_nonsis on a sparse file", nothing,
                  [&] { return filter_out_nonsis(fd, &sparse, "c"); }},
                 0,
                 status_failures});
  expect_stated({{"check_file_status", nothing, [&] { return check_file_status(fd, &full, "c"); }},
                 0,
                 status_failures});
  expect_stated(
      {{"freeze_file", nothing, [&] { return freeze_file(fd, "c"); }}, 0, {{ioctl, EIO, nullptr}}});
  expect_stated({{"check_frozen", nothing, [&] { return check_frozen(fd, "c"); }},
                 0,
                 {{ioctl, -EIO, nullptr}}});
  ::close(fd);
}

// The parts of a run's context that the digest store uses, with one file that has a digest.
class FailureInTheDigestStore : public testing::Test {
 protected:
  FailureInTheDigestStore() {
    list_init(&ctx.dentries);
    list_init(&ctx.hash_entries);
    ctx.pname = pname;
    memset(pname, '5', 64);
    file->parent_word = DENTRY_FILE_TAG;
    file->key = 0x700000001;
    file->hash = &digest;
    list_append(&ctx.dentries, &file->link);
  }
  void drop_table() {
    while (!list_is_empty(&ctx.hash_entries)) {
      hash_entry *entry = owner_of<&hash_entry::link>(ctx.hash_entries.next);
      list_unlink(&entry->link);
      free(entry->record);
      free(entry);
    }
    free(ctx.hash_table);
    ctx.hash_table = nullptr;
  }
  bool exists() const { return fs::exists(stored); }

  const temporary_tree tree{"s/"};
  const std::string save_dir = tree.path("s");
  const std::string stored = save_dir + "/" + std::string(64, '5') + ".hsh";
  char pname[69] = "";
  usable_hash digest = {};
  alignas(dentry) char file_memory[FILE_HEADER_SIZE + 2] = {};
  dentry *file = reinterpret_cast<dentry *>(file_memory);
  sis_context ctx = {};
};

constexpr const char *COPY_FAILED = "ERRO fail to copy string ";

TEST_F(FailureInTheDigestStore, OfEachCallOfALoadIsAnsweredAndLoggedAsStated) {
  const operation load = {"load_usable_hash",
                          [this] {
                            memset(pname + 64, 0, 5);
                            fs::remove(stored);
                            EXPECT_EQ(save_usable_hash(&ctx, save_dir.c_str()), 1);
                          },
                          [this] {
                            const auto count = load_usable_hash(&ctx, save_dir.c_str());
                            drop_table();
                            return static_cast<int>(count);
                          }};
  expect_stated({load,
                 1,
                 {{strcpy_s, -1, COPY_FAILED},  // while opening
                  {strcpy_s, -1, COPY_FAILED},
                  {strcpy_s, -1, COPY_FAILED},
                  {strcpy_s, 1, COPY_FAILED, leaves::open_file},  // while closing
                  {strcpy_s, 1, COPY_FAILED},
                  {strcpy_s, 1, COPY_FAILED, leaves::suffix},
                  {open, -1, "INFO Cannot open "},
                  {flock, -1, "INFO Cannot shared lock "},
                  {flock, 1, "INFO Cannot unlock ", leaves::open_file},
                  {memset_s, -1, nullptr},  // of the path, the suffix, the table
                  {memset_s, -1, nullptr},
                  {memset_s, -1, nullptr},
                  {memset_s, 1, "ERRO fail to reset pname\n"},
                  {memset_s, 1, "ERRO fail to reset suffix\n", leaves::suffix},
                  {malloc, -1, "ERRO fail to allocate 4096 hash buckets\n"},
                  {malloc, -1, nullptr},
                  {calloc, -1, nullptr},
                  {memcpy_s, -1, nullptr},
                  {read, -1, "ERRO fail to read crc checksum on 0 of .hsh\n"},
                  {read, -1, "ERRO fail to read hash on 8 of .hsh\n"},
                  {read, -1, "ERRO fail to read crc checksum on 64 of .hsh\n"},
                  {library_call::remove, 1, nullptr}}},
                pname);
}

TEST_F(FailureInTheDigestStore, OfEachCallOfASaveIsAnsweredAndLoggedAsStated) {
  const operation save = {"save_usable_hash",
                          [this] {
                            memset(pname + 64, 0, 5);
                            fs::remove(stored);
                          },
                          [this] {
                            const auto count = save_usable_hash(&ctx, save_dir.c_str());
                            EXPECT_EQ(exists(), count == 1) << "what is not complete is removed";
                            return static_cast<int>(count);
                          }};
  expect_stated({save,
                 1,
                 {{strcpy_s, 0, COPY_FAILED},  // while opening
                  {strcpy_s, 0, COPY_FAILED},
                  {strcpy_s, 0, COPY_FAILED},
                  {strcpy_s, 1, COPY_FAILED, leaves::open_file},  // while closing
                  {open, 0, "INFO Cannot open "},
                  {flock, 0, "INFO Cannot exclusive lock "},
                  {flock, 1, "INFO Cannot unlock ", leaves::open_file},
                  {memset_s, 0, nullptr},  // of the path, the suffix
                  {memset_s, 0, nullptr},
                  {memset_s, 1, "ERRO fail to reset suffix\n"},
                  {memcpy_s, 0, nullptr},
                  {write, 0, "ERRO fail to write hash crc64 checksum of "},
                  {write, 0, "ERRO fail to write hash of "},
                  {fsync, 1, nullptr}}},
                pname);
}

// ---- Whole scans: a failure costs at most what it touched.

enum scan_form : unsigned {
  FIRST = 1,    // startScanDirImpl without a digest file
  SECOND = 2,   // startScanDirImpl with one, in which two digests are stale
  BY_TIME = 4,  // single_instance_storage without freezing, budget and skip paths
  HOSTED = FIRST | SECOND,
  ALL = FIRST | SECOND | BY_TIME,
};

struct stated_line {
  const char *text;
  unsigned seen_in;  // the forms in which some call of the kind must cause it
};

// What a scan may answer and write when one call of a kind fails.
struct scan_failures {
  library_call call;
  int result;  // besides 0
  std::vector<stated_line> lines;
};

const std::vector<scan_failures> scan_table = {
    {malloc,
     1,
     {{"ERRO fail to allocate rbtree_roots[1024]", ALL},
      {"ERRO fail to allocate forest_lock[8x1024]", ALL},
      {"ERRO fail to allocate thread 0", ALL},
      {"ERRO fail to allocate thread 2", ALL},
      {"ERRO fail to allocate thread ", ALL},
      {"ERRO fail to allocate name buffer for SAVED", ALL},
      {"INFO failed to allocate entry for ", HOSTED},
      {"ERRO fail to allocate 4096 hash buckets\n", SECOND},
      {"ERRO failed to allocate dentry for ", ALL},
      {"ERRO fail to allocate job for ", ALL},
      {"ERRO fail to allocate long pattern for ", ALL}}},
    {calloc,
     1,
     {{"ERRO fail to allocate fname[69]", ALL}, {"ERRO failed to allocate hash for ", ALL}}},
    {library_call::access,
     EIO,
     {{"SERVICE Cannot access ", HOSTED}, {"SERVICE Cannot read from ", HOSTED}}},
    {open,
     0,
     {{"INFO failed to open skip entry ", HOSTED},
      {"INFO Cannot open ", ALL},
      {"ERRO fail to open ", ALL},
      {"ERRO cannot open ", ALL}}},
    {library_call::close, 0, {}},
    {fstat,
     0,
     {{"INFO fail to stat ", HOSTED},
      {"ERRO failed to get stat of [", BY_TIME},
      {"ERRO failed to get stat of /", BY_TIME}}},
    {lstat, 0, {}},
    {realpath, 0, {}},
    {read,
     0,
     {{"ERRO fail to read from 0 to 4096 from ", ALL},
      {"ERRO fail to read from 1044480 to 1048576 from ", ALL},
      {"ERRO failed to read [", ALL},
      {"ERRO fail to read crc checksum on ", SECOND},
      {"ERRO fail to read hash on ", SECOND}}},
    {write,
     0,
     {{"ERRO fail to write hash crc64 checksum of ", ALL}, {"ERRO fail to write hash of ", ALL}}},
    {lseek,
     0,
     {{"ERRO fail to seek to 0 from ", ALL}, {"ERRO fail to seek to 1044480 from ", ALL}}},
    {fsync, 0, {}},
    {library_call::remove, 0, {}},
    {flock,
     0,
     {{"INFO Cannot shared lock ", SECOND},
      {"INFO Cannot exclusive lock ", ALL},
      {"INFO Cannot unlock ", ALL}}},
    {posix_fadvise, 0, {}},
    {fdopendir, 0, {{"ERRO failed to open ", ALL}}},
    {readdir, 0, {}},
    {closedir, 0, {{"ERRO closedir ", ALL}}},
    {ioctl, 0, {{"INFO cannot determine whether ", ALL}, {"ERRO call prep for ", HOSTED}}},
    {pthread_create,
     0,
     // A usual line where there is a single worker.
     {{"ERRO fail to get thread from pool", 0}, {"ERRO fail to start worker ", 0}}},
    {pthread_mutex_init, 1, {}},
    {pthread_cond_init, 1, {}},
    {pthread_spin_init, 1, {}},
    {timer_create, 0, {{"ERRO fail to create timer of 300s", HOSTED}}},
    {timer_settime, 0, {{"ERRO fail to initialize timer as counting down 300s", HOSTED}}},
    {library_call::sigaction, 0, {{"ERRO fail to set signal action for 14", HOSTED}}},
    {sigprocmask,
     0,
     {{"ERRO fail to block signal 14", HOSTED}, {"ERRO fail to unblock signal 14", HOSTED}}},
    // Where a path cannot be built, the empty path is opened in its stead.
    {memset_s,
     1,
     {{"ERRO fail to reset pname\n", SECOND},
      {"ERRO fail to reset suffix\n", ALL},
      {"ERRO fail to open  returned No such file", ALL},
      {"ERRO cannot open  returned No such file", ALL}}},
    {memcpy_s,
     1,
     {{"ERRO fail to calculate hash filename return ", ALL},
      {"ERRO fail to open  returned No such file", ALL},
      {"ERRO cannot open  returned No such file", ALL}}},
    {strcpy_s, 0, {{COPY_FAILED, ALL}}},
    {snprintf_s, 1, {{"ERRO fail to calculate hash filename return ", ALL}}}};

constexpr unsigned WORKERS = 3;

class FailureInAScan : public testing::Test {
 protected:
  FailureInAScan() {
    for (const char *name : {"big1", "d/big2", "big3"}) {
      std::string content(1 << 20, 'b');
      content[0] = strcmp(name, "big3") == 0 ? 'c' : 'b';
      tree.write(std::string("t/") + name, content);
    }
    fs::create_hard_link(tree.path("t/a1"), tree.path("t/link"));
    fs::create_symlink("a1", tree.path("t/symlink"));
    tree.write("t/sparse", "");
    fs::resize_file(tree.path("t/sparse"), 70000);
    for (const auto &entry : fs::recursive_directory_iterator(tree.path("t"))) {
      const std::string name = entry.path().lexically_relative(tree.root());
      states_[name] = state_of(name);
      if (entry.is_regular_file()) {
        contents_[name] = tree.read(name);
      }
    }
  }

  // All that a scan must leave alone: size, time, inode number.
  std::string state_of(const std::string &name) const {
    const struct stat status = tree.status(name);
    return std::to_string(status.st_size) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
           std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(status.st_ino);
  }

  int scan() {
    found_.clear();
    const char *roots[] = {root.c_str()};
    const char *skips[] = {skipped.c_str(), skip_dir.c_str()};
    if (form == BY_TIME) {
      const sis_ops ops = {filter_out_nonsis, check_file_status, nullptr, nullptr, receive};
      int *handle = nullptr;
      return single_instance_storage(roots, 1, nullptr, 0, save_dir.c_str(), 65536, 0, 0, 0, &ops,
                                     reinterpret_cast<uint64_t>(this), &handle);
    }
    const sis_scan_request request = {1, 2, roots, skips, save_dir.c_str(), 0};
    return startScanDirImpl(&request, reinterpret_cast<uint64_t>(this), receive);
  }

  static int receive(uint64_t self, sis_report *record) {
    auto &found = reinterpret_cast<FailureInAScan *>(self)->found_;
    if (record->stage == REPORT_GROUP) {
      found.emplace_back();
    }
    if (record->stage == REPORT_GROUP || record->stage == REPORT_FILE) {
      found.back().insert(record->path);
    }
    return 0;
  }

  // Names below the root. Which of its two names a hard link is found by depends on the order.
  std::set<std::set<std::string>> found() const {
    std::set<std::set<std::string>> groups;
    for (const auto &paths : found_) {
      std::set<std::string> names;
      for (const std::string &path : paths) {
        const std::string name = path.empty() ? "" : path.substr(root.size() + 1);
        names.insert(name == "link" ? "a1" : name);
      }
      groups.insert(names);
    }
    return groups;
  }

  // Every group found is one of identical files; a path that could not be built is empty.
  void expect_true_groups() const {
    for (std::set<std::string> names : found()) {
      names.erase("");
      EXPECT_TRUE(std::any_of(identical.begin(), identical.end(), [&names](const auto &group) {
        return std::includes(group.begin(), group.end(), names.begin(), names.end());
      }));
    }
  }

  void expect_clean_scan() {
    allow_workers(WORKERS);
    const captured_log log;
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(found(), all_groups);
  }

  void expect_untouched_tree() const {
    for (const auto &[name, state] : states_) {
      EXPECT_EQ(state_of(name), state) << name;
    }
  }

  fs::path stored() const {
    for (const auto &entry : fs::directory_iterator(save_dir)) {
      return entry.path();
    }
    return {};
  }

  void expect_unlocked_digest_file() const {
    if (!stored().empty()) {
      const int fd = ::open(stored().c_str(), O_RDONLY);
      EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
      ::close(fd);
    }
  }

  // The digest file as the form wants it.
  void prepare_state() {
    if (!stored().empty()) {
      fs::remove(stored());
    }
    if (form == SECOND) {
      fs::copy_file(tree.path("kept"), kept_as);
    }
  }

  void make_stale_digests() {
    expect_clean_scan();
    kept_as = stored();
    fs::copy_file(kept_as, tree.path("kept"));
    for (const char *name : {"t/a1", "t/d/big2"}) {
      const struct timespec mtime = tree.status(name).st_mtim;
      tree.set_mtime(name, mtime.tv_sec, mtime.tv_nsec ^ 1);
    }
    for (auto &[name, state] : states_) {
      state = state_of(name);
    }
  }

  void fail_every_call(scan_form scanned_form, unsigned workers, bool every_later_too = false);

  scan_form form = FIRST;
  const temporary_tree tree{
      "t/a1=a*65536 t/d/a2=a*65536 t/b=b*65536 t/small=s t/skipped=a*65536 t/skip/x=a*65536 s/"};
  const std::string root = tree.path("t");
  const std::string skipped = tree.path("t/skipped");
  const std::string skip_dir = tree.path("t/skip");
  const std::string save_dir = tree.path("s");
  fs::path kept_as;
  const std::set<std::set<std::string>> identical = {{"a1", "d/a2", "skip/x", "skipped"},
                                                     {"big1", "d/big2"}};
  std::set<std::set<std::string>> all_groups;  // that a scan of this form finds

 private:
  std::vector<std::set<std::string>> found_;
  std::map<std::string, std::string> states_;
  std::map<std::string, std::string> contents_;
};

// The order of steps has it that a digest file which cannot be unlocked, or whose path cannot be
// formed when it is to be closed, stays open. After a load it stays locked as well, and the save of
// the same run waits for it forever: these two calls are left out.
bool keeps_run_waiting(scan_form form, library_call call, uint64_t nth) {
  return form == SECOND && ((call == strcpy_s && nth == 4) || (call == flock && nth == 2));
}

// All scans make the thousand locks of the forest in one way, so one of them goes through them all.
bool is_like_its_neighbours(uint64_t nth) {
  return nth > 8 && nth < FOREST_TREES && nth % 32 != 0;
}

void FailureInAScan::fail_every_call(scan_form scanned_form, unsigned workers,
                                     bool every_later_too) {
  form = scanned_form;
  all_groups = identical;
  if (form != BY_TIME) {
    all_groups = {{"a1", "d/a2"}, {"big1", "d/big2"}};
  }
  if (form == SECOND) {
    make_stale_digests();
  }
  constexpr const char *FORM_NAMES[] = {"", "first", "second", "", "time-comparing"};
  std::optional<alarm_owner> owner;
  const operation tried = {
      std::string(FORM_NAMES[form]) + " scan, workers: " + std::to_string(workers),
      [&] {
        prepare_state();
        owner.emplace();
        allow_workers(workers);
      },
      [this] { return scan(); }};
  point_count points(tried.name);
  const std::set<std::string> shapes = shapes_of(tried);

  for (const scan_failures &stated : scan_table) {
    std::set<const char *> seen_lines;
    verdicts verdict;
    verdict.is_left_out = [&](uint64_t nth) {
      return (!every_later_too && keeps_run_waiting(form, stated.call, nth)) ||
             (stated.call == pthread_spin_init && (form != FIRST || workers > 1) &&
              is_like_its_neighbours(nth));
    };
    verdict.on_failure = [&](uint64_t nth, const outcome &seen) -> std::string {
      const bool starves = every_later_too && stated.call == pthread_create && nth == 1;
      EXPECT_TRUE(seen.result == 0 || seen.result == (starves ? 1 : stated.result)) << seen.result;
      const size_t most = stated.call == pthread_create ? 2 : stated.lines.empty() ? 0 : 1;
      EXPECT_TRUE(every_later_too || seen.messages.size() <= most) << seen.messages.back();
      for (const std::string &message : seen.messages) {
        const auto line = std::find_if(
            stated.lines.begin(), stated.lines.end(),
            [&](const stated_line &candidate) { return message.starts_with(candidate.text); });
        EXPECT_NE(line, stated.lines.end()) << message;
        if (line != stated.lines.end()) {
          seen_lines.insert(line->text);
        }
      }
      expect_true_groups();
      expect_untouched_tree();
      // A failed arming leaves the signal blocked once it has been. The former action cannot be put
      // back by a call that fails.
      const bool is_blocked = alarm_owner::mask_alarm(SIG_UNBLOCK);
      EXPECT_EQ(is_blocked, has_line(seen.messages, "timer") || has_line(seen.messages, "unblock"));
      const bool restoring =
          stated.call == library_call::sigaction && (nth == 3 || (every_later_too && nth == 2));
      EXPECT_EQ(owner->has_its_action(), !restoring);
      const bool stays_open =
          has_line(seen.messages, "Cannot unlock") || has_line(seen.messages, COPY_FAILED);
      return stays_open ? ".hsh" : "";
    };
    verdict.on_untouched = [&](const outcome &seen) {
      EXPECT_EQ(seen.result, 0);
      EXPECT_EQ(seen.messages, lines{});
      EXPECT_EQ(found(), all_groups);
    };
    verdict.afterwards = [&] {
      owner.reset();
      expect_unlocked_digest_file();
      expect_clean_scan();
    };
    sweep(tried, stated.call, every_later_too, shapes, &points, verdict);
    if (stride() == 1 && workers == 1) {  // with several a call may escape, as their order varies
      for (const stated_line &line : stated.lines) {
        EXPECT_EQ(seen_lines.count(line.text), (line.seen_in & form) != 0 ? 1U : 0U) << line.text;
      }
    }
    if (HasFailure()) {
      return;
    }
  }
  for (const auto &[name, content] : contents_) {
    EXPECT_TRUE(tree.read(name) == content) << name;
  }
}

TEST_F(FailureInAScan, WithoutADigestFileCostsNoMoreThanItTouched) {
  fail_every_call(FIRST, 1);
}

TEST_F(FailureInAScan, WithADigestFileCostsNoMoreThanItTouched) {
  fail_every_call(SECOND, 1);
}

TEST_F(FailureInAScan, ThatComparesTimesCostsNoMoreThanItTouched) {
  fail_every_call(BY_TIME, 1);
}

TEST_F(FailureInAScan, OfSeveralWorkersCostsNoMoreThanItTouched) {
  fail_every_call(FIRST, WORKERS);
}

TEST_F(FailureInAScan, OfACallAndOfAllLaterOnesEndsTheScanInGoodOrder) {
  fail_every_call(SECOND, WORKERS, true);
}

}  // namespace
