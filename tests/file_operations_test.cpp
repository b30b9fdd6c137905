// The operations on single files and groups, the status probes and the service entry points,
// against the built library: exact requests and results, for success and for each request that is
// refused.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

// A tree, and the file system under command. A temporary file must stay open to the last request.
struct world : working_tree {
  scripted_fs file_system;
  std::function<void()> while_flag_is_set = [] {};
  int fd_of_a = open("a", O_RDONLY);
  int temporary_fd = -1;

  world() : working_tree("a=same b=same d/c=same") {
    umask(0);
    file_system.before_each = [this](unsigned code, int fd) {
      temporary_fd = code == SIS_IOC_CLONE_FILE ? fd : temporary_fd;
      EXPECT_TRUE(temporary_fd < 0 || fcntl(temporary_fd, F_GETFD) >= 0) << code;
      code == FLAG ? while_flag_is_set() : void();
    };
  }
  ~world() { close(fd_of_a); }
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

// The result and the requests of a call when nothing is refused, and its results when the first,
// the second and so on is refused with EIO, which is the last one then.
void expect(const call &operation, int result, const texts &requests,
            std::vector<int> results_of_refusal = {}) {
  results_of_refusal.insert(results_of_refusal.begin(), result);
  for (size_t nth = 0; nth < results_of_refusal.size(); nth++) {
    SCOPED_TRACE(nth);
    world w;
    w.file_system.failures[nth] = EIO;
    EXPECT_EQ(operation(w), results_of_refusal[nth]);
    const auto made = static_cast<ptrdiff_t>(nth == 0 ? requests.size() : nth);
    EXPECT_EQ(w.file_system.texts, texts(requests.begin(), requests.begin() + made));
  }
}

const std::string QUERY_A = "GET_FILE_INFO a ro 0 0";
const std::string CLONE_A = "CLONE_FILE [600] rw a 96";
const std::string CONNECT_A = "CONNECT a rw [600] 0";

TEST(GroupDedup, SharesOneLayerMadeFromTheFirstMemberWithAllThatCan) {
  static char a[] = "a", b[] = "b", c[] = "d/c";
  static char *group[] = {a, b, c};
  const texts requests = {CLONE_A, CONNECT_A, "DEDUP_FILE b rw a 0", "DEDUP_FILE d/c rw a 0"};
  expect([](world &) { return sis_them_all(group, 3); }, 0, requests, {EIO, EIO});
  expect([](world &) { return sis_them_all(group, 1); }, 0, {CLONE_A, CONNECT_A}, {EIO, EIO});
  expect([](world &) { return sis_them_all(group, 0); }, EINVAL, {});
  // A refused member does not stop it; the last error is returned.
  world w;
  w.file_system.failures[3] = EXDEV;
  EXPECT_EQ(sis_them_all(group, 3), EXDEV);
  EXPECT_EQ(w.file_system.texts, requests);
  w.file_system.failures = {{7, EXDEV}, {8, EPERM}};
  EXPECT_EQ(sis_them_all(group, 3), EPERM);
}

TEST(SingleFile, IsAttachedToANewLayerDedupedCopiedOrDetached) {
  const call create = [](world &) {
    const int fd = create_layer("a");
    EXPECT_TRUE(fd < 0 || fs::equivalent("/proc/self/fd/" + std::to_string(fd), "a"));
    return fd < 0 ? fd : close(fd);
  };
  expect(create, 0, {CLONE_A, CONNECT_A}, {-1, -1});
  expect([](world &w) { return dedup_file("b", w.fd_of_a); }, 0, {"DEDUP_FILE b rw a 0"}, {EIO});
  expect([](world &) { return reflink_copy("a", "copy"); }, 0, {"DEDUP_FILE copy ro a 1"}, {EIO});
  const call revoke = [](world &) { return revoke_file("a"); };
  const texts requests = {QUERY_A, "REVOKE a ro null"};
  expect(answered(QUERY, LAYERED, revoke), 0, requests, {EIO, EIO});
  expect(answered(QUERY, DEDUPED_ONLY, revoke), 0, requests);
  expect(revoke, 1, {QUERY_A});
}

int filter(off_t size, mode_t type = S_IFREG) {
  struct stat status = {};
  status.st_mode = type | 0644U;
  status.st_size = size;
  status.st_blocks = 8;
  return filter_out_nonsis(STDIN_FILENO, &status, "a");
}

TEST(StatusProbe, FilterCountsShrunkenFilesAndFindsUnfitFileSystems) {
  world w;
  w.file_system.failures = {{2, EIO}, {3, EOPNOTSUPP}};
  for (const int expected : {0, 0, -EOPNOTSUPP}) {
    EXPECT_EQ(filter(8192, S_IFDIR), 0);
    EXPECT_EQ(filter(4096), expected);
  }
  EXPECT_EQ(w.file_system.texts.size(), 3U);
  for (const sis_file_info &info : {sis_file_info{}, LAYERED, DEDUPED, DEDUPED}) {
    w.file_system.answer_with(QUERY, info);
    EXPECT_EQ(filter(8193), info.layered + info.deduped);
  }
  w.file_system.answer_with(GETFLAGS, COMPRESSED);
  EXPECT_EQ(filter(8192), SIS_STATUS_COMPRESSED);
  uint64_t n[4] = {};
  get_sis_file_statistics(&n[0], &n[1], &n[2], &n[3]);
  EXPECT_TRUE(n[0] == 1 && n[1] == 2 && n[2] == 4096 && n[3] == 16384);
  get_sis_file_statistics(&n[0], &n[1], &n[2], nullptr);
  EXPECT_EQ(n[0] + n[1] + n[2], 0U) << "they are handed out once";
}

TEST(FileDedupRequest, SharesDataAndGivesItBack) {
  expect([](world &) { return sisFileTaskImpl("d/c", "a"); }, 0,
         {"GET_FILE_INFO d/c rw 0 0", "CLONE_FILE d/[777] rw d/c 96", "CONNECT d/c rw d/[777] 0",
          "DEDUP_FILE a rw d/c 1"},
         {EIO, EIO, EIO});
  // A file that is attached already is only shared; a refusal leads to one more query.
  const std::string query_rw = "GET_FILE_INFO a rw 0 0";
  world w;
  w.file_system.answer_with(QUERY, LAYERED);
  w.file_system.failures[2] = EXDEV;
  EXPECT_EQ(sisFileTaskImpl("./a", "b"), EXDEV);
  EXPECT_EQ(w.file_system.texts, (texts{query_rw, "DEDUP_FILE b rw a 1", query_rw}));

  const call recover = [](world &) { return recoverFileImpl("d/../a"); };
  const texts requests = {"REVOKE a rw a 0", query_rw};
  expect(answered(QUERY, sis_file_info{1, 5, {}, 0}, recover), 5, requests, {-EIO, -1});
  expect(answered(QUERY, LAYERED, recover), -2, requests);
}

TEST(StatusProbe, AsksForCompressionFirst) {
  const call check = [](world &w) { return check_file_status(w.fd_of_a, nullptr, "a"); };
  const texts requests = {"GETFLAGS a ro 0 0", QUERY_A};
  expect(answered(GETFLAGS, COMPRESSED, check), SIS_STATUS_COMPRESSED, {requests[0]});
  expect(answered(QUERY, DEDUPED_ONLY, check), SIS_STATUS_PLAIN, requests);
  expect(answered(QUERY, LAYERED, check), SIS_STATUS_LAYERED, requests);
  const call not_compressed = answered(GETFLAGS, ~COMPRESSED, check);
  expect(answered(QUERY, DEDUPED, not_compressed), SIS_STATUS_DEDUPED, requests, {-EIO, -EIO});
}

TEST(CoincideFlag, IsSetAndReadAsAsked) {
  const call freeze = [](world &w) { return freeze_file(w.fd_of_a, "a"); };
  const call check = [](world &w) { return check_frozen(w.fd_of_a, "a"); };
  const call read = [](world &) { return getCoincideFlagImpl("a"); };
  const texts get = {"COINCIDE_FLAG a ro 0 8"};
  expect(freeze, 0, {"COINCIDE_FLAG a ro 2 4"}, {EIO});
  expect(answered(FLAG, sis_coincide_arg{3, 0}, check), 0, get, {-EIO});
  expect(answered(FLAG, sis_coincide_arg{~SIS_FLAG_COINCIDE, 0}, check), -1, get);
  EXPECT_TRUE(getCoincideFlagImpl(nullptr) == -1 && setCheckFlagImpl(nullptr, 0, 0) == -1);
  expect(answered(FLAG, sis_coincide_arg{0x12, 0}, read), 0x12, {"COINCIDE_FLAG a rw 2 8"}, {-EIO});
}

// `moved` happens while the flag is being set.
call set_flag_while(void (*moved)(const world &), long seconds = 1000, long nanoseconds = 5) {
  return [=](world &w) {
    w.set_mtime("a", 1000, 5);
    w.while_flag_is_set = [&w, moved] { moved(w); };
    return setCheckFlagImpl("a", seconds, nanoseconds);
  };
}

TEST(CoincideFlag, IsLeftOnlyOnAPlainFileThatStaysAsItWas) {
  const auto nothing = [](const world &) {};
  const auto touch = [](const world &w) { w.set_mtime("a", 1000, 6); };
  const texts requests = {"GET_FILE_INFO a rw 0 0", "COINCIDE_FLAG a rw 2 4",
                          "COINCIDE_FLAG a rw 2 16"};
  const texts first_two = {requests[0], requests[1]};
  expect(set_flag_while(nothing), 0, first_two, {-1, -EIO});
  expect(set_flag_while(touch), -1, requests, {-1, -EIO, -EIO});
  expect(set_flag_while([](const world &) { unlink("a"); }), -1, first_two);
  expect(answered(QUERY, LAYERED, set_flag_while(nothing)), 1, {requests[0]});
  expect(set_flag_while(nothing, 1000, 6), -1, {});
  expect(set_flag_while(nothing, 1001, 5), -1, {});
  world w;
  w.file_system.failures[3] = EIO;
  EXPECT_EQ(set_flag_while(touch)(w), -EIO);
  EXPECT_EQ(w.log.formats(),
            texts{"SERVICE ioctl clear %s(%lu) coincide flag failed! ret = %d, errno = %d\n"});
}

}  // namespace
