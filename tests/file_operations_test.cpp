// The operations on single files and groups, the status probes and the service entry points,
// against the built library. A row holds everything observable about a call: its requests with
// their arguments and its log lines, in order, its result, and how all that changes when a request
// is refused. No call leaks a descriptor.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "support/scripted_fs.h"
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

constexpr int FD_OF_A = 100;  // open for reading

// A tree and the scripted file system. A temporary file must stay open until the last request.
struct world : working_tree {
  scripted_fs file_system;
  std::function<void()> while_flag_is_set = [] {};
  int temporary_fd = -1;
  texts steps;
  size_t lines = 0;  // among the steps
  const std::map<std::string, std::string> names = {
      {inode_of("a"), "a"}, {inode_of("b"), "b"}, {inode_of("d/c"), "c"}};
  std::ptrdiff_t descriptors = 0;

  world() : working_tree("a=same b=same d/c=same") {
    umask(0);
    const int fd = open("a", O_RDONLY);
    dup2(fd, FD_OF_A);
    close(fd);
    descriptors = count_in("/proc/self/fd");
    file_system.before_each = [this](unsigned code, int to) {
      temporary_fd = code == SIS_IOC_CLONE_FILE ? to : temporary_fd;
      EXPECT_TRUE(temporary_fd < 0 || fcntl(temporary_fd, F_GETFD) >= 0) << code;
      trace().push_back(file_system.texts.back());
      code == FLAG ? while_flag_is_set() : void();
    };
  }
  ~world() { close(FD_OF_A); }

  std::string inode_of(const char *name) const { return std::to_string(status(name).st_ino); }

  // A line with file names in place of inode numbers, and on one line.
  std::string readable(std::string line) const {
    for (const auto &[inode, name] : names) {
      line =
          std::regex_replace(line, std::regex("(\\[ino:|\\()" + inode + "(?=,|\\))"), "$1" + name);
    }
    for (const auto &[from, to] :
         {std::pair<std::string, const char *>(R"(\[ino:\d{3,},)", "[ino:new,"),
          {root(), "ROOT"},
          {"Input/output error", "EIO"},
          {"No such file or directory", "ENOENT"},
          {"\n", "\\n"}}) {
      line = std::regex_replace(line, std::regex(from), to);
    }
    return line;
  }

  // The requests and lines so far, in order.
  texts &trace() {
    for (const texts all = log.messages(); lines < all.size(); lines++) {
      steps.push_back(readable(all[lines]));
    }
    return steps;
  }
};

using call = std::function<int(world &)>;

template <typename... Arguments>
call calling(int (*function)(Arguments...), std::type_identity_t<Arguments>... arguments) {
  return [=](world &) { return function(arguments...); };
}

// The call when the file system answers the requests of a code with a record.
template <typename Record>
call answered(unsigned code, const Record &record, const call &then) {
  return [=](world &w) {
    w.file_system.answer_with(code, record);
    return then(w);
  };
}

// The result of the call, and its requests and lines. The n-th request is refused.
std::pair<int, texts> outcome_of(const call &operation, size_t refused) {
  world w;
  w.file_system.failures[refused] = EIO;
  const int result = operation(w);
  EXPECT_EQ(count_in("/proc/self/fd"), w.descriptors);
  return {result, w.trace()};
}

// Each request and line of the call, and its result. After a request: if it is refused, the result
// and what follows it then.
void expect(const call &operation, const std::string &expected) {
  const auto [result, steps] = outcome_of(operation, 0);
  std::string outcomes;
  size_t requests = 0;
  for (size_t i = 0; i < steps.size(); i++) {
    outcomes += (steps.size() > 1 ? "\n" : "") + steps[i];
    if (!std::regex_search(steps[i], std::regex("^(INFO|ERRO|SERVICE) "))) {
      const auto [refused, others] = outcome_of(operation, ++requests);
      outcomes += " -> " + std::to_string(refused);
      for (size_t other = i + 1; other < others.size(); other++) {
        outcomes += (others.size() > i + 2 ? "\n    " : "; ") + others[other];
      }
    }
  }
  EXPECT_EQ(outcomes + " = " + std::to_string(result), expected);
}

TEST(GroupDedup, SharesALayerMadeFromTheFirstMemberAndContinuesAfterARefusal) {
  static char a[] = "a", b[] = "b", c[] = "d/c", gone[] = "gone";
  static char *group[] = {a, b, c};
  static char *broken[] = {a, gone, b};
  const std::string layer = R"(
INFO creating temporary file under ROOT
CLONE_FILE [600] rw a 96 -> 5; ERRO fail to clone to temperory file returned EIO
CONNECT a rw [600] 0 -> 5; ERRO fail to create layered inode returned EIO
INFO created layered inode[ino:new,size:0] for a[ino:a,size:4])";
  expect(calling(sis_them_all, group, 3), layer + R"(
DEDUP_FILE b rw a 0 -> 5
    ERRO fail to deduplicate b returned EIO
    DEDUP_FILE d/c rw a 0
    INFO done deduplication for d/c[ino:c,size:4]
INFO done deduplication for b[ino:b,size:4]
DEDUP_FILE d/c rw a 0 -> 5; ERRO fail to deduplicate d/c returned EIO
INFO done deduplication for d/c[ino:c,size:4] = 0)");
  expect(calling(sis_them_all, group, 1), layer + " = 0");
  expect(calling(sis_them_all, broken, 3), "ERRO fail to open gone returned ENOENT = 2");
  expect(calling(sis_them_all, group, 0),
         "ERRO fail to deduplicate a group of 0 files returned Invalid argument = 22");
  world w;  // the result is the error of the last refused member
  w.file_system.failures = {{3, EXDEV}, {4, EPERM}};
  EXPECT_EQ(sis_them_all(group, 3), EPERM);
}

TEST(SingleFile, IsAttachedToANewLayerDedupedCopiedOrDetached) {
  const auto create = [](world &) {
    const int fd = create_layer("a");
    EXPECT_TRUE(fd < 0 || fs::equivalent("/proc/self/fd/" + std::to_string(fd), "a"));
    return fd < 0 ? fd : close(fd);
  };
  const auto copy = [](world &w) {
    const int result = reflink_copy("a", "copy");
    EXPECT_EQ(w.status("copy").st_mode & 0777, 0644U);
    return result;
  };
  expect(create, R"(
INFO creating temporary file for a
CLONE_FILE [600] rw a 96 -> -1; INFO fail to clone to temperory file returned EIO
CONNECT a rw [600] 0 -> -1; INFO fail to create layered inode returned EIO
INFO created layered inode[ino:new,size:0] for a[ino:a,size:4] = 0)");
  expect(calling(create_layer, "gone"), "INFO fail to open gone returned ENOENT = -1");
  expect(calling(dedup_file, "b", FD_OF_A), R"(
DEDUP_FILE b rw a 0 -> 5; INFO fail to deduplicate b returned EIO
INFO done deduplication for b[ino:b,size:4] = 0)");
  expect(calling(dedup_file, "gone", FD_OF_A), "INFO fail to open gone returned ENOENT = 2");
  expect(copy, R"(
DEDUP_FILE copy ro a 1 -> 5; ERRO fail to do rapid copy from a to copy return EIO
INFO reflink copy[ino:new,size:4] to a[ino:a,size:4] = 0)");
  expect(calling(reflink_copy, "gone", "copy"), "ERRO fail to open gone return ENOENT = 2");
  expect(calling(reflink_copy, "a", "b"), "ERRO fail to open b return File exists = 17");
}

TEST(SingleFile, GetsItsOwnDataBackUnlessItIsPlain) {
  const call revoke = calling(revoke_file, "a");
  const std::string revoked = R"(
GET_FILE_INFO a ro 0 0 -> 5; INFO fail to query a return EIO
REVOKE a ro null -> 5; ERRO fail to revoke a return EIO
INFO revoke a[ino:a,size:4] from its )";
  expect(answered(QUERY, LAYERED, revoke), revoked + "layered inode[ino:-2] = 0");
  expect(answered(QUERY, DEDUPED, revoke), revoked + "deduped inode[ino:77] = 0");
  expect(answered(QUERY, DEDUPED_ONLY, revoke), revoked + "deduped inode[ino:77] = 0");
  expect(revoke, R"(
GET_FILE_INFO a ro 0 0 -> 5; INFO fail to query a return EIO
INFO a[ino:a,size:4] is not deduped inode nor layered inode = 1)");
  expect(calling(revoke_file, "gone"), "INFO fail to open gone return ENOENT = 2");
}

int filter(off_t size, mode_t type = S_IFREG) {
  struct stat status = {};
  status.st_mode = type | 0644U;
  status.st_size = size;
  status.st_blocks = 8;
  return filter_out_nonsis(STDIN_FILENO, &status, "a");
}

TEST(StatusProbe, FilterCountsSavedSpaceAndReportsUnsuitableFileSystems) {
  world w;
  w.file_system.failures = {{2, EIO}, {3, EOPNOTSUPP}};
  for (const int expected : {0, 0, -EOPNOTSUPP}) {
    EXPECT_EQ(filter(8192, S_IFDIR), 0);
    EXPECT_EQ(filter(4096), expected);
  }
  EXPECT_EQ(w.file_system.texts.size(), 3U);
  for (const sis_file_info &info : {sis_file_info{}, LAYERED, DEDUPED, DEDUPED}) {
    w.file_system.answer_with(QUERY, info);
    EXPECT_EQ(filter(info.deduped != 0 ? 8193 : 4097), info.layered + info.deduped);
  }
  w.file_system.answer_with(GETFLAGS, COMPRESSED);
  EXPECT_EQ(filter(8192), SIS_STATUS_COMPRESSED);
  uint64_t n[4] = {};
  get_sis_file_statistics(&n[0], &n[1], &n[2], &n[3]);
  EXPECT_TRUE(n[0] == 1 && n[1] == 2 && n[2] == 4096 && n[3] == 16384);
  get_sis_file_statistics(&n[0], &n[1], &n[2], nullptr);
  EXPECT_EQ(n[0] + n[1] + n[2], 0U) << "reading resets them";
}

TEST(StatusProbe, ChecksCompressionFirst) {
  const call check = calling(check_file_status, FD_OF_A, nullptr, "a");
  const std::string unknown = " -> -5; INFO cannot determine whether a is ";
  const std::string flags = "GETFLAGS a ro 0 0" + unknown + "compressed, errno = 5";
  const std::string both =
      "\n" + flags + "\nGET_FILE_INFO a ro 0 0" + unknown + "dedupped, errno = 5";
  expect(answered(GETFLAGS, COMPRESSED, check), flags + " = 3");
  expect(answered(QUERY, DEDUPED_ONLY, check), both + " = 0");
  expect(answered(QUERY, LAYERED, check), both + " = 1");
  expect(answered(QUERY, DEDUPED, answered(GETFLAGS, ~COMPRESSED, check)), both + " = 2");
}

TEST(FileDedupRequest, SharesData) {
  const call of_two = calling(sisFileTaskImpl, "./a", "b");
  const std::string query = R"(
GET_FILE_INFO a rw 0 0 -> 5; SERVICE ioctl get file info failed! ret = -1, errno = 5\n)";
  const std::string layer = R"(
CLONE_FILE [777] rw a 96 -> 5; SERVICE ioctl clone file failed! ret = -1, errno = 5\n
CONNECT a rw [777] 0 -> 5; SERVICE ioctl connect failed! ret = -1, errno = 5\n)";
  const std::string share = R"(
DEDUP_FILE b rw a 1 -> 5
    SERVICE ioctl dedup file failed! ret = -1, errno = 5\n
    GET_FILE_INFO a rw 0 0 = 0)";
  expect(of_two, query + layer + share);
  expect(answered(QUERY, DEDUPED_ONLY, of_two), query + layer + share);
  expect(answered(QUERY, LAYERED, of_two), query + share);
  expect(calling(sisFileTaskImpl, "a", "b"), "SERVICE file1 a invalid \\n = -1");
  expect(calling(sisFileTaskImpl, "d/gone", "b"), "SERVICE open file1:d/gone failed !\\n = -1");
  expect(calling(sisFileTaskImpl, "./a", "gone"), "SERVICE open file2:gone failed !\\n = -1");
}

TEST(FileDedupRequest, GivesDataBackAndReportsTheStateOfAFile) {
  expect(answered(QUERY, sis_file_info{1, 5, {}, 0}, calling(recoverFileImpl, "d/../a")), R"(
REVOKE a rw a 0 -> -5
GET_FILE_INFO a rw 0 0 -> -1; SERVICE ioctl get file info failed! ret = -1, errno = 5\n = 5)");
  expect(answered(QUERY, LAYERED, calling(recoverFileImpl, "a")), R"(
REVOKE a rw a 0 -> -5
GET_FILE_INFO a rw 0 0 -> -1; SERVICE ioctl get file info failed! ret = -1, errno = 5\n
SERVICE get file info, this file NOT recover!!! \n = -2)");
  expect(calling(recoverFileImpl, "d"), "SERVICE recover file ROOT/d, open FAIL \\n = -1");
  expect(calling(recoverFileImpl, "d/gone"),
         "SERVICE Failed to realpath d/gone returned -2\\n = -2");
  expect(answered(QUERY, DEDUPED, calling(getSISFileInfoImpl, "a")),
         "GET_FILE_INFO a rw 0 0 -> -1; SERVICE ioctl get file info failed! ret = -1, errno = 5\\n "
         "= 1");
  expect(calling(getSISFileInfoImpl, "d"), "SERVICE open file:ROOT/d failed !\\n = -1");
  expect(calling(getSISFileInfoImpl, "gone"),
         "SERVICE Failed to realpath gone returned -1\\n = -1");
}

TEST(CoincideFlag, IsSetAndReadAsRequested) {
  expect(calling(freeze_file, FD_OF_A, "a"), "COINCIDE_FLAG a ro 2 4 -> 5 = 0");
  const call check = calling(check_frozen, FD_OF_A, "a");
  expect(answered(FLAG, sis_coincide_arg{3, 0}, check), "COINCIDE_FLAG a ro 0 8 -> -5 = 0");
  expect(answered(FLAG, sis_coincide_arg{~SIS_FLAG_COINCIDE, 0}, check), R"(
COINCIDE_FLAG a ro 0 8 -> -5
INFO a is not frozen any longer = -1)");
  expect(answered(FLAG, sis_coincide_arg{0x12, 0}, calling(getCoincideFlagImpl, "a")),
         "COINCIDE_FLAG a rw 2 8 -> -5; SERVICE ioctl get ROOT/a coincide flag failed! ret = -1, "
         "errno = 5\\n = 18");
  expect(calling(getCoincideFlagImpl, nullptr), "SERVICE input file is NULL \\n = -1");
  expect(calling(getCoincideFlagImpl, "gone"),
         "SERVICE Failed to realpath gone returned -2\\n = -2");
}

// `moved` runs while the flag is being set.
call set_flag_while(void (*moved)(const world &), long seconds = 1000, long nanoseconds = 5) {
  return [=](world &w) {
    w.set_mtime("a", 1000, 5);
    w.while_flag_is_set = [&w, moved] { moved(w); };
    return setCheckFlagImpl("a", seconds, nanoseconds);
  };
}

TEST(CoincideFlag, StaysOnlyOnAPlainFileThatDoesNotChange) {
  const auto nothing = [](const world &) {};
  const auto touch = [](const world &w) { w.set_mtime("a", 1000, 6); };
  const auto refusable = [](const std::string &request, const std::string &told) {
    return request + "; SERVICE ioctl " + told + " failed! ret = -1, errno = 5\\n";
  };
  const std::string query = refusable("GET_FILE_INFO a rw 0 0 -> -1", "get ROOT/a(a) file info");
  const std::string set = "\n" + query + "\n" +
                          refusable("COINCIDE_FLAG a rw 2 4 -> -5", "set ROOT/a(a) coincide flag");
  expect(set_flag_while(nothing), set + " = 0");
  expect(set_flag_while(touch),
         set + "\n" + refusable("COINCIDE_FLAG a rw 2 16 -> -5", "clear ROOT/a(a) coincide flag") +
             " = -1");
  expect(set_flag_while([](const world &) { unlink("a"); }),
         set + "\nSERVICE 2nd lstat Error ROOT/a \\n = -1");
  expect(answered(QUERY, LAYERED, set_flag_while(nothing)), query + " = 1");
  expect(set_flag_while(nothing, 1000, 6), " = -1");
  expect(set_flag_while(nothing, 1001, 5), " = -1");
  expect(calling(setCheckFlagImpl, nullptr, 0, 0), "SERVICE input file is NULL \\n = -1");
  expect(calling(setCheckFlagImpl, "gone", 0, 0),
         "SERVICE Failed to realpath gone returned -1\\n = -1");
}

}  // namespace
