// The operations on single files and groups, the status probes and the service entry points,
// against the built library: exact requests, lines and results, for success and for each call that
// fails.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <iterator>
#include <thread>

#include "support/captured_log.h"
#include "support/scripted_fs.h"
#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"
#include "velmarin/files.h"

namespace {
thread_local int fstat_to_fail = 0;  // n: the n-th fstat of this thread from now on fails with EIO
}

extern "C" __attribute__((visibility("default"))) int fstat(int fd, struct stat *status) noexcept {
  static const auto next = reinterpret_cast<int (*)(int, struct stat *)>(dlsym(RTLD_NEXT, "fstat"));
  if (fstat_to_fail > 0 && --fstat_to_fail == 0) {
    errno = EIO;
    return -1;
  }
  return next(fd, status);
}

namespace {

using namespace velmarin;
using namespace velmarin_test;
using texts = std::vector<std::string>;

constexpr unsigned GETFLAGS = static_cast<unsigned>(FS_IOC_GETFLAGS);
constexpr sis_file_info LAYERED = {0, 1, {}, 0xfffffffe};
constexpr sis_file_info DEDUPED = {1, 1, {}, 77};
constexpr sis_file_info DEDUPED_ONLY = {1, 0, {}, 77};

ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

void replace_all(std::string *text, const std::string &from, const std::string &to) {
  for (size_t at = 0; (at = text->find(from, at)) != std::string::npos; at += to.size()) {
    text->replace(at, from.size(), to);
  }
}

// A tree, the file system under command, and the log. In the end no descriptor may be left open.
struct world {
  ptrdiff_t descriptors_before = open_descriptors();
  temporary_tree tree{"a=same b=same d/c=same"};
  captured_log log;
  scripted_fs fs;

  ~world() { EXPECT_EQ(open_descriptors(), descriptors_before); }

  texts requests() const { return fs.texts(tree.root()); }

  // The log with paths shown below the tree's root, which is ROOT, "ino:a" for the inode number of
  // file a and "ino:layer" for that of the temporary file.
  texts lines() const {
    std::map<std::string, std::string> words = {{tree.root(), "ROOT"}};
    for (const std::string name : {"a", "b", "d/c", "copy"}) {
      struct stat status = {};
      stat(tree.path(name).c_str(), &status);
      words["ino:" + std::to_string(status.st_ino) + ","] = "ino:" + name + ",";
      words["(" + std::to_string(status.st_ino) + ")"] = "(ino:" + name + ")";
    }
    for (const fs_request &request : fs.requests()) {
      if (request.code == SIS_IOC_CLONE_FILE) {
        words["ino:" + std::to_string(request.inode) + ","] = "ino:layer,";
      }
    }
    texts lines = log.messages();
    for (std::string &line : lines) {
      replace_all(&line, tree.root() + "/", "");
      for (const auto &[from, to] : words) {
        replace_all(&line, from, to);
      }
    }
    return lines;
  }
};

using call = std::function<int(world &)>;

// A call of the function with a path in the world's tree.
template <typename... Rest>
call on(const char *name, int (*function)(const char *, Rest...),
        std::type_identity_t<Rest>... rest) {
  return [=](world &w) { return function(w.tree.path(name).c_str(), rest...); };
}

// A call of the probe with a descriptor of file a, open for reading.
call probe(int (*function)(int fd)) {
  return [=](world &w) {
    const int fd = open(w.tree.path("a").c_str(), O_RDONLY);
    const int result = function(fd);
    close(fd);
    return result;
  };
}

// The call when the file system answers the next request of a code with a record.
template <typename Record>
call answered(unsigned code, const Record &record, const call &then) {
  return [=](world &w) {
    w.fs.answer_with(code, record);
    return then(w);
  };
}

call group(const texts &names) {
  return [=](world &w) {
    texts paths = names;
    std::vector<char *> pointers;
    for (std::string &path : paths) {
      path = w.tree.path(path);
      pointers.push_back(path.data());
    }
    return sis_them_all(pointers.data(), static_cast<int>(pointers.size()));
  };
}

call task(const char *file1, const char *file2) {
  return [=](world &w) {
    return sisFileTaskImpl(w.tree.path(file1).c_str(), w.tree.path(file2).c_str());
  };
}

// Returns 0 when a descriptor of the file was handed out, which is closed.
int layer(const char *path) {
  const int fd = create_layer(path);
  EXPECT_TRUE(fd < 0 || std::filesystem::equivalent("/proc/self/fd/" + std::to_string(fd), path));
  return fd < 0 ? fd : close(fd);
}

// What becomes of a call when the n-th request of a code fails, or the n-th fstat, or the n-th
// open: how many of its requests and lines are left, the result, and the line of the failure, in
// which @ stands for the error's text.
struct failure {
  unsigned failing;
  int nth;
  size_t requests;
  size_t lines;
  int result;
  std::string line;
};
constexpr unsigned FSTAT = 1;  // fails with EIO, like the requests
constexpr unsigned OPEN = 2;   // fails with EMFILE

// Leaves room for `count` more descriptors, or as many as there were before for a negative count.
void limit_descriptors(int count) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  static const rlim_t limit_before = limit.rlim_cur;
  const int free_fd = dup(STDIN_FILENO);
  close(free_fd);
  limit.rlim_cur = count < 0 ? limit_before : static_cast<rlim_t>(free_fd + count);
  setrlimit(RLIMIT_NOFILE, &limit);
}

template <typename Container>
Container first(const Container &all, size_t count) {
  return Container(all.begin(), all.begin() + static_cast<ptrdiff_t>(count));
}

// What is given of the requests, lines and result is that of the call when nothing fails.
void expect(const call &operation, int result, const texts &requests, const texts &lines,
            const std::vector<failure> &failures = {}) {
  world all_well;
  EXPECT_EQ(operation(all_well), result);
  EXPECT_EQ(all_well.requests(), requests);
  EXPECT_EQ(all_well.lines(), lines);
  for (failure expected : failures) {
    SCOPED_TRACE(expected.line);
    world w;
    w.fs.fail(expected.failing, expected.nth, EIO);
    fstat_to_fail = expected.failing == FSTAT ? expected.nth : 0;
    limit_descriptors(expected.failing == OPEN ? expected.nth - 1 : -1);
    EXPECT_EQ(operation(w), expected.result);
    fstat_to_fail = 0;
    limit_descriptors(-1);
    EXPECT_EQ(w.requests(), first(requests, expected.requests));
    texts expected_lines = first(lines, expected.lines);
    if (!expected.line.empty()) {
      replace_all(&expected.line, "@", strerror(expected.failing == OPEN ? EMFILE : EIO));
      expected_lines.push_back(expected.line);
    }
    EXPECT_EQ(w.lines(), expected_lines);
  }
}

const std::string UNDER = "INFO creating temporary file under ROOT";
const std::string CREATED = "INFO created layered inode[ino:layer,size:0] for a[ino:a,size:4]";
const std::string DONE_B = "INFO done deduplication for b[ino:b,size:4]";
const std::string DONE_C = "INFO done deduplication for d/c[ino:d/c,size:4]";
const std::string CLONE_A = "CLONE_FILE (unnamed) rw src=a flags=60";
const std::string CONNECT_A = "CONNECT a rw layer=(unnamed)";
const std::string QUERY_A = "GET_FILE_INFO a rw zeroed";

TEST(GroupDedup, SharesOneLayerMadeFromTheFirstMember) {
  expect(group({"a", "b", "d/c"}), 0,
         {CLONE_A, CONNECT_A, "DEDUP_FILE b rw src=a mode=0", "DEDUP_FILE d/c rw src=a mode=0"},
         {UNDER, CREATED, DONE_B, DONE_C},
         {{OPEN, 2, 0, 0, EMFILE, "ERRO fail to open b returned @"},
          {FSTAT, 2, 0, 0, EIO, "ERRO fail to stat b returned @"},
          {OPEN, 4, 0, 1, EMFILE, "ERRO fail to open temporary file returned @"},
          {FSTAT, 4, 0, 1, EIO, "ERRO fail to stat temporary file returned @"},
          {SIS_IOC_CLONE_FILE, 1, 1, 1, EIO, "ERRO fail to clone to temperory file returned @"},
          {SIS_IOC_CONNECT, 1, 2, 1, EIO, "ERRO fail to create layered inode returned @"},
          {SIS_IOC_DEDUP_FILE, 2, 4, 3, EIO, "ERRO fail to deduplicate d/c returned @"}});
}

TEST(GroupDedup, GoesOnAfterARefusedMemberAndReturnsTheLastError) {
  const call dedup = group({"a", "b", "d/c"});
  world w;
  w.fs.fail(SIS_IOC_DEDUP_FILE, 1, EXDEV);
  w.fs.fail(SIS_IOC_DEDUP_FILE, 3, EXDEV);
  w.fs.fail(SIS_IOC_DEDUP_FILE, 4, EPERM);
  EXPECT_EQ(dedup(w), EXDEV);
  EXPECT_EQ(w.lines().back(), DONE_C);
  EXPECT_EQ(dedup(w), EPERM);
  EXPECT_EQ(w.log.lines().back().module, "reflink.cpp");
}

TEST(GroupDedup, TakesGroupsOfOneButNotOfNone) {
  expect(group({"a"}), 0, {CLONE_A, CONNECT_A}, {UNDER, CREATED});
  expect(group({}), EINVAL, {},
         {"ERRO fail to deduplicate a group of 0 files returned Invalid argument"});
}

// The permissions of the temporary file, which must stay open to the last request.
int temporary_file_mode(const call &operation) {
  world w;
  int temporary_fd = -1;
  struct stat status = {};
  w.fs.before_each([&](const fs_request &request) {
    temporary_fd = request.code == SIS_IOC_CLONE_FILE ? request.fd : temporary_fd;
    EXPECT_TRUE(temporary_fd < 0 || fstat(temporary_fd, &status) == 0) << request.text("");
  });
  EXPECT_EQ(operation(w), 0);
  return status.st_mode & 0777U;
}

TEST(TemporaryFile, StaysOpenToTheLastRequest) {
  const mode_t mask = umask(0);
  EXPECT_EQ(temporary_file_mode(group({"a", "b"})), 0600);
  EXPECT_EQ(temporary_file_mode(on("a", layer)), 0600);
  EXPECT_EQ(temporary_file_mode(task("a", "b")), 0777);
  umask(mask);
}

TEST(SingleFile, CreateLayerHandsOutTheDescriptorOfTheAttachedFile) {
  expect(on("a", layer), 0, {CLONE_A, CONNECT_A}, {"INFO creating temporary file for a", CREATED},
         {{OPEN, 1, 0, 0, -1, "INFO fail to open a returned @"},
          {FSTAT, 1, 0, 0, -1, "INFO fail to stat a returned @"},
          {OPEN, 2, 0, 1, -1, "INFO fail to open temporary file returned @"},
          {FSTAT, 2, 0, 1, -1, "INFO fail to stat temporary file returned @"},
          {SIS_IOC_CLONE_FILE, 1, 1, 1, -1, "INFO fail to clone to temperory file returned @"},
          {SIS_IOC_CONNECT, 1, 2, 1, -1, "INFO fail to create layered inode returned @"}});
}

TEST(SingleFile, AFileThatCanBeOpenedButNotResolvedIsRefused) {
  world w;
  const int fd = open(w.tree.path("b").c_str(), O_RDWR);
  unlink(w.tree.path("b").c_str());
  std::string path = "/proc/self/fd/" + std::to_string(fd);
  char *paths[] = {path.data()};
  EXPECT_EQ(create_layer(path.c_str()), -1);
  EXPECT_EQ(sis_them_all(paths, 1), ENOENT);
  const std::string line = "fail to get real path of " + path + " returned " + strerror(ENOENT);
  EXPECT_EQ(w.lines(), (texts{"INFO " + line, "ERRO " + line}));
  close(fd);
}

TEST(SingleFile, DedupFileSharesTheDataOfTheDescriptor) {
  const temporary_tree other("source=same");
  const int source = open(other.path("source").c_str(), O_RDONLY);
  expect(on("b", dedup_file, source), 0,
         {"DEDUP_FILE b rw src=" + other.path("source") + " mode=0"}, {DONE_B},
         {{OPEN, 1, 0, 0, EMFILE, "INFO fail to open b returned @"},
          {FSTAT, 1, 0, 0, EIO, "INFO fail to stat b returned @"},
          {SIS_IOC_DEDUP_FILE, 1, 1, 0, EIO, "INFO fail to deduplicate b returned @"}});
  close(source);
}

TEST(SingleFile, ReflinkCopyMakesANewFile) {
  const call copy = [](world &w) {
    return reflink_copy(w.tree.path("a").c_str(), w.tree.path("copy").c_str());
  };
  expect(copy, 0, {"DEDUP_FILE copy ro src=a mode=1"},
         {"INFO reflink copy[ino:copy,size:0] to a[ino:a,size:4]"},
         {{OPEN, 1, 0, 0, EMFILE, "ERRO fail to open a return @"},
          {FSTAT, 1, 0, 0, EIO, "ERRO fail to stat a return @"},
          {OPEN, 2, 0, 0, EMFILE, "ERRO fail to open copy return @"},
          {SIS_IOC_DEDUP_FILE, 1, 1, 0, EIO, "ERRO fail to do rapid copy from a to copy return @"},
          {FSTAT, 2, 1, 0, EIO, "ERRO fail to stat copy return @"}});
  world w;
  w.tree.write("copy", "kept");
  EXPECT_EQ(copy(w), EEXIST);
  EXPECT_EQ(w.tree.read("copy"), "kept");
}

TEST(SingleFile, RevokeFileDetachesWhatIsAttached) {
  const unsigned query = SIS_IOC_GET_FILE_INFO;
  const texts requests = {"GET_FILE_INFO a ro zeroed", "REVOKE a ro null"};
  expect(answered(query, LAYERED, on("a", revoke_file)), 0, requests,
         {"INFO revoke a[ino:a,size:4] from its layered inode[ino:-2]"},
         {{OPEN, 1, 0, 0, EMFILE, "INFO fail to open a return @"},
          {FSTAT, 1, 0, 0, EIO, "INFO fail to stat a return @"},
          {query, 1, 1, 0, EIO, "INFO fail to query a return @"},
          {SIS_IOC_REVOKE, 1, 2, 0, EIO, "ERRO fail to revoke a return @"}});
  for (const sis_file_info &info : {DEDUPED, DEDUPED_ONLY}) {
    expect(answered(query, info, on("a", revoke_file)), 0, requests,
           {"INFO revoke a[ino:a,size:4] from its deduped inode[ino:77]"});
  }
  expect(on("a", revoke_file), 1, first(requests, 1),
         {"INFO a[ino:a,size:4] is not deduped inode nor layered inode"});
}

TEST(StatusProbe, CheckFileStatusAsksForCompressionFirst) {
  const auto check_as = [](uint32_t inode_flags, const sis_file_info &info) {
    const call check = probe([](int fd) { return check_file_status(fd, nullptr, "a"); });
    return answered(GETFLAGS, inode_flags, answered(SIS_IOC_GET_FILE_INFO, info, check));
  };
  const texts requests = {"GETFLAGS a ro zeroed", "GET_FILE_INFO a ro zeroed"};
  expect(check_as(FS_COMPR_FL, DEDUPED), SIS_STATUS_COMPRESSED, first(requests, 1), {});
  expect(check_as(0, DEDUPED_ONLY), SIS_STATUS_PLAIN, requests, {});
  expect(check_as(0, LAYERED), SIS_STATUS_LAYERED, requests, {});
  const std::string line = "INFO cannot determine whether a is ";
  expect(check_as(~uint32_t{FS_COMPR_FL}, DEDUPED), SIS_STATUS_DEDUPED, requests, {},
         {{GETFLAGS, 1, 1, 0, -EIO, line + "compressed, errno = 5"},
          {SIS_IOC_GET_FILE_INFO, 1, 2, 0, -EIO, line + "dedupped, errno = 5"}});
}

TEST(StatusProbe, FreezingSetsTheFlagAndCheckingReadsIt) {
  const call freeze = probe([](int fd) { return freeze_file(fd, "a"); });
  const call check = probe([](int fd) { return check_frozen(fd, "a"); });
  const unsigned flag = SIS_IOC_COINCIDE_FLAG;
  const texts get = {"COINCIDE_FLAG a ro flags=0 op=8"};
  expect(freeze, 0, {"COINCIDE_FLAG a ro flags=2 op=4"}, {}, {{flag, 1, 1, 0, EIO, ""}});
  expect(answered(flag, sis_coincide_arg{3, 0}, check), 0, get, {}, {{flag, 1, 1, 0, -EIO, ""}});
  expect(answered(flag, sis_coincide_arg{~SIS_FLAG_COINCIDE, 0}, check), -1, get,
         {"INFO a is not frozen any longer"});
}

int filter(int fd, mode_t type, off_t size, blkcnt_t blocks) {
  struct stat status = {};
  status.st_mode = type | 0644U;
  status.st_size = size;
  status.st_blocks = blocks;
  return filter_out_nonsis(fd, &status, "a");
}

TEST(StatusProbe, FilterLooksOnlyAtRegularFilesAndFindsUnfitFileSystems) {
  const call full_file = probe([](int fd) { return filter(fd, S_IFREG, 5120, 10); });
  const texts query = {"GET_FILE_INFO a ro zeroed"};
  expect(full_file, 0, query, {}, {{SIS_IOC_GET_FILE_INFO, 1, 1, 0, 0, ""}});
  expect([&](world &w) { return w.fs.answer(SIS_IOC_GET_FILE_INFO, -1, EOPNOTSUPP), full_file(w); },
         -EOPNOTSUPP, query, {});
  expect(probe([](int fd) { return filter(fd, S_IFDIR, 4096, 0); }), 0, {}, {});
}

TEST(StatusProbe, StatisticsCountWhatTheFilterFoundUntilTheyAreRead) {
  world w;
  std::array<uint64_t, 4> counters = {};
  get_sis_file_statistics(nullptr, nullptr, nullptr, nullptr);
  off_t size = 5000;
  for (const sis_file_info &info : {sis_file_info{}, LAYERED, DEDUPED, DEDUPED}) {
    w.fs.answer_with(SIS_IOC_GET_FILE_INFO, info);
    EXPECT_EQ(filter(STDIN_FILENO, S_IFREG, size, 8), info.layered + info.deduped);
    size = info.deduped != 0 ? 8192 : 5000;
  }
  w.fs.answer_with(GETFLAGS, uint32_t{FS_COMPR_FL});
  w.fs.fail(GETFLAGS, 6, EIO);
  EXPECT_EQ(filter(STDIN_FILENO, S_IFREG, 5000, 8), SIS_STATUS_COMPRESSED);
  EXPECT_EQ(filter(STDIN_FILENO, S_IFREG, 5000, 8), -EIO);
  get_sis_file_statistics(&counters[0], &counters[1], &counters[2], &counters[3]);
  EXPECT_EQ(counters, (std::array<uint64_t, 4>{1, 2, 4096, 8192}));
  get_sis_file_statistics(&counters[0], nullptr, &counters[2], &counters[3]);
  EXPECT_EQ(counters, (std::array<uint64_t, 4>{0, 2, 0, 0}));
}

TEST(StatusProbe, StatisticsLoseNothingThatIsCountedWhileTheyAreRead) {
  constexpr uint64_t FILES = 4000;
  world w;
  w.fs.answer_with(SIS_IOC_GET_FILE_INFO, DEDUPED, true);
  std::atomic<bool> is_done = false;
  std::thread worker([&is_done] {
    for (uint64_t i = 0; i < FILES; i++) {
      filter(STDIN_FILENO, S_IFREG, 5000, 8);
    }
    is_done = true;
  });
  uint64_t total = 0;
  uint64_t files = 0;
  for (bool is_last = false; !is_last; total += files) {
    is_last = is_done;
    get_sis_file_statistics(nullptr, &files, nullptr, nullptr);
  }
  worker.join();
  EXPECT_EQ(total, FILES);
}

TEST(FileDedupRequest, AttachesThePlainFirstFileThenSharesItsData) {
  const unsigned query = SIS_IOC_GET_FILE_INFO;
  const std::string dedup_a = "DEDUP_FILE a rw src=d/c mode=1";
  const std::string error = " failed! ret = -1, errno = 5\n";
  expect(
      task("d/c", "a"), 0,
      {"GET_FILE_INFO d/c rw zeroed", "CLONE_FILE d/(unnamed) rw src=d/c flags=60",
       "CONNECT d/c rw layer=d/(unnamed)", dedup_a},
      {},
      {{OPEN, 1, 0, 0, -1, "SERVICE open file1:d/c failed !\n"},
       {OPEN, 2, 0, 0, -1, "SERVICE open file2:a failed !\n"},
       {query, 1, 1, 0, EIO, "SERVICE ioctl get file info" + error},
       {OPEN, 3, 1, 0, EMFILE, "SERVICE open tmp_fd failed! ret = -1, errno = 24, tmp_file d/\n"},
       {SIS_IOC_CLONE_FILE, 1, 2, 0, EIO, "SERVICE ioctl clone file" + error},
       {SIS_IOC_CONNECT, 1, 3, 0, EIO, "SERVICE ioctl connect" + error}});
  // A file that is attached already is only shared; a refusal leads to one more query.
  const call again = answered(query, LAYERED, task("a", "b"));
  const std::string dedup_b = "DEDUP_FILE b rw src=a mode=1";
  expect(again, 0, {QUERY_A, dedup_b}, {});
  expect([&](world &w) { return w.fs.answer(SIS_IOC_DEDUP_FILE, -1, EXDEV), again(w); }, EXDEV,
         {QUERY_A, dedup_b, QUERY_A}, {"SERVICE ioctl dedup file failed! ret = -1, errno = 18\n"});
  expect([&](world &) { return sisFileTaskImpl("a", "b"); }, -1, {},
         {"SERVICE file1 a invalid \n"});
}

TEST(FileDedupRequest, InfoIsTheLayeredByte) {
  const unsigned query = SIS_IOC_GET_FILE_INFO;
  expect(answered(query, sis_file_info{1, 5, {}, 0}, on("d/../a", getSISFileInfoImpl)), 5,
         {QUERY_A}, {},
         {{OPEN, 1, 0, 0, -1, "SERVICE open file:a failed !\n"},
          {query, 1, 1, 0, -1, "SERVICE ioctl get file info failed! ret = -1, errno = 5\n"}});
  expect(on("x", getSISFileInfoImpl), -1, {}, {"SERVICE Failed to realpath x returned -1\n"});
}

TEST(FileDedupRequest, RecoverRevokesAndConfirms) {
  const texts requests = {"REVOKE a rw own fd", QUERY_A};
  expect(on("a", recoverFileImpl), 0, requests, {},
         {{OPEN, 1, 0, 0, -1, "SERVICE recover file a, open FAIL \n"},
          {SIS_IOC_REVOKE, 1, 1, 0, -EIO, ""},
          {OPEN, 2, 1, 0, -1, "SERVICE open file:a failed !\n"}});
  expect(answered(SIS_IOC_GET_FILE_INFO, LAYERED, on("a", recoverFileImpl)), -2, requests,
         {"SERVICE get file info, this file NOT recover!!! \n"});
  expect(on("a/x", recoverFileImpl), -ENOTDIR, {},
         {"SERVICE Failed to realpath a/x returned -20\n"});
}

// `moved` happens while the flag is being set.
call set_flag_while(void (*moved)(world &)) {
  return [moved](world &w) {
    w.tree.set_mtime("a", 1000, 5);
    w.fs.before_each([&w, moved](const fs_request &request) {
      if (request.code == SIS_IOC_COINCIDE_FLAG) {
        moved(w);
      }
    });
    return setCheckFlagImpl(w.tree.path("a").c_str(), 1000, 5);
  };
}

TEST(CoincideFlagRequest, KeepsTheFlagOnlyOnAFileThatStaysAsItWas) {
  const unsigned flag = SIS_IOC_COINCIDE_FLAG;
  const std::string ioctl_line = "SERVICE ioctl ";
  const std::string error = " failed! ret = -1, errno = 5\n";
  const texts requests = {QUERY_A, "COINCIDE_FLAG a rw flags=2 op=4",
                          "COINCIDE_FLAG a rw flags=2 op=10"};
  expect(set_flag_while([](world &) {}), 0, first(requests, 2), {},
         {{OPEN, 1, 0, 0, -1, "SERVICE open file:a failed !\n"},
          {SIS_IOC_GET_FILE_INFO, 1, 1, 0, -1, ioctl_line + "get a(ino:a) file info" + error},
          {flag, 1, 2, 0, -EIO, ioctl_line + "set a(ino:a) coincide flag" + error}});
  expect(set_flag_while([](world &w) { w.tree.set_mtime("a", 1000, 6); }), -1, requests, {},
         {{flag, 2, 3, 0, -EIO, ioctl_line + "clear a(ino:a) coincide flag" + error}});
  expect(set_flag_while([](world &w) { unlink(w.tree.path("a").c_str()); }), -1, first(requests, 2),
         {"SERVICE 2nd lstat Error a \n"});
}

TEST(CoincideFlagRequest, LeavesOtherFilesAlone) {
  world w;
  const std::string a = w.tree.path("a");
  w.tree.set_mtime("a", 1000, 5);
  w.fs.answer_with(SIS_IOC_GET_FILE_INFO, LAYERED);
  EXPECT_EQ(setCheckFlagImpl(a.c_str(), 1000, 6), -1);
  EXPECT_EQ(setCheckFlagImpl(a.c_str(), 1001, 5), -1);
  EXPECT_EQ(setCheckFlagImpl(a.c_str(), 1000, 5), 1);
  EXPECT_EQ(w.requests(), texts{QUERY_A});
  EXPECT_EQ(setCheckFlagImpl(nullptr, 0, 0), -1);
  EXPECT_EQ(setCheckFlagImpl((a + "/x").c_str(), 0, 0), -1);
  EXPECT_EQ(w.lines(), (texts{"SERVICE input file is NULL \n",
                              "SERVICE Failed to realpath a/x returned -1\n"}));
}

TEST(CoincideFlagRequest, ReadsTheWholeFlagWord) {
  const unsigned flag = SIS_IOC_COINCIDE_FLAG;
  expect(
      answered(flag, sis_coincide_arg{0x12, 0}, on("a", getCoincideFlagImpl)), 0x12,
      {"COINCIDE_FLAG a rw flags=2 op=8"}, {},
      {{OPEN, 1, 0, 0, -1, "SERVICE open file:a failed !\n"},
       {flag, 1, 1, 0, -EIO, "SERVICE ioctl get a coincide flag failed! ret = -1, errno = 5\n"}});
  expect(on("a/x", getCoincideFlagImpl), -ENOTDIR, {},
         {"SERVICE Failed to realpath a/x returned -20\n"});
  expect([](world &) { return getCoincideFlagImpl(nullptr); }, -1, {},
         {"SERVICE input file is NULL \n"});
}

}  // namespace
