#include "omissions.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "display_name.h"
#include "refusal.h"

namespace tool {

namespace {

struct CauseText {
  const char *word;
  const char *one;
  const char *several;
};
constexpr CauseText TEXTS[] = {
    {"directory not read", "directory could not be read", "directories could not be read"},
    {"not opened", "file could not be opened", "files could not be opened"},
    {"not marked", "file could not be marked", "files could not be marked"},
    {"not read", "file could not be read", "files could not be read"},
    {"state unknown", "file with an unknown state", "files with an unknown state"},
    {"changed", "file changed during the scan", "files changed during the scan"}};
static_assert(std::size(TEXTS) == CAUSES);

// The start of a line, and its text after the path.
struct Line {
  std::string_view start;
  std::string_view end;
  Cause cause;
};
constexpr std::string_view RETURNED = " returned ";
constexpr Line LINES[] = {{"cannot open ", "", Cause::not_opened},
                          {"failed to open ", " as directory", Cause::directory_not_read},
                          {"failed to read [", "", Cause::not_read},
                          {"failed to get stat of ", "", Cause::not_read},
                          {"failed to allocate hash for ", "", Cause::not_read}};
constexpr int LAST_ERRNO = 4095;

int errno_of(std::string_view text) {
  for (int error = 1; error <= LAST_ERRNO; ++error) {
    const char *const description = strerrordesc_np(error);
    if (description != nullptr && text == description) {
      return error;
    }
  }
  return 0;
}

// Skips the bracketed descriptor number that some lines have before the path, which is absolute.
std::string_view path_in(std::string_view text) {
  return text.substr(std::min(text.find('/'), text.size()));
}

}  // namespace

const char *cause_word(Cause cause) {
  return TEXTS[static_cast<size_t>(cause)].word;
}

std::string explain(const Omission &omission) {
  const bool has_reason = omission.error != 0;
  return cause_word(omission.cause) + (has_reason ? ", " + describe_error(omission.error) : "");
}

std::string describe(const Omission &omission) {
  return escaped_name(omission.path) + ": " + explain(omission);
}

std::string describe_omissions(Cause cause, uint64_t count) {
  const CauseText &text = TEXTS[static_cast<size_t>(cause)];
  return std::to_string(count) + ' ' + (count == 1 ? text.one : text.several);
}

std::string errno_name(int error) {
  const char *const name = error == 0 ? nullptr : strerrorname_np(error);
  return name == nullptr ? "" : name;
}

void Omissions::add(std::string_view path, Cause cause, int error) {
  const std::lock_guard guard(lock_);
  // Paths below a root of "/" start with two slashes.
  const size_t doubled = path.starts_with("//") ? 1 : 0;
  const std::pair key(std::string(path.substr(doubled)), cause);
  if (listed_.size() < MAX_LISTED ? listed_.emplace(key, error).second : !listed_.contains(key)) {
    ++counts_[static_cast<size_t>(cause)];
  }
}

void Omissions::read_log_message(std::string_view message) {
  for (const Line &line : LINES) {
    const size_t end = message.rfind(std::string(line.end) + std::string(RETURNED));
    if (message.starts_with(line.start) && end != std::string_view::npos) {
      const int error = errno_of(message.substr(end + line.end.size() + RETURNED.size()));
      if (error != ECANCELED) {  // a stopped scan opens nothing more
        add(path_in(message.substr(0, end)), line.cause, error);
      }
      return;
    }
  }
}

std::array<uint64_t, CAUSES> Omissions::counts() const {
  const std::lock_guard guard(lock_);
  return counts_;
}

bool Omissions::is_full() const {
  const std::lock_guard guard(lock_);
  return listed_.size() >= MAX_LISTED;
}

std::vector<Omission> Omissions::list() const {
  const std::lock_guard guard(lock_);
  std::vector<Omission> list;
  for (const auto &[key, error] : listed_) {
    list.push_back({key.first, key.second, error});
  }
  return list;
}

}  // namespace tool
