// The operations on single files and groups, the status probes and the service entry points,
// against the built library. A row holds everything observable about a call: its result, its
// requests with their arguments and its log lines, in order, and how all that changes when a
// request is refused. No call leaks a descriptor.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
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

// A tree and the scripted file system. A temporary file must stay open until the last request.
struct world : working_tree {
  scripted_fs file_system;
  std::function<void()> while_flag_is_set = [] {};
  int fd_of_a = open("a", O_RDONLY);
  int temporary_fd = -1;
  std::vector<size_t> lines_before;  // each request
  const std::string inodes[3] = {inode_of("a"), inode_of("b"), inode_of("d/c")};
  const std::ptrdiff_t descriptors = count_in("/proc/self/fd");

  world() : working_tree("a=same b=same d/c=same") {
    umask(0);
    file_system.before_each = [this](unsigned code, int fd) {
      temporary_fd = code == SIS_IOC_CLONE_FILE ? fd : temporary_fd;
      EXPECT_TRUE(temporary_fd < 0 || fcntl(temporary_fd, F_GETFD) >= 0) << code;
      lines_before.push_back(log.messages().size());
      code == FLAG ? while_flag_is_set() : void();
    };
  }
  ~world() { close(fd_of_a); }

  std::string inode_of(const char *name) const { return std::to_string(status(name).st_ino); }

  // A line with file names in place of inode numbers.
  std::string readable(std::string line) const {
    const char *const known[] = {"a", "b", "c"};
    for (size_t i = 0; i < 3; i++) {
      line = std::regex_replace(line, std::regex("(\\[ino:|\\()" + inodes[i] + "(?=,|\\))"),
                                std::string("$1") + known[i]);
    }
    line = std::regex_replace(line, std::regex(R"(\[ino:\d{3,},)"), "[ino:new,");
    return std::regex_replace(line, std::regex(root()), "ROOT");
  }

  // The requests and lines so far, in order.
  texts trace() const {
    texts all;
    const texts lines = log.messages();
    for (size_t line = 0, request = 0; line < lines.size() || request < lines_before.size();) {
      const bool is_line = request == lines_before.size() || line < lines_before[request];
      all.push_back(is_line ? readable(lines[line++]) : file_system.texts[request++]);
    }
    return all;
  }
};

using call = std::function<int(world &)>;

// The call when the file system answers the requests of a code with a record.
template <typename Record>
call answered(unsigned code, const Record &record, const call &then) {
  return [=](world &w) {
    w.file_system.answer_with(code, record);
    return then(w);
  };
}

// A request or a line. For a request, also the errno with which it is refused (by default EIO), the
// result of the call then, and what follows.
struct step {
  std::string what;
  std::optional<int> refused = {};
  texts then = {};
  int error = EIO;
};

// The result of the call and all its steps.
void expect(const call &operation, int result, const std::vector<step> &steps) {
  for (size_t chosen = 0; chosen <= steps.size(); chosen++) {
    const bool is_refusal = chosen < steps.size();
    if (is_refusal && !steps[chosen].refused) {
      continue;
    }
    world w;
    texts trace;
    size_t requests = 0;
    for (size_t i = 0; i < steps.size() && i <= chosen; i++) {
      trace.push_back(steps[i].what);
      requests += std::regex_search(steps[i].what, std::regex("^(INFO|ERRO|SERVICE) ")) ? 0U : 1U;
    }
    if (is_refusal) {
      w.file_system.failures[requests] = steps[chosen].error;
      trace.insert(trace.end(), steps[chosen].then.begin(), steps[chosen].then.end());
    }
    EXPECT_EQ(operation(w), is_refusal ? *steps[chosen].refused : result);
    EXPECT_EQ(w.trace(), trace);
    EXPECT_EQ(count_in("/proc/self/fd"), w.descriptors);
  }
}

const std::string FAILED = " returned Input/output error";
const std::string GONE = " No such file or directory";
const std::string LAYER_LINE = "INFO created layered inode[ino:new,size:0] for a[ino:a,size:4]";
const std::string QUERY_A = "GET_FILE_INFO a ro 0 0";
const std::string QUERY_RW = "GET_FILE_INFO a rw 0 0";

// The steps that make a layered inode from `a`, with failure lines of the given kind.
step clone_step(int refused, const std::string &kind) {
  return {
      "CLONE_FILE [600] rw a 96", refused, {kind + " fail to clone to temperory file" + FAILED}};
}
step connect_step(int refused, const std::string &kind) {
  return {"CONNECT a rw [600] 0", refused, {kind + " fail to create layered inode" + FAILED}};
}

TEST(GroupDedup, SharesALayerMadeFromTheFirstMemberAndContinuesAfterARefusal) {
  static char a[] = "a", b[] = "b", c[] = "d/c", gone[] = "gone";
  static char *group[] = {a, b, c};
  static char *broken[] = {a, gone, b};
  const step under = {"INFO creating temporary file under ROOT"};
  const step clone = clone_step(EIO, "ERRO");
  const step connect = connect_step(EIO, "ERRO");
  const texts shared_c = {"DEDUP_FILE d/c rw a 0", "INFO done deduplication for d/c[ino:c,size:4]"};
  const texts after_b = {"ERRO fail to deduplicate b returned Invalid cross-device link",
                         shared_c[0], shared_c[1]};
  expect([](world &) { return sis_them_all(group, 3); }, 0,
         {under,
          clone,
          connect,
          {LAYER_LINE},
          {"DEDUP_FILE b rw a 0", EXDEV, after_b, EXDEV},
          {"INFO done deduplication for b[ino:b,size:4]"},
          {shared_c[0], EIO, {"ERRO fail to deduplicate d/c" + FAILED}},
          {shared_c[1]}});
  expect([](world &) { return sis_them_all(group, 1); }, 0, {under, clone, connect, {LAYER_LINE}});
  expect([](world &) { return sis_them_all(broken, 3); }, ENOENT,
         {{"ERRO fail to open gone returned" + GONE}});
  expect([](world &) { return sis_them_all(group, 0); }, EINVAL,
         {{"ERRO fail to deduplicate a group of 0 files returned Invalid argument"}});
  world w;  // the result is the error of the last refused member
  w.file_system.failures = {{3, EXDEV}, {4, EPERM}};
  EXPECT_EQ(sis_them_all(group, 3), EPERM);
}

TEST(SingleFile, IsAttachedToANewLayerDedupedCopiedOrDetached) {
  const auto create = [](const char *path) {
    return [path](world &) {
      const int fd = create_layer(path);
      EXPECT_TRUE(fd < 0 || fs::equivalent("/proc/self/fd/" + std::to_string(fd), path));
      return fd < 0 ? fd : close(fd);
    };
  };
  expect(create("a"), 0,
         {{"INFO creating temporary file for a"},
          clone_step(-1, "INFO"),
          connect_step(-1, "INFO"),
          {LAYER_LINE}});
  expect(create("gone"), -1, {{"INFO fail to open gone returned" + GONE}});
  expect([](world &w) { return dedup_file("b", w.fd_of_a); }, 0,
         {{"DEDUP_FILE b rw a 0", EIO, {"INFO fail to deduplicate b" + FAILED}},
          {"INFO done deduplication for b[ino:b,size:4]"}});
  expect([](world &w) { return dedup_file("gone", w.fd_of_a); }, ENOENT,
         {{"INFO fail to open gone returned" + GONE}});
  const auto copy = [](const char *from, const char *to) {
    return [=](world &w) {
      const int result = reflink_copy(from, to);
      EXPECT_TRUE(result != 0 || (w.status(to).st_mode & 0777) == 0644);
      return result;
    };
  };
  expect(copy("a", "copy"), 0,
         {{"DEDUP_FILE copy ro a 1",
           EIO,
           {"ERRO fail to do rapid copy from a to copy return Input/output error"}},
          {"INFO reflink copy[ino:new,size:0] to a[ino:a,size:4]"}});
  expect(copy("gone", "copy"), ENOENT, {{"ERRO fail to open gone return" + GONE}});
  expect(copy("a", "b"), EEXIST, {{"ERRO fail to open b return File exists"}});
}

TEST(SingleFile, GetsItsOwnDataBackUnlessItIsPlain) {
  const call revoke = [](world &) { return revoke_file("a"); };
  const auto steps = [](const std::string &detached) {
    return std::vector<step>{
        {QUERY_A, EIO, {"INFO fail to query a return Input/output error"}},
        {"REVOKE a ro null", EIO, {"ERRO fail to revoke a return Input/output error"}},
        {"INFO revoke a[ino:a,size:4] from its " + detached}};
  };
  expect(answered(QUERY, LAYERED, revoke), 0, steps("layered inode[ino:-2]"));
  expect(answered(QUERY, DEDUPED, revoke), 0, steps("deduped inode[ino:77]"));
  expect(answered(QUERY, DEDUPED_ONLY, revoke), 0, steps("deduped inode[ino:77]"));
  expect(revoke, 1, {{QUERY_A}, {"INFO a[ino:a,size:4] is not deduped inode nor layered inode"}});
  expect([](world &) { return revoke_file("gone"); }, ENOENT,
         {{"INFO fail to open gone return" + GONE}});
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
  const call check = [](world &w) { return check_file_status(w.fd_of_a, nullptr, "a"); };
  const auto flags = [](const char *told) {
    return step{"GETFLAGS a ro 0 0", -EIO, {std::string(told) + "compressed, errno = 5"}};
  };
  const char *unknown = "INFO cannot determine whether a is ";
  const std::vector<step> both = {flags(unknown),
                                  {QUERY_A, -EIO, {std::string(unknown) + "dedupped, errno = 5"}}};
  expect(answered(GETFLAGS, COMPRESSED, check), SIS_STATUS_COMPRESSED, {flags(unknown)});
  expect(answered(QUERY, DEDUPED_ONLY, check), SIS_STATUS_PLAIN, both);
  expect(answered(QUERY, LAYERED, check), SIS_STATUS_LAYERED, both);
  expect(answered(QUERY, DEDUPED, answered(GETFLAGS, ~COMPRESSED, check)), SIS_STATUS_DEDUPED,
         both);
}

// The line that a service entry point logs for a refused request.
std::string refusal(const std::string &request) {
  return "SERVICE ioctl " + request + " failed! ret = -1, errno = 5\n";
}

TEST(FileDedupRequest, SharesData) {
  const step query = {QUERY_RW, EIO, {refusal("get file info")}};
  const step share = {"DEDUP_FILE b rw a 1", EIO, {refusal("dedup file"), QUERY_RW}};
  const call of_two = [](world &) { return sisFileTaskImpl("./a", "b"); };
  const std::vector<step> with_layer = {query,
                                        {"CLONE_FILE [777] rw a 96", EIO, {refusal("clone file")}},
                                        {"CONNECT a rw [777] 0", EIO, {refusal("connect")}},
                                        share};
  expect(of_two, 0, with_layer);
  expect(answered(QUERY, DEDUPED_ONLY, of_two), 0, with_layer);
  expect(answered(QUERY, LAYERED, of_two), 0, {query, share});
  const auto fail = [](const char *file1, const char *file2, const std::string &line) {
    expect([=](world &) { return sisFileTaskImpl(file1, file2); }, -1, {{"SERVICE " + line}});
  };
  fail("a", "b", "file1 a invalid \n");
  fail("d/gone", "b", "open file1:d/gone failed !\n");
  fail("./a", "gone", "open file2:gone failed !\n");
}

TEST(FileDedupRequest, GivesDataBackAndReportsTheStateOfAFile) {
  const auto recover = [](const char *path) {
    return [path](world &) { return recoverFileImpl(path); };
  };
  const step revoke = {"REVOKE a rw a 0", -EIO};
  const step query = {QUERY_RW, -1, {refusal("get file info")}};
  expect(answered(QUERY, sis_file_info{1, 5, {}, 0}, recover("d/../a")), 5, {revoke, query});
  expect(answered(QUERY, LAYERED, recover("a")), -2,
         {revoke, query, {"SERVICE get file info, this file NOT recover!!! \n"}});
  expect(recover("d"), -1, {{"SERVICE recover file ROOT/d, open FAIL \n"}});
  expect(recover("d/gone"), -ENOENT, {{"SERVICE Failed to realpath d/gone returned -2\n"}});
  const auto ask = [](const char *path) {
    return [path](world &) { return getSISFileInfoImpl(path); };
  };
  expect(answered(QUERY, DEDUPED, ask("a")), 1, {query});
  expect(ask("d"), -1, {{"SERVICE open file:ROOT/d failed !\n"}});
  expect(ask("gone"), -1, {{"SERVICE Failed to realpath gone returned -1\n"}});
}

TEST(CoincideFlag, IsSetAndReadAsRequested) {
  const call freeze = [](world &w) { return freeze_file(w.fd_of_a, "a"); };
  const call check = [](world &w) { return check_frozen(w.fd_of_a, "a"); };
  const auto read = [](const char *path) {
    return [path](world &) { return getCoincideFlagImpl(path); };
  };
  const step get = {"COINCIDE_FLAG a ro 0 8", -EIO};
  expect(freeze, 0, {{"COINCIDE_FLAG a ro 2 4", EIO}});
  expect(answered(FLAG, sis_coincide_arg{3, 0}, check), 0, {get});
  expect(answered(FLAG, sis_coincide_arg{~SIS_FLAG_COINCIDE, 0}, check), -1,
         {get, {"INFO a is not frozen any longer"}});
  expect(answered(FLAG, sis_coincide_arg{0x12, 0}, read("a")), 0x12,
         {{"COINCIDE_FLAG a rw 2 8", -EIO, {refusal("get ROOT/a coincide flag")}}});
  expect(read(nullptr), -1, {{"SERVICE input file is NULL \n"}});
  expect(read("gone"), -ENOENT, {{"SERVICE Failed to realpath gone returned -2\n"}});
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
  const step query = {QUERY_RW, -1, {refusal("get ROOT/a(a) file info")}};
  const step set = {"COINCIDE_FLAG a rw 2 4", -EIO, {refusal("set ROOT/a(a) coincide flag")}};
  const step clear = {"COINCIDE_FLAG a rw 2 16", -EIO, {refusal("clear ROOT/a(a) coincide flag")}};
  expect(set_flag_while(nothing), 0, {query, set});
  expect(set_flag_while(touch), -1, {query, set, clear});
  expect(set_flag_while([](const world &) { unlink("a"); }), -1,
         {query, {set.what}, {"SERVICE 2nd lstat Error ROOT/a \n"}});
  expect(answered(QUERY, LAYERED, set_flag_while(nothing)), 1, {query});
  expect(set_flag_while(nothing, 1000, 6), -1, {});
  expect(set_flag_while(nothing, 1001, 5), -1, {});
  expect([](world &) { return setCheckFlagImpl(nullptr, 0, 0); }, -1,
         {{"SERVICE input file is NULL \n"}});
  expect([](world &) { return setCheckFlagImpl("gone", 0, 0); }, -1,
         {{"SERVICE Failed to realpath gone returned -1\n"}});
  world w;
  w.file_system.failures[3] = EIO;
  EXPECT_EQ(set_flag_while(touch)(w), -EIO);
  EXPECT_EQ(w.log.formats(),
            texts{"SERVICE ioctl clear %s(%lu) coincide flag failed! ret = %d, errno = %d\n"});
}

}  // namespace
