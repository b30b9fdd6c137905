// The digest file: its path, its locks, its life cycle and its records, undamaged and damaged.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>

#include "digest_reservation/digest_file.h"
#include "support/run_context.h"
#include "support/temporary_tree.h"

// The calls on the digest file, in order. Nothing else opens files here.
static std::string steps;
static int interruptions = 0;  // of the next calls of flock

extern "C" int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  steps += flags == O_RDONLY ? "open " : flags == (O_RDWR | O_CREAT) ? "create " : "otherwise ";
  return openat(AT_FDCWD, path, flags, mode);
}

extern "C" int close(int fd) {
  steps += "close ";
  return static_cast<int>(syscall(SYS_close, fd));
}

extern "C" int fsync(int) {
  steps += "sync ";
  return 0;
}

extern "C" int remove(const char *path) noexcept {
  steps += "remove ";
  return unlink(path);
}

extern "C" int flock(int, int operation) noexcept {
  steps += operation == LOCK_EX ? "exclusive " : operation == LOCK_SH ? "shared " : "unlock ";
  errno = EINTR;
  return interruptions-- > 0 ? -1 : 0;
}

namespace {

using namespace velmarin;
using namespace velmarin_test;

constexpr usable_hash FIRST = {0x1234, 5, 7, 8, {1, 2, 3}};
constexpr usable_hash SECOND = {0x11234, 5, -9, 10, {4}};  // in the bucket of the first

// An entry of 64 bytes, as stored in the file.
std::string bytes_of(const usable_hash &record) {
  const uint64_t crc = crc64_rocksoft_generic(0, &record, sizeof(record));
  return std::string(reinterpret_cast<const char *>(&crc), sizeof(crc)) +
         std::string(reinterpret_cast<const char *>(&record), sizeof(record));
}

// A run that has the digests of both records to save, with its own state directory.
struct store : run_context {
  temporary_tree state;
  const std::string file = std::string(DIGEST_NAME_LENGTH, 'a') + ".hsh";
  std::string save_dir = state.root();

  store() {
    memset(ctx.pname, 'a', DIGEST_NAME_LENGTH);
    dentry *root = list(nullptr, "/r", false);
    list(root, "without", true);
    for (const usable_hash &record : {FIRST, SECOND}) {
      dentry *d = list(root, "with", true);
      d->key = uint64_t{record.dev} << 32 | record.ino;
      d->mtime = {record.mtime_sec, record.mtime_nsec};
      give_digest(d, record.digest);
    }
    list(root, "wanted", true)->hash = hash_pending();
  }
  ~store() { drop_hash_table(&ctx); }

  int64_t save() { return save_usable_hash(&ctx, save_dir.c_str()); }
  int64_t load() { return load_usable_hash(&ctx, save_dir.c_str()); }
  bool file_exists() const { return std::filesystem::exists(state.path(file)); }
};

TEST(DigestStore, SavesIdentityTimeAndDigestOfEachFileAndLoadsThemOnce) {
  for (const bool has_input : {true, false}) {  // without, the file is opened as descriptor 0
    store s;
    const int input = dup(STDIN_FILENO);
    has_input ? 0 : close(STDIN_FILENO);
    umask(022);
    steps.clear();
    EXPECT_EQ(s.load(), -1) << "there is no file yet";
    interruptions = 2;
    EXPECT_EQ(s.save(), 2);
    EXPECT_EQ(s.state.read(s.file), bytes_of(FIRST) + bytes_of(SECOND));
    EXPECT_EQ(s.state.status(s.file).st_mode & 0777, 0755U);
    interruptions = 1;
    EXPECT_EQ(s.load(), 2);
    EXPECT_FALSE(s.file_exists());
    EXPECT_EQ(strlen(s.ctx.pname), DIGEST_NAME_LENGTH) << "without the suffix";
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD) == 0, has_input);
    dup2(input, STDIN_FILENO);
    const std::string moved = has_input ? "" : "close ";
    EXPECT_EQ(steps, "open create " + moved + "exclusive exclusive exclusive unlock sync close " +
                         "open " + moved + "shared shared unlock close remove ");
    close(input);
    const std::string path = s.state.path(s.file);
    EXPECT_EQ(s.log.messages(),
              (std::vector<std::string>{
                  "INFO Cannot open " + path + " returned No such file or directory\n",
                  "INFO CREATE " + path + " success\n", "INFO OPEN " + path + " success\n"}));
    for (const usable_hash &record : {FIRST, SECOND}) {
      const hash_entry *entry = lookup_hash_table(&s.ctx, uint64_t{5} << 32 | record.ino);
      ASSERT_NE(entry, nullptr);
      EXPECT_EQ(memcmp(entry->record, &record, sizeof(record)), 0);
    }
    EXPECT_EQ(lookup_hash_table(&s.ctx, uint64_t{6} << 32 | FIRST.ino), nullptr);
  }
}

TEST(DigestStore, RejectsATruncatedOrChangedFileEntirely) {
  store s;
  const auto load = [&s](const std::string &content, int64_t expected, const std::string &line) {
    s.state.write(s.file, content);
    EXPECT_EQ(s.load(), expected) << content.size();
    EXPECT_FALSE(s.file_exists());
    EXPECT_TRUE(s.log.messages().back().ends_with(line)) << s.log.messages().back();
    drop_hash_table(&s.ctx);
    EXPECT_EQ(s.ctx.hash_table, nullptr);
  };
  const std::string whole = bytes_of(FIRST) + bytes_of(SECOND);
  for (size_t i = 0; i < whole.size(); i++) {
    const std::string place = " on " + std::to_string(i) + " of .hsh\n";
    load(whole.substr(0, i),
         i % 64 != 0 ? -1
         : i == 64   ? 1
                     : 0,
         i % 64 == 0  ? " success\n"
         : i % 64 < 8 ? "ERRO fail to read crc checksum" + place
                      : "ERRO fail to read hash" + place);
    std::string changed = whole;
    changed[i] = static_cast<char>(changed[i] ^ (1 << i % 8));
    load(changed, -1,
         std::string("ERRO check sum verify failure on ") + (i < 64 ? "64" : "128") + " of .hsh\n");
  }
  load(bytes_of(FIRST) + bytes_of(FIRST), 2, "same dev:ino found in hash table for 5:4660\n");
}

TEST(DigestStore, TakesAStateDirectoryOfAtMost4026Characters) {
  const auto check = [](size_t length, const std::string &line) {
    store s;
    s.save_dir.resize(length, '/');
    EXPECT_EQ(s.save(), length == 4026 ? 2 : 0) << length;
    EXPECT_EQ(s.load(), length == 4026 ? 2 : -1) << length;
    EXPECT_TRUE(s.log.messages().back().ends_with(line)) << s.log.messages().back();
  };
  check(4026, ".hsh success\n");
  check(4027, "ERRO fail to copy string pname\n");
  check(4096, "ERRO Too looong save_dir, quit!\n");
}

}  // namespace
