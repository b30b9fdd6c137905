// Loads arbitrary bytes as a digest file. The result is compared with an independent parse of the
// same bytes; what the load accepts is saved again and must give the same bytes.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "digest_reservation/digest_file.h"
#include "fbddp/dentry.h"
#include "fbddp/file_index.h"
#include "fbddp/run_resources.h"
#include "velmarin_platform/log_sink.h"

using namespace velmarin;

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size,
                                          unsigned variation);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

constexpr size_t CRC_SIZE = 8;
constexpr size_t ENTRY_SIZE = CRC_SIZE + sizeof(usable_hash);
constexpr size_t KEY_SIZE = 8;

std::string state_directory;
std::string digest_path;

void require(bool holds, const char *what) {
  if (!holds) {
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
  }
}

// CRC-64/NVME, bit by bit.
uint64_t slow_crc(const uint8_t *data, size_t size) {
  uint64_t crc = UINT64_MAX;
  for (size_t i = 0; i < size; i++) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; bit++) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x9a6c9329ac4bc9b5U : 0);
    }
  }
  return ~crc;
}

bool has_right_crc(const uint8_t *entry) {
  uint64_t crc = 0;
  memcpy(&crc, entry, CRC_SIZE);
  return crc == slow_crc(entry + CRC_SIZE, sizeof(usable_hash));
}

// How many records the load must find, or -1.
int64_t expected_count(const uint8_t *data, size_t size) {
  for (size_t i = 0; i + ENTRY_SIZE <= size; i += ENTRY_SIZE) {
    if (!has_right_crc(data + i)) {
      return -1;
    }
  }
  return size % ENTRY_SIZE == 0 ? static_cast<int64_t>(size / ENTRY_SIZE) : -1;
}

void write_digest_file(const uint8_t *data, size_t size) {
  const int fd = open(digest_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  require(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size) && close(fd) == 0,
          "the input can be written");
}

std::string read_digest_file() {
  std::string bytes;
  char block[4096];
  const int fd = open(digest_path.c_str(), O_RDONLY);
  require(fd >= 0, "a saved digest file exists");
  for (ssize_t count = 0; (count = read(fd, block, sizeof(block))) > 0;) {
    bytes.append(block, static_cast<size_t>(count));
  }
  close(fd);
  return bytes;
}

struct run {
  sis_ops ops = {};
  sis_context ctx = {};

  run() {
    ctx.ops = &ops;
    require(set_up_run(&ctx), "a run can be set up");
    memset(ctx.pname, 'a', DIGEST_NAME_LENGTH);
  }
  ~run() {
    drop_hash_table(&ctx);
    tear_down_run(&ctx);
  }
  run(const run &) = delete;
  run &operator=(const run &) = delete;

  bool has_name_at_rest() const {
    return ctx.pname[DIGEST_NAME_LENGTH - 1] == 'a' && ctx.pname[DIGEST_NAME_LENGTH] == '\0';
  }

  // Every key finds its first record, and the list holds all records in order.
  void check_table(const uint8_t *data, int64_t count) {
    std::map<uint64_t, const uint8_t *> first_of_key;
    const list_head *link = ctx.hash_entries.next;
    for (int64_t i = 0; i < count; i++, link = link->next) {
      const uint8_t *record = data + static_cast<size_t>(i) * ENTRY_SIZE + CRC_SIZE;
      require(link != &ctx.hash_entries, "every record is listed");
      uint64_t key = 0;
      memcpy(&key, record, KEY_SIZE);
      first_of_key.try_emplace(key, record);
    }
    require(link == &ctx.hash_entries, "nothing else is listed");
    for (const auto &[key, record] : first_of_key) {
      const hash_entry *found = lookup_hash_table(&ctx, key);
      require(found != nullptr && memcmp(found->record, record, sizeof(usable_hash)) == 0,
              "a key finds its first record");
      require(first_of_key.contains(key + 1) == (lookup_hash_table(&ctx, key + 1) != nullptr),
              "only keys that were loaded are found");
    }
  }

  // Gives each loaded record to a file, as a walk does.
  void hand_records_to_files() {
    for (list_head *link = ctx.hash_entries.next; link != &ctx.hash_entries; link = link->next) {
      hash_entry *entry = owner_of<&hash_entry::link>(link);
      dentry *root = nullptr;
      dentry *file = nullptr;
      require(create_dentry(nullptr, "/r", &root, DIRECTORY_FORM) == 0, "a dentry can be made");
      track_dentry(&ctx, root);
      require(create_dentry(root, "f", &file, FILE_FORM) == 0, "a dentry can be made");
      track_dentry(&ctx, file);
      memcpy(&file->key, entry->record, KEY_SIZE);
      file->mtime = {entry->record->mtime_sec, entry->record->mtime_nsec};
      file->hash = entry->record;
      entry->record = nullptr;
    }
  }
};

void ignore_line(void *, int, int, const char *, const char *line) {
  require(strlen(line) > 0, "a log line has text");
}

void remove_directory() {
  rmdir(state_directory.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const char *place = getenv("TMPDIR");
  state_directory = std::string(place != nullptr ? place : "/tmp") + "/velmarin-fuzz-XXXXXX";
  require(mkdtemp(state_directory.data()) != nullptr, "a directory can be made");
  digest_path = state_directory + "/" + std::string(DIGEST_NAME_LENGTH, 'a') + suffix_list[0];
  velmarin_set_log_sink(ignore_line, nullptr);
  atexit(remove_directory);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  write_digest_file(data, size);
  run run;
  const int64_t count = load_usable_hash(&run.ctx, state_directory.c_str());
  require(count == expected_count(data, size), "the load finds what a second reading finds");
  require(access(digest_path.c_str(), F_OK) != 0, "a loaded file is gone");
  require(run.has_name_at_rest(), "the name is at rest after the load");
  if (count < 0) {
    return 0;
  }
  run.check_table(data, count);
  run.hand_records_to_files();
  require(save_usable_hash(&run.ctx, state_directory.c_str()) == count, "every record is saved");
  require(read_digest_file() == std::string(reinterpret_cast<const char *>(data), size),
          "what was loaded is saved as it was");
  require(run.has_name_at_rest(), "the name is at rest after the save");
  remove(digest_path.c_str());
  return 0;
}

// Mutated bytes alone would hardly ever have the right checksum. So the mutator fixes the checksums
// of most inputs, for all entries or all but the last, and gives some inputs a duplicate key.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size,
                                          unsigned variation) {
  size = LLVMFuzzerMutate(data, size, max_size);
  if (variation % 4 == 0) {
    return size;
  }
  const size_t entries = size / ENTRY_SIZE;
  if (entries >= 2 && variation % 8 == 1) {
    const size_t from = variation / 8 % entries;
    const size_t to = variation / 1024 % entries;
    memmove(data + to * ENTRY_SIZE + CRC_SIZE, data + from * ENTRY_SIZE + CRC_SIZE, KEY_SIZE);
  }
  if (variation % 16 < 10) {
    size = entries * ENTRY_SIZE;
  }
  const size_t right = variation % 32 == 2 && entries > 0 ? entries - 1 : entries;
  for (size_t i = 0; i < right; i++) {
    uint8_t *entry = data + i * ENTRY_SIZE;
    const uint64_t crc = slow_crc(entry + CRC_SIZE, sizeof(usable_hash));
    memcpy(entry, &crc, CRC_SIZE);
  }
  return size;
}
