#include "history.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "common/unique_fd.h"
#include "message.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

// A line has about 200 bytes, so this holds years of nightly runs.
constexpr off_t MAX_BYTES = 1 << 20;

struct NumberField {
  const char *name;
  uint64_t HistoryEntry::*value;
};
constexpr NumberField NUMBERS[] = {
    {"start", &HistoryEntry::start},
    {"elapsed_ms", &HistoryEntry::elapsed_ms},
    {"freed_bytes", &HistoryEntry::freed_bytes},
    {"freed_uncertain_bytes", &HistoryEntry::freed_uncertain_bytes},
    {"left_bytes", &HistoryEntry::left_bytes},
    {"merged", &HistoryEntry::merged},
    {"changed", &HistoryEntry::changed},
    {"refused", &HistoryEntry::refused},
    {"not_tried", &HistoryEntry::not_tried},
};

struct FlagField {
  const char *name;
  bool HistoryEntry::*value;
};
constexpr FlagField FLAGS[] = {{"stopped", &HistoryEntry::stopped},
                               {"out_of_time", &HistoryEntry::out_of_time}};
constexpr const char *LEFT_IS_MINIMUM = "left_is_minimum";

// Older lines do not tell. A run that ended early may have left more than it knew.
bool left_is_minimum(const Json &object, const HistoryEntry &entry) {
  const auto found = object.find(LEFT_IS_MINIMUM);
  const bool is_told = found != object.end() && found->is_boolean();
  return is_told ? found->get<bool>() : entry.stopped || entry.out_of_time;
}

// Requires every other field: a line that lacks one was cut short or written by something else.
std::optional<HistoryEntry> parse_entry(std::string_view line) {
  const Json object = Json::parse(line, nullptr, false);
  HistoryEntry entry = {};
  for (const NumberField &field : NUMBERS) {
    const auto found = object.find(field.name);
    if (found == object.end() || !found->is_number_unsigned()) {
      return std::nullopt;
    }
    entry.*field.value = found->get<uint64_t>();
  }
  for (const FlagField &field : FLAGS) {
    const auto found = object.find(field.name);
    if (found == object.end() || !found->is_boolean()) {
      return std::nullopt;
    }
    entry.*field.value = found->get<bool>();
  }
  entry.left_is_minimum = left_is_minimum(object, entry);
  return entry;
}

std::string history_path(const std::string &state) {
  return state + "/history";
}

bool read_all(int fd, std::string &text) {
  char block[65536];
  ssize_t count = 0;
  while ((count = read(fd, block, sizeof block)) > 0) {
    text.append(block, static_cast<size_t>(count));
  }
  return count == 0;
}

// Opens the record, which must be a regular file. The descriptor is closed on failure, with errno
// set.
velmarin::unique_fd open_record(const std::string &path, int flags) {
  velmarin::unique_fd fd(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat status = {};
  if (fd.is_open() && fstat(fd.get(), &status) == 0 && !S_ISREG(status.st_mode)) {
    fd.reset();
    errno = EINVAL;
  }
  return fd;
}

// Returns nothing if the record cannot be read, after an error message.
std::optional<std::string> read_record(const std::string &path) {
  const velmarin::unique_fd fd = open_record(path, O_RDONLY);
  std::string text;
  if (!fd.is_open() && (errno == ENOENT || errno == ENOTDIR)) {
    return text;
  }
  const bool is_read = fd.is_open() && read_all(fd.get(), text);
  if (!is_read) {
    print_error("cannot read", path, std::strerror(errno));
  }
  return is_read ? std::optional(std::move(text)) : std::nullopt;
}

bool write_synced(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = TEMP_FAILURE_RETRY(write(fd, text.data(), text.size()));
    if (count < 0) {
      return false;
    }
    text.remove_prefix(static_cast<size_t>(count));
  }
  return fsync(fd) == 0;
}

// Keeps the newer half of a record that has grown too long.
bool shorten(const std::string &path) {
  const auto text = read_record(path);
  if (!text) {
    return false;
  }
  const size_t cut = text->find('\n', text->size() / 2);
  const std::string newer = path + ".new";
  unlink(newer.c_str());
  const velmarin::unique_fd fd = open_record(newer, O_WRONLY | O_CREAT | O_EXCL);
  return fd.is_open() &&
         write_synced(fd.get(), cut == std::string::npos ? "" : text->substr(cut + 1)) &&
         rename(newer.c_str(), path.c_str()) == 0;
}

// If a crash cut the last line short, ends it first.
bool append_line(int fd, const std::string &line) {
  char last = '\n';
  const off_t size = lseek(fd, 0, SEEK_END);
  if (size > 0 && pread(fd, &last, 1, size - 1) != 1) {
    return false;
  }
  return write_synced(fd, (last == '\n' ? "" : "\n") + line + "\n");
}

uint64_t left_bytes(const Findings &findings) {
  uint64_t bytes = 0;
  for (const FoundGroup &group : findings.groups) {
    const uint64_t freed = group.freed().certain;
    bytes += std::max(group.reclaimable().certain, freed) - freed;
  }
  return bytes;
}

}  // namespace

HistoryEntry entry_of(const Report &report) {
  const MergeCounts counts = count_outcomes(report.findings);
  const Space freed = report.findings.freed();
  const auto elapsed = static_cast<uint64_t>(report.elapsed.count());
  return {.start = static_cast<uint64_t>(std::time(nullptr)) - elapsed / 1000,
          .elapsed_ms = elapsed,
          .freed_bytes = freed.certain,
          .freed_uncertain_bytes = freed.uncertain,
          .left_bytes = left_bytes(report.findings),
          .merged = counts.merged,
          .changed = counts.changed,
          .refused = counts.refused,
          .not_tried = counts.not_tried,
          .stopped = report.stopped,
          .out_of_time = report.out_of_time,
          .left_is_minimum = report.is_cut || report.findings.unexamined_groups() > 0};
}

std::string history_line(const HistoryEntry &entry) {
  Json object;
  for (const NumberField &field : NUMBERS) {
    object[field.name] = entry.*field.value;
  }
  for (const FlagField &field : FLAGS) {
    object[field.name] = entry.*field.value;
  }
  object[LEFT_IS_MINIMUM] = entry.left_is_minimum;
  return object.dump();
}

std::optional<std::vector<HistoryEntry>> read_history(const std::string &state) {
  const auto text = read_record(history_path(state));
  if (!text) {
    return std::nullopt;
  }
  std::vector<HistoryEntry> entries;
  size_t number = 0;
  for (size_t begin = 0; begin < text->size();) {
    const size_t end = std::min(text->find('\n', begin), text->size());
    ++number;
    if (const auto entry = parse_entry(std::string_view(*text).substr(begin, end - begin))) {
      entries.push_back(*entry);
    } else {
      print_error("ignoring damaged line " + std::to_string(number) + " of", history_path(state));
    }
    begin = end + 1;
  }
  return entries;
}

bool append_history(const std::string &state, const HistoryEntry &entry) {
  const std::string path = history_path(state);
  struct stat status = {};
  const bool is_long = lstat(path.c_str(), &status) == 0 && status.st_size > MAX_BYTES;
  const velmarin::unique_fd fd = is_long && !shorten(path)
                                     ? velmarin::unique_fd()
                                     : open_record(path, O_RDWR | O_APPEND | O_CREAT);
  const bool is_written = fd.is_open() && append_line(fd.get(), history_line(entry));
  if (!is_written) {
    print_error("cannot write", path, std::strerror(errno));
  }
  return is_written;
}

}  // namespace tool
