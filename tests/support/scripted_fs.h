// A control-code layer under a test's command. The test executable has an `ioctl` of its own, which
// every call in the process reaches first; while a scripted_fs lives, it records each request of
// type 0xf5 and each FS_IOC_GETFLAGS, and answers or refuses it as told. All other requests, and
// all requests while no object lives, pass to the platform layer.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace velmarin_test {

struct fs_request {
  unsigned code;
  int fd;
  ino_t inode;
  std::string path;  // of the file; ends in " (deleted)" for a file without a name
  int access_mode;   // O_RDONLY, O_WRONLY or O_RDWR
  bool null_argument;
  std::vector<uint8_t> argument;  // as handed over: the code's size, 4 bytes for FS_IOC_GETFLAGS
  std::string argument_path;      // of the descriptor in the argument's first word, if it is one

  template <typename Record>
  Record argument_as() const {
    Record record = {};
    std::copy_n(argument.begin(), std::min(sizeof(record), argument.size()),
                reinterpret_cast<uint8_t *>(&record));
    return record;
  }

  // One line such as "DEDUP_FILE b rw src=a mode=1" or "CONNECT b rw layer=d/(unnamed)", with names
  // below `root` and numbers in base 16.
  std::string text(const std::string &root) const;
};

class scripted_fs {
 public:
  enum class source {
    script,   // requests without an answer of their own succeed and write nothing
    platform  // requests without an answer of their own pass to the platform layer
  };

  explicit scripted_fs(source answers = source::script);
  ~scripted_fs();
  scripted_fs(const scripted_fs &) = delete;
  scripted_fs &operator=(const scripted_fs &) = delete;

  // Queue an answer for the next request of the code that has none yet: a result with its errno, or
  // success with a record to write back. An answer that stays serves all further requests.
  void answer(unsigned code, int result, int error = 0);
  template <typename Record>
  void answer_with(unsigned code, const Record &record, bool stays = false) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    queue({0, 0, std::vector<uint8_t>(bytes, bytes + sizeof(record)), stays}, code);
  }
  // Refuses the n-th request of the code, counted from 1 since the object was made.
  void fail(unsigned code, int nth, int error);
  // Runs on the requesting thread after a request was recorded and before it is answered.
  void before_each(std::function<void(const fs_request &)> hook);

  std::vector<fs_request> requests() const;
  std::vector<std::string> texts(const std::string &root) const;
  size_t count(unsigned code) const;

  // For the executable's `ioctl` alone.
  static int handle(int fd, unsigned long code, void *argument);

 private:
  struct fs_answer {
    int result;
    int error;
    std::vector<uint8_t> argument;
    bool stays;
  };
  void queue(const fs_answer &answer, unsigned code);

  source answers_;
  mutable std::mutex mutex_;
  std::vector<fs_request> requests_;
  std::map<unsigned, int> counts_;
  std::map<unsigned, std::deque<fs_answer>> queues_;
  std::map<std::pair<unsigned, int>, int> failures_;
  std::function<void(const fs_request &)> hook_;
};

}  // namespace velmarin_test
