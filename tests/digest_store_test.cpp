// The digest file: its path, its locks, its life cycle and its records, undamaged and damaged.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>

#include "digest_reservation/digest_file.h"
#include "fbddp/file_index.h"
#include "support/captured_log.h"
#include "support/run_context.h"
#include "support/temporary_tree.h"

namespace {

std::string locks_held;  // how the digest file was locked when it was unlocked

int forward_flock(int fd, int operation) {
  static const auto next = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
  return next(fd, operation);
}

}  // namespace

// Before an unlocking, notes which locks another opening of the file can take.
extern "C" int flock(int fd, int operation) noexcept {
  if (operation == LOCK_UN) {
    const int other = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDONLY);
    locks_held += forward_flock(other, LOCK_EX | LOCK_NB) == 0   ? "none "
                  : forward_flock(other, LOCK_SH | LOCK_NB) == 0 ? "shared "
                                                                 : "exclusive ";
    close(other);
  }
  return forward_flock(fd, operation);
}

namespace {

using namespace velmarin;
using namespace velmarin_test;
using lines = std::vector<std::string>;

constexpr size_t ENTRY_SIZE = 64;
constexpr usable_hash FIRST = {0x1234, 5, 7, 8, {1, 2, 3}};
constexpr usable_hash SECOND = {0x11234, 5, -9, 10, {4}};

// An entry as it lies in the file.
std::string bytes_of(const usable_hash &record) {
  const uint64_t crc = crc64_rocksoft_generic(0, &record, sizeof(record));
  return std::string(reinterpret_cast<const char *>(&crc), sizeof(crc)) +
         std::string(reinterpret_cast<const char *>(&record), sizeof(record));
}

// A run that has the digests of both records to save, with a state directory of its own.
struct store : run_context {
  temporary_tree state;
  captured_log log;
  const std::string name = std::string(DIGEST_NAME_LENGTH, 'a');
  const std::string file = name + ".hsh";

  store() {
    memcpy(ctx.pname, name.data(), name.size());
    locks_held.clear();
    dentry *root = list(nullptr, "/r", false);
    list(root, "none", true);
    list_file(root, "one", FIRST);
    list_file(root, "two", SECOND);
    list(root, "wanted", true)->hash = hash_pending();
  }
  ~store() {
    EXPECT_STREQ(ctx.pname, name.c_str()) << "the name is left at rest";
    drop_hash_table(&ctx);
  }

  void list_file(dentry *root, const char *file_name, const usable_hash &record) {
    dentry *d = list(root, file_name, true);
    d->key = uint64_t{record.dev} << 32 | record.ino;
    d->mtime = {record.mtime_sec, record.mtime_nsec};
    d->hash = static_cast<usable_hash *>(calloc(1, sizeof(usable_hash)));
    memcpy(d->hash->digest, record.digest, DIGEST_SIZE);  // the rest is not kept up to date
  }

  int64_t save() { return save_usable_hash(&ctx, state.root().c_str()); }
  int64_t load() { return load_usable_hash(&ctx, state.root().c_str()); }
  bool file_exists() const { return access(state.path(file).c_str(), F_OK) == 0; }
};

TEST(DigestStore, SavesIdentityTimeAndDigestOfEachFileAndLoadsThemOnce) {
  store s;
  EXPECT_EQ(s.load(), -1) << "there is no file yet";
  EXPECT_EQ(s.ctx.hash_table, nullptr);
  EXPECT_EQ(s.save(), 2);
  EXPECT_EQ(s.state.read(s.file), bytes_of(FIRST) + bytes_of(SECOND));
  EXPECT_EQ(s.load(), 2);
  EXPECT_FALSE(s.file_exists());
  EXPECT_EQ(locks_held, "exclusive shared ");
  for (const usable_hash &record : {FIRST, SECOND}) {
    const hash_entry *entry = lookup_hash_table(&s.ctx, uint64_t{5} << 32 | record.ino);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(memcmp(entry->record, &record, sizeof(record)), 0);
  }
  const std::string path = s.state.path(s.file);
  EXPECT_EQ(s.log.messages(),
            (lines{"INFO Cannot open " + path + " returned No such file or directory\n",
                   "INFO CREATE " + path + " success\n", "INFO OPEN " + path + " success\n"}));
  EXPECT_EQ(s.log.lines()[0].module, "digest_reservation.cpp");

  s.state.write(s.file, std::string(200, '#'));
  EXPECT_EQ(s.save(), 2);
  EXPECT_EQ(s.state.read(s.file), bytes_of(FIRST) + bytes_of(SECOND) + std::string(72, '#'))
      << "a file that is there is overwritten from its start and not shortened";
  free_all_dentries(&s.ctx);
  s.state.write(s.file, "");
  EXPECT_EQ(s.save(), 0);
  EXPECT_EQ(s.state.read(s.file), "") << "no digest, an empty file";
}

TEST(DigestStore, UsesACutOrChangedFileNotAtAll) {
  store s;
  const auto expect_load = [&s](const std::string &content, int64_t count, const char *failure,
                                size_t offset) {
    s.state.write(s.file, content);
    const size_t lines_before = s.log.lines().size();
    EXPECT_EQ(s.load(), count) << failure << offset;
    EXPECT_FALSE(s.file_exists());
    EXPECT_NE(s.ctx.hash_table, nullptr);
    drop_hash_table(&s.ctx);
    const lines all = s.log.messages();
    ASSERT_EQ(all.size(), lines_before + (count < 0 ? 2 : 1)) << failure << offset;
    EXPECT_TRUE(count >= 0 || all.back() == std::string("ERRO ") + failure + " on " +
                                                std::to_string(offset) + " of .hsh\n")
        << all.back();
  };
  const std::string whole = bytes_of(FIRST) + bytes_of(SECOND);
  for (size_t size = 0; size <= whole.size(); size++) {
    const size_t rest = size % ENTRY_SIZE;
    expect_load(whole.substr(0, size), rest == 0 ? static_cast<int64_t>(size / ENTRY_SIZE) : -1,
                rest < 8 ? "fail to read crc checksum" : "fail to read hash", size);
  }
  for (size_t byte = 0; byte < ENTRY_SIZE; byte++) {
    std::string changed = whole;
    changed[byte] = static_cast<char>(changed[byte] ^ (1 << byte % 8));
    expect_load(changed, -1, "check sum verify failure", ENTRY_SIZE);
  }
  s.state.write(s.file, bytes_of(FIRST) + bytes_of(FIRST));
  EXPECT_EQ(s.load(), 2) << "a second record of a file counts";
}

TEST(DigestStore, TakesAStateDirectoryOfAtMost4026Characters) {
  const std::string too_long = "ERRO Too looong save_dir, quit!\n";
  const std::string no_room = "ERRO fail to copy string pname\n";
  const std::pair<size_t, lines> cases[] = {{4026, {}},
                                            {4027, {no_room, no_room}},
                                            {4095, {no_room, no_room}},
                                            {4096, {too_long, too_long, too_long, too_long}}};
  for (const auto &[length, messages] : cases) {
    store s;
    const std::string save_dir = s.state.root() + std::string(length - s.state.root().size(), '/');
    EXPECT_EQ(save_usable_hash(&s.ctx, save_dir.c_str()), messages.empty() ? 2 : 0) << length;
    EXPECT_EQ(s.file_exists(), messages.empty()) << length;
    EXPECT_EQ(load_usable_hash(&s.ctx, save_dir.c_str()), messages.empty() ? 2 : -1) << length;
    EXPECT_TRUE(messages.empty() || s.log.messages() == messages) << length;
  }
}

}  // namespace
