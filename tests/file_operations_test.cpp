// The operations on single files and groups, the status probes and the service entry points,
// against the built library: exact requests, lines and results, for success and for each request
// that is refused.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "support/captured_log.h"
#include "support/scripted_fs.h"
#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"
#include "velmarin/files.h"

namespace {

using namespace velmarin;
using namespace velmarin_test;
namespace fs = std::filesystem;
using texts = std::vector<std::string>;

constexpr unsigned QUERY = SIS_IOC_GET_FILE_INFO;
constexpr unsigned FLAG = SIS_IOC_COINCIDE_FLAG;
constexpr uint32_t COMPRESSED = FS_COMPR_FL;
constexpr sis_file_info LAYERED = {0, 1, {}, 0xfffffffe};
constexpr sis_file_info DEDUPED = {1, 1, {}, 77};
constexpr sis_file_info DEDUPED_ONLY = {1, 0, {}, 77};

ptrdiff_t open_descriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

// A tree, which is the working directory, the file system under command, and the log. A temporary
// file must stay open to the last request, and in the end no descriptor may be left open.
struct world {
  const ptrdiff_t descriptors_before = open_descriptors();
  const fs::path directory_before = fs::current_path();
  const temporary_tree tree{"a=same b=same d/c=same"};
  const captured_log log;
  scripted_fs file_system;
  std::function<void()> while_flag_is_set = [] {};
  int fd_of_a = open(tree.path("a").c_str(), O_RDONLY);
  int temporary_fd = -1;
  struct stat temporary = {};

  world() {
    fs::current_path(tree.root());
    file_system.before_each([this](unsigned code, int fd) {
      temporary_fd = code == SIS_IOC_CLONE_FILE ? fd : temporary_fd;
      EXPECT_TRUE(temporary_fd < 0 || fstat(temporary_fd, &temporary) == 0) << code;
      code == FLAG ? while_flag_is_set() : void();
    });
  }
  ~world() {
    close(fd_of_a);
    fs::current_path(directory_before);
    EXPECT_EQ(open_descriptors(), descriptors_before);
  }

  texts requests() const { return file_system.texts(tree.root()); }

  // The log with paths shown below the tree's root, "ino:a" for the inode number of file a and
  // "ino:other" for that of a file without a name.
  texts lines() const {
    texts lines = log.messages();
    for (std::string &line : lines) {
      line = std::regex_replace(line, std::regex("/[^ ]*velmarin\\.\\w{6}/?"), "");
      for (const std::string name : {"a", "b", "d/c", "copy"}) {
        const std::string ino =
            fs::exists(name) ? std::to_string(tree.status(name).st_ino) : "none";
        line = std::regex_replace(line, std::regex("(ino:|\\()" + ino + "\\b"), "$1" + name);
      }
      line = std::regex_replace(line, std::regex("ino:[0-9]+,"), "ino:other,");
    }
    return lines;
  }
};

using call = std::function<int(world &)>;

// The call when the file system answers the next request of a code with a record.
template <typename Record>
call answered(unsigned code, const Record &record, const call &then) {
  return [=](world &w) {
    w.file_system.answer_with(code, record);
    return then(w);
  };
}

// What becomes of a call when the n-th request is refused with EIO, which is the last one then: how
// many of its lines are left, the result, and the line of the failure.
struct failure {
  ptrdiff_t nth;
  ptrdiff_t lines;
  int result;
  std::string line;
};

// What is given of the requests, lines and result is that of the call when nothing is refused.
void expect(const call &operation, int result, const texts &requests, const texts &lines = {},
            std::vector<failure> failures = {}) {
  failures.push_back({std::ssize(requests) + 1, std::ssize(lines), result, ""});
  for (const auto &[nth, lines_left, expected_result, line] : failures) {
    SCOPED_TRACE(line);
    world w;
    w.file_system.fail(static_cast<size_t>(nth), EIO);
    EXPECT_EQ(operation(w), expected_result);
    EXPECT_EQ(w.requests(),
              texts(requests.begin(), std::min(requests.begin() + nth, requests.end())));
    texts expected_lines(lines.begin(), lines.begin() + lines_left);
    expected_lines.resize(expected_lines.size() + !line.empty(), line);
    EXPECT_EQ(w.lines(), expected_lines);
  }
}

char a[] = "a", b[] = "b", c[] = "d/c";
char *group[] = {a, b, c};

const std::string CREATED = "INFO created layered inode[ino:other,size:0] for a[ino:a,size:4]";
const std::string DONE_B = "INFO done deduplication for b[ino:b,size:4]";
const std::string DONE_C = "INFO done deduplication for d/c[ino:d/c,size:4]";
const std::string CLONE_A = "CLONE_FILE (unnamed) rw src=a flags=96";
const std::string CONNECT_A = "CONNECT a rw layer=(unnamed)";
const std::string QUERY_A = "GET_FILE_INFO a rw zeroed";
const std::string SET_A = "COINCIDE_FLAG a rw flags=2 op=4";

TEST(GroupDedup, SharesOneLayerMadeFromTheFirstMemberWithAllThatCan) {
  expect([](world &) { return sis_them_all(group, 3); }, 0,
         {CLONE_A, CONNECT_A, "DEDUP_FILE b rw src=a mode=0", "DEDUP_FILE d/c rw src=a mode=0"},
         {"INFO creating temporary file under ", CREATED, DONE_B, DONE_C},
         {{1, 1, EIO, "ERRO fail to clone to temperory file returned Input/output error"},
          {2, 1, EIO, "ERRO fail to create layered inode returned Input/output error"},
          {4, 3, EIO, "ERRO fail to deduplicate d/c returned Input/output error"}});
  // A refused member does not stop it; the last error is returned.
  world w;
  w.file_system.fail(3, EXDEV);
  w.file_system.fail(7, EXDEV);
  w.file_system.fail(8, EPERM);
  EXPECT_EQ(sis_them_all(group, 3), EXDEV);
  EXPECT_EQ(w.lines().back(), DONE_C);
  EXPECT_EQ(sis_them_all(group, 3), EPERM);
  EXPECT_EQ(w.temporary.st_mode & 0777U, 0600U);
}

TEST(SingleFile, IsAttachedToANewLayerDedupedOrCopied) {
  const auto create = [](world &) {
    const int fd = create_layer("a");
    EXPECT_TRUE(fd < 0 || fs::equivalent("/proc/self/fd/" + std::to_string(fd), "a"));
    return fd < 0 ? fd : close(fd);
  };
  expect(create, 0, {CLONE_A, CONNECT_A}, {"INFO creating temporary file for a", CREATED},
         {{1, 1, -1, "INFO fail to clone to temperory file returned Input/output error"},
          {2, 1, -1, "INFO fail to create layered inode returned Input/output error"}});
  expect([](world &w) { return dedup_file("b", w.fd_of_a); }, 0, {"DEDUP_FILE b rw src=a mode=0"},
         {DONE_B}, {{1, 0, EIO, "INFO fail to deduplicate b returned Input/output error"}});
  expect([](world &) { return reflink_copy("a", "copy"); }, 0, {"DEDUP_FILE copy ro src=a mode=1"},
         {"INFO reflink copy[ino:copy,size:0] to a[ino:a,size:4]"},
         {{1, 0, EIO, "ERRO fail to do rapid copy from a to copy return Input/output error"}});
}

TEST(SingleFile, RevokeFileDetachesWhatIsAttached) {
  const call revoke = [](world &) { return revoke_file("a"); };
  const texts asked = {"GET_FILE_INFO a ro zeroed", "REVOKE a ro null"};
  expect(answered(QUERY, LAYERED, revoke), 0, asked,
         {"INFO revoke a[ino:a,size:4] from its layered inode[ino:-2]"},
         {{1, 0, EIO, "INFO fail to query a return Input/output error"},
          {2, 0, EIO, "ERRO fail to revoke a return Input/output error"}});
  expect(answered(QUERY, DEDUPED_ONLY, revoke), 0, asked,
         {"INFO revoke a[ino:a,size:4] from its deduped inode[ino:77]"});
  expect(revoke, 1, {asked[0]}, {"INFO a[ino:a,size:4] is not deduped inode nor layered inode"});
}

TEST(BadPath, IsAnsweredAndNamedInTheFormOfTheCall) {
  const world w;
  EXPECT_EQ(create_layer("x"), -1);
  EXPECT_EQ(reflink_copy("a", "b"), EEXIST);
  EXPECT_EQ(sis_them_all(group, 0), EINVAL);
  EXPECT_EQ(sisFileTaskImpl("a", "b"), -1);
  EXPECT_EQ(sisFileTaskImpl("./x", "b"), -1);
  EXPECT_EQ(sisFileTaskImpl("./a", "x"), -1);
  EXPECT_EQ(getSISFileInfoImpl("d"), -1);
  EXPECT_EQ(recoverFileImpl("d"), -1);
  EXPECT_EQ(recoverFileImpl("a/x"), -ENOTDIR);
  EXPECT_EQ(getCoincideFlagImpl("a/x"), -ENOTDIR);
  EXPECT_EQ(setCheckFlagImpl("a/x", 0, 0), -1);
  EXPECT_EQ(setCheckFlagImpl(nullptr, 0, 0), -1);
  EXPECT_EQ(
      w.lines(),
      (texts{"INFO fail to open x returned No such file or directory",
             "ERRO fail to open b return File exists",
             "ERRO fail to deduplicate a group of 0 files returned Invalid argument",
             "SERVICE file1 a invalid \n", "SERVICE open file1:./x failed !\n",
             "SERVICE open file2:x failed !\n", "SERVICE open file:d failed !\n",
             "SERVICE recover file d, open FAIL \n",
             "SERVICE Failed to realpath a/x returned -20\n",
             "SERVICE Failed to realpath a/x returned -20\n",
             "SERVICE Failed to realpath a/x returned -1\n", "SERVICE input file is NULL \n"}));
}

TEST(StatusProbe, CheckFileStatusAsksForCompressionFirst) {
  const call check = [](world &w) { return check_file_status(w.fd_of_a, nullptr, "a"); };
  const texts requests = {"GETFLAGS a ro zeroed", "GET_FILE_INFO a ro zeroed"};
  expect(answered(GETFLAGS, COMPRESSED, check), SIS_STATUS_COMPRESSED, {requests[0]});
  expect(answered(QUERY, DEDUPED_ONLY, check), SIS_STATUS_PLAIN, requests);
  expect(answered(QUERY, LAYERED, check), SIS_STATUS_LAYERED, requests);
  const call check_deduped = answered(QUERY, DEDUPED, check);
  expect(answered(GETFLAGS, ~COMPRESSED, check_deduped), SIS_STATUS_DEDUPED, requests, {},
         {{1, 0, -EIO, "INFO cannot determine whether a is compressed, errno = 5"},
          {2, 0, -EIO, "INFO cannot determine whether a is dedupped, errno = 5"}});
}

TEST(CoincideFlag, IsSetAndReadAsAsked) {
  const call freeze = [](world &w) { return freeze_file(w.fd_of_a, "a"); };
  const call check = [](world &w) { return check_frozen(w.fd_of_a, "a"); };
  const call read = [](world &) { return getCoincideFlagImpl("a"); };
  const texts get = {"COINCIDE_FLAG a ro flags=0 op=8"};
  expect(freeze, 0, {"COINCIDE_FLAG a ro flags=2 op=4"}, {}, {{1, 0, EIO, ""}});
  expect(answered(FLAG, sis_coincide_arg{3, 0}, check), 0, get, {}, {{1, 0, -EIO, ""}});
  expect(answered(FLAG, sis_coincide_arg{~SIS_FLAG_COINCIDE, 0}, check), -1, get,
         {"INFO a is not frozen any longer"});
  expect(answered(FLAG, sis_coincide_arg{0x12, 0}, read), 0x12, {"COINCIDE_FLAG a rw flags=2 op=8"},
         {}, {{1, 0, -EIO, "SERVICE ioctl get a coincide flag failed! ret = -1, errno = 5\n"}});
}

int filter(mode_t type, off_t size) {
  struct stat status = {};
  status.st_mode = type | 0644U;
  status.st_size = size;
  status.st_blocks = 8;
  return filter_out_nonsis(STDIN_FILENO, &status, "a");
}

TEST(StatusProbe, FilterCountsShrunkenFilesAndFindsUnfitFileSystems) {
  world w;
  w.file_system.fail(2, EIO);
  w.file_system.fail(3, EOPNOTSUPP);
  EXPECT_EQ(filter(S_IFDIR, 8192), 0);
  EXPECT_EQ(filter(S_IFREG, 4096), 0);
  EXPECT_EQ(filter(S_IFREG, 4096), 0);
  EXPECT_EQ(filter(S_IFREG, 4096), -EOPNOTSUPP);
  EXPECT_EQ(w.file_system.count(QUERY), w.requests().size());
  get_sis_file_statistics(nullptr, nullptr, nullptr, nullptr);
  for (const sis_file_info &info : {sis_file_info{}, LAYERED, DEDUPED, DEDUPED}) {
    w.file_system.answer_with(QUERY, info);
    EXPECT_EQ(filter(S_IFREG, 8193), info.layered + info.deduped);
  }
  w.file_system.answer_with(GETFLAGS, COMPRESSED);
  EXPECT_EQ(filter(S_IFREG, 8192), SIS_STATUS_COMPRESSED);
  uint64_t n[4] = {};
  get_sis_file_statistics(&n[0], &n[1], &n[2], &n[3]);
  EXPECT_TRUE(n[0] == 1 && n[1] == 2 && n[2] == 4096 && n[3] == 16384);
  get_sis_file_statistics(&n[0], &n[1], &n[2], &n[3]);
  EXPECT_EQ(n[0] + n[1] + n[2] + n[3], 0U);
}

TEST(FileDedupRequest, SharesDataAndGivesItBack) {
  expect([](world &) { return sisFileTaskImpl("d/c", "a"); }, 0,
         {"GET_FILE_INFO d/c rw zeroed", "CLONE_FILE d/(unnamed) rw src=d/c flags=96",
          "CONNECT d/c rw layer=d/(unnamed)", "DEDUP_FILE a rw src=d/c mode=1"},
         {},
         {{1, 0, EIO, "SERVICE ioctl get file info failed! ret = -1, errno = 5\n"},
          {2, 0, EIO, "SERVICE ioctl clone file failed! ret = -1, errno = 5\n"},
          {3, 0, EIO, "SERVICE ioctl connect failed! ret = -1, errno = 5\n"}});
  // A file that is attached already is only shared; a refusal leads to one more query.
  world w;
  w.file_system.answer_with(QUERY, LAYERED);
  w.file_system.fail(2, EXDEV);
  EXPECT_EQ(sisFileTaskImpl("./a", "b"), EXDEV);
  EXPECT_EQ(w.requests(), (texts{QUERY_A, "DEDUP_FILE b rw src=a mode=1", QUERY_A}));
  EXPECT_EQ(w.lines(), texts{"SERVICE ioctl dedup file failed! ret = -1, errno = 18\n"});

  const call recover = [](world &) { return recoverFileImpl("d/../a"); };
  const texts requests = {"REVOKE a rw fd=a", QUERY_A};
  expect(
      answered(QUERY, sis_file_info{1, 5, {}, 0}, recover), 5, requests, {},
      {{1, 0, -EIO, ""}, {2, 0, -1, "SERVICE ioctl get file info failed! ret = -1, errno = 5\n"}});
  expect(answered(QUERY, LAYERED, recover), -2, requests,
         {"SERVICE get file info, this file NOT recover!!! \n"});
}

// `moved` happens while the flag is being set.
call set_flag_while(void (*moved)(const world &), long seconds = 1000, long nanoseconds = 5) {
  return [=](world &w) {
    w.tree.set_mtime("a", 1000, 5);
    w.while_flag_is_set = [&w, moved] { moved(w); };
    return setCheckFlagImpl("a", seconds, nanoseconds);
  };
}

TEST(CoincideFlag, IsLeftOnlyOnAPlainFileThatStaysAsItWas) {
  const auto nothing = [](const world &) {};
  expect(set_flag_while(nothing), 0, {QUERY_A, SET_A}, {},
         {{1, 0, -1, "SERVICE ioctl get a(a) file info failed! ret = -1, errno = 5\n"},
          {2, 0, -EIO, "SERVICE ioctl set a(a) coincide flag failed! ret = -1, errno = 5\n"}});
  expect(answered(QUERY, LAYERED, set_flag_while(nothing)), 1, {QUERY_A});
  expect(set_flag_while([](const world &w) { w.tree.set_mtime("a", 1000, 6); }), -1,
         {QUERY_A, SET_A, "COINCIDE_FLAG a rw flags=2 op=16"}, {},
         {{3, 0, -EIO, "SERVICE ioctl clear a(a) coincide flag failed! ret = -1, errno = 5\n"}});
  expect(set_flag_while([](const world &) { unlink("a"); }), -1, {QUERY_A, SET_A},
         {"SERVICE 2nd lstat Error a \n"});
  expect(set_flag_while(nothing, 1000, 6), -1, {});
  expect(set_flag_while(nothing, 1001, 5), -1, {});
}

}  // namespace
