// The digest file: its path, its locks, its life cycle and its records, undamaged and damaged.

#include <gtest/gtest.h>
#include <sys/file.h>

#include <cstring>
#include <filesystem>

#include "digest_reservation/digest_file.h"
#include "support/run_context.h"
#include "support/temporary_tree.h"

static std::string locks;  // what was asked for, in order

extern "C" int flock(int, int operation) noexcept {
  locks += operation == LOCK_EX ? "exclusive " : operation == LOCK_SH ? "shared " : "none ";
  return 0;
}

namespace {

using namespace velmarin;
using namespace velmarin_test;

constexpr usable_hash FIRST = {0x1234, 5, 7, 8, {1, 2, 3}};
constexpr usable_hash SECOND = {0x11234, 5, -9, 10, {4}};  // in the bucket of the first

// An entry of 64 bytes as it lies in the file.
std::string bytes_of(const usable_hash &record) {
  const uint64_t crc = crc64_rocksoft_generic(0, &record, sizeof(record));
  return std::string(reinterpret_cast<const char *>(&crc), sizeof(crc)) +
         std::string(reinterpret_cast<const char *>(&record), sizeof(record));
}

// A run that has the digests of both records to save, with a state directory of its own.
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
  store s;
  EXPECT_EQ(s.load(), -1) << "there is no file yet";
  EXPECT_EQ(s.save(), 2);
  EXPECT_EQ(s.state.read(s.file), bytes_of(FIRST) + bytes_of(SECOND));
  EXPECT_EQ(s.load(), 2);
  EXPECT_FALSE(s.file_exists());
  EXPECT_EQ(locks, "exclusive none shared none ");
  for (const usable_hash &record : {FIRST, SECOND}) {
    const hash_entry *entry = lookup_hash_table(&s.ctx, uint64_t{5} << 32 | record.ino);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(memcmp(entry->record, &record, sizeof(record)), 0);
  }
  EXPECT_EQ(lookup_hash_table(&s.ctx, uint64_t{6} << 32 | FIRST.ino), nullptr);
}

TEST(DigestStore, UsesACutOrChangedFileNotAtAll) {
  store s;
  const auto load = [&s](const std::string &content) {
    s.state.write(s.file, content);
    const int64_t count = s.load();
    EXPECT_FALSE(s.file_exists());
    drop_hash_table(&s.ctx);
    return count;
  };
  const std::string whole = bytes_of(FIRST) + bytes_of(SECOND);
  for (size_t i = 0; i < whole.size(); i++) {
    EXPECT_EQ(load(whole.substr(0, i)), i == 0 ? 0 : i == 64 ? 1 : -1) << i;
    std::string changed = whole;
    changed[i] = static_cast<char>(changed[i] ^ (1 << i % 8));
    EXPECT_EQ(load(changed), -1) << i;
  }
  EXPECT_EQ(load(bytes_of(FIRST) + bytes_of(FIRST)), 2) << "a second record of a file counts";
}

TEST(DigestStore, TakesAStateDirectoryOfAtMost4026Characters) {
  for (const size_t length : {4026U, 4027U, 4095U, 4096U}) {
    store s;
    s.save_dir.resize(length, '/');
    EXPECT_EQ(s.save(), length == 4026 ? 2 : 0) << length;
    EXPECT_EQ(s.load(), length == 4026 ? 2 : -1) << length;
  }
}

}  // namespace
