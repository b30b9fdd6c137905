#include "file_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/unique_fd.h"
#include "copy_permissions.h"
#include "display_name.h"
#include "guarded_open.h"
#include "layer.h"
#include "message.h"
#include "overlay.h"
#include "refusal.h"
#include "sharing.h"
#include "size_text.h"
#include "velmarin/control_codes.h"
#include "velmarin/files.h"
#include "volume.h"

namespace tool {
namespace {

using Files = std::vector<std::string>;

// Prints "FILE: TEXT".
void print_result(const std::string &file, const std::string &text) {
  std::printf("%s: %s\n", escaped_name(file).c_str(), text.c_str());
}

// Prints an error message and returns false, the result of a failed command.
bool fail(const std::string &file, const std::string &reason) {
  std::fflush(stdout);
  print_error(named(file) + ": " + reason);
  return false;
}

// The errno in a line of the log, 0 if there is none.
int logged_error(const std::string &message) {
  constexpr std::string_view MARK = "errno = ";
  const size_t found = message.rfind(MARK);
  return found == std::string::npos ? 0 : std::atoi(message.c_str() + found + MARK.size());
}

// Why a call that returned only -1 failed. The call opens the file for reading and writing, so this
// tries the same. If that works, the reason is in the call's last log line.
std::string failure_reason(const std::string &file, const LogLines &log) {
  const velmarin::unique_fd fd(open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (!fd.is_open()) {
    return std::strerror(errno);
  }
  const std::string message = log.last_message();
  if (const int error = logged_error(message); error > 0) {
    return describe_error(error);
  }
  return message.empty() ? "the call failed" : escaped_name(message);
}

// A directory, a device or a FIFO has no data to share, and opening one may block or have side
// effects.
bool reject_non_regular(const Files &files) {
  for (const std::string &file : files) {
    struct stat status = {};
    if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      return !fail(file, S_ISDIR(status.st_mode) ? "is a directory" : "is not a regular file");
    }
  }
  return false;
}

// A change to a file of an overlay's lower layer copies it up, even opening it for writing.
bool reject_on_overlay(const Files &files) {
  for (const std::string &file : files) {
    if (is_on_overlay(file)) {
      return !fail(file, "not opened: it is on an overlay, where a change may copy it up");
    }
  }
  return false;
}

bool reject_unusable(const Files &files) {
  return reject_non_regular(files) || reject_on_overlay(files);
}

// Two names of one file already share its data.
bool reject_same_file(const Files &files) {
  std::map<std::pair<dev_t, ino_t>, const std::string *> seen;
  for (const std::string &file : files) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) {
      continue;
    }
    const auto [earlier, is_new] = seen.emplace(std::pair(status.st_dev, status.st_ino), &file);
    if (!is_new) {
      return !fail(file, "same file as " + escaped_name(*earlier->second));
    }
  }
  return false;
}

// Acts on every file, even after a failure.
template <typename Act>
bool for_each(const Files &files, LogLines &log, Act act) {
  bool all_done = true;
  for (const std::string &file : files) {
    log.forget();
    all_done = !reject_unusable({file}) && act(file) && all_done;
  }
  return all_done;
}

bool has_name(const std::string &file) {
  char resolved[PATH_MAX];
  return realpath(file.c_str(), resolved) != nullptr;
}

// The reason if the path is a link to a descriptor of a file that was removed; else empty.
std::string removed_file_reason(const std::string &file) {
  constexpr std::string_view MARK = " (deleted)";
  std::error_code error;
  const std::string target = std::filesystem::read_symlink(file, error);
  if (!target.ends_with(MARK)) {
    return "";
  }
  const std::string directory = std::filesystem::path(target).parent_path();
  return access(directory.c_str(), F_OK) == 0
             ? "has no name in its directory " + escaped_name(directory) + " any more"
             : "its directory " + escaped_name(directory) + " is gone";
}

// Why a file cannot get its own data back. That needs a temporary file in its directory if the file
// shares data.
std::string recovery_failure_reason(const std::string &file, int error) {
  char resolved[PATH_MAX];
  struct stat status = {};
  if (realpath(file.c_str(), resolved) == nullptr || stat(resolved, &status) != 0) {
    const std::string removed = removed_file_reason(file);
    return removed.empty() ? std::strerror(error) : removed;
  }
  if (query_layer(file) == -EOPNOTSUPP) {
    return describe_error(EOPNOTSUPP);
  }
  const std::string directory = std::filesystem::path(resolved).parent_path();
  const velmarin::unique_fd fd(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  const int open_error = fd.is_open() ? 0 : errno;
  struct stat temporary = {};
  const bool is_elsewhere = fstat(fd.get(), &temporary) == 0 && temporary.st_dev != status.st_dev;
  if (!is_elsewhere && open_error == 0) {
    return std::strerror(error);
  }
  return "cannot create a temporary file in " + escaped_name(directory) + ": " +
         (is_elsewhere ? "it is on another file system" : std::strerror(open_error));
}

// After a refusal: makes the first file plain again if it was plain before and no other file was
// merged onto it.
void undo_layer(const Files &files, int64_t layer_before) {
  const int64_t layer = query_layer(files[0]);
  const bool is_used = std::any_of(files.begin() + 1, files.end(), [layer](const auto &file) {
    return query_layer(file) == layer;
  });
  if (layer_before == 0 && layer > 0 && !is_used) {
    drop_layer(files[0]);
  }
}

// What `dedup` did: the record says that the files are identical, the extents whether they share.
std::string describe_dedup(const std::string &first, const std::string &second) {
  const std::string name = escaped_name(first);
  const Sharing sharing = sharing_between(first, second);
  if (sharing.is_complete()) {
    return "shares the data of " + name;
  }
  const std::string details = describe(sharing);
  return "is recorded as identical to the data of " + name +
         (!can_share_data(second) ? CANNOT_SHARE
          : details.empty()       ? ""
                                  : "; " + details);
}

// Opens the file as merging does. Returns 0 or an errno.
int error_of_opening(const std::string &file) {
  const velmarin::unique_fd fd(open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  return fd.is_open() ? 0 : errno;
}

bool dedup(const Files &files, LogLines &log) {
  if (reject_unusable(files) || reject_same_file(files)) {
    return false;
  }
  // The library requires a path with a directory.
  const std::string first = files[0].find('/') == std::string::npos ? "./" + files[0] : files[0];
  const std::string &second = files[1];
  const int64_t layer = query_layer(first);
  const int result = sisFileTaskImpl(first.c_str(), second.c_str());
  if (result == 0) {
    print_result(second, describe_dedup(files[0], second));
    return true;
  }
  undo_layer(files, layer);
  if (result > 0) {
    return fail(second, "cannot share the data of " + escaped_name(files[0]) + ": " +
                            describe_sharing_error(first, second, result));
  }
  const bool is_first = error_of_opening(first) != 0;
  return fail(is_first ? files[0] : second, failure_reason(is_first ? first : second, log));
}

bool info(const Files &files, LogLines &log) {
  return for_each(files, log, [&](const std::string &file) {
    const int result = getSISFileInfoImpl(file.c_str());
    if (result < 0) {
      return fail(file, failure_reason(file, log));
    }
    print_result(file, describe_layer(file));
    return true;
  });
}

// After the record is gone.
std::string describe_own_data(const std::string &file) {
  const Sharing sharing = sharing_of(file);
  return sharing.shared_bytes == 0 ? "has its own data" : "is a plain file; " + describe(sharing);
}

bool recover(const Files &files, LogLines &log) {
  return for_each(files, log, [&](const std::string &file) {
    const int result = recoverFileImpl(file.c_str());
    if (result == 0) {
      print_result(file, describe_own_data(file));
      return true;
    }
    if (result < -1 && query_layer(file) == 0) {
      print_result(file, "was already a plain file" + sharing_remark(file, false));
      return true;
    }
    // -2 is also the errno of a missing file, or of one without a name.
    if (result == -2 && has_name(file)) {
      return fail(file, "is still attached to a layered inode");
    }
    return fail(file,
                result == -1 ? failure_reason(file, log) : recovery_failure_reason(file, -result));
  });
}

std::string group_failure_reason(const Files &files, int error) {
  for (const std::string &file : files) {
    std::string reason = describe_sharing_error(files[0], file, error);
    if (reason != describe_error(error)) {
      return reason;
    }
  }
  return describe_error(error);
}

bool group(const Files &files, LogLines &) {
  if (files.size() < 2) {
    return fail(files[0], "a group needs at least two files");
  }
  if (reject_unusable(files) || reject_same_file(files)) {
    return false;
  }
  std::vector<char *> paths;
  for (const std::string &file : files) {
    paths.push_back(const_cast<char *>(file.c_str()));
  }
  const int64_t layer = query_layer(files[0]);
  const int error = sis_them_all(paths.data(), static_cast<int>(paths.size()));
  if (error != 0) {
    undo_layer(files, layer);
  }
  for (const std::string &file : files) {
    print_result(file, describe_layer(file));
  }
  for (const std::string &file : files) {
    if (const int open_error = error_of_opening(file); error != 0 && open_error != 0) {
      return fail(file, std::strerror(open_error));
    }
  }
  return error == 0 || fail(files[0], std::string("not all files of the group were merged: ") +
                                          group_failure_reason(files, error));
}

// The copy is private to its owner until it has the permissions of its source.
int private_copy(const std::string &source, const std::string &target) {
  const PrivateFiles new_file;
  return reflink_copy(source.c_str(), target.c_str());
}

std::string describe_copy(const std::string &source, const std::string &target) {
  const std::string name = escaped_name(source);
  if (!can_share_data(target)) {
    return "a new file with a copy of the data of " + name + CANNOT_SHARE;
  }
  const Sharing sharing = sharing_between(source, target);
  if (sharing.is_complete()) {
    return "a new file that shares the data of " + name;
  }
  const Space &taken = sharing.taken;
  return "a new file with a copy of the data of " + name + ", which takes " +
         (taken.uncertain > 0 ? "up to " : "") + format_size(taken.certain + taken.uncertain) +
         " more";
}

bool copy(const Files &files, LogLines &) {
  const std::string &source = files[0];
  const std::string &target = files[1];
  struct stat status = {};
  const bool existed = lstat(target.c_str(), &status) == 0;
  if (reject_unusable({source})) {
    return false;
  }
  const int error = private_copy(source, target);
  if (error == 0) {
    print_result(target, describe_copy(source, target));
    if (const int unset = copy_permissions(source, target); unset != 0) {
      return fail(target, std::string("cannot be given the permissions of its source: ") +
                              std::strerror(unset));
    }
    return true;
  }
  const bool is_left = !existed && lstat(target.c_str(), &status) == 0;
  return fail(target, "cannot copy " + escaped_name(source) + ": " + describe_error(error) +
                          (is_left ? "; the new file remains, empty" : ""));
}

bool revoke(const Files &files, LogLines &log) {
  return for_each(files, log, [](const std::string &file) {
    const int result = revoke_file(file.c_str());
    if (result == 0) {
      print_result(file, describe_own_data(file));
      return true;
    }
    // 1 means a plain file, but is also an errno (EPERM).
    if (result == 1 && query_layer(file) == 0) {
      print_result(file, "was already a plain file" + sharing_remark(file, false));
      return true;
    }
    return fail(file, "cannot be revoked: " + recovery_failure_reason(file, result));
  });
}

bool freeze(const Files &files, LogLines &log) {
  return for_each(files, log, [&](const std::string &file) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) {
      return fail(file, std::strerror(errno));
    }
    const int result =
        setCheckFlagImpl(file.c_str(), status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
    if (result == 0) {
      print_result(file, "frozen: its coincide flag is set until it changes");
      return true;
    }
    if (result > 0) {
      return fail(file, "is attached to a layered inode; its flag was not changed");
    }
    if (result == -1 && log.last_message().empty()) {
      return fail(file, "not frozen: it has just changed");
    }
    return fail(file, result == -1 ? failure_reason(file, log) : describe_error(-result));
  });
}

bool flags(const Files &files, LogLines &log) {
  return for_each(files, log, [&](const std::string &file) {
    const int word = getCoincideFlagImpl(file.c_str());
    if (word < 0) {
      return fail(file, word == -1 ? failure_reason(file, log) : describe_error(-word));
    }
    const bool is_frozen = (static_cast<unsigned>(word) & velmarin::SIS_FLAG_COINCIDE) != 0;
    char text[48];
    std::snprintf(text, sizeof text, "%s (flags 0x%x)", is_frozen ? "frozen" : "not frozen",
                  static_cast<unsigned>(word));
    print_result(file, text);
    return true;
  });
}

}  // namespace

const std::vector<FileCommand> &file_commands() {
  static const std::vector<FileCommand> commands = {
      {"dedup", "Make FILE2 share the data of FILE1", {"FILE1", "FILE2"}, dedup},
      {"info", "Tell whether files are plain or share data", {"FILE"}, info},
      {"recover", "Give files their own data back and check the result", {"FILE"}, recover},
      {"group", "Make identical files share one new copy of their data", {"FILE"}, group},
      {"copy", "Create DST as a new file that shares the data of SRC", {"SRC", "DST"}, copy},
      {"revoke", "Give files that share data their own data back", {"FILE"}, revoke},
      {"freeze", "Set the coincide flag, which is cleared when a file changes", {"FILE"}, freeze},
      {"flags", "Tell whether files are frozen", {"FILE"}, flags}};
  return commands;
}

}  // namespace tool
