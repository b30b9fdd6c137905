// Name, locking and lifecycle of the digest file.

#include "digest_reservation/digest_file.h"

#include <bounds_checked.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "common/paths.h"

const char *suffix_list[1] = {".hsh"};

namespace velmarin {
namespace {

constexpr int PATH_FAILURE = 1;
constexpr mode_t DIGEST_FILE_MODE = 0777;  // reduced by the process's umask

// The path of the digest file while it is being built: the state directory and '/', then the file
// name. One byte longer than the longest path, so it is always terminated.
struct digest_path {
  char text[PATH_BUF_SIZE + 1];
  size_t name_start;

  char *name() { return text + name_start; }
  size_t name_room() const { return PATH_BUF_SIZE - name_start; }
};

// Builds the path up to the '/'. Returns false on failure.
bool form_directory(digest_path *path, const char *save_dir) {
  *path = {};
  const size_t length = strlen(save_dir);
  if (static_cast<int32_t>(length) >= static_cast<int32_t>(PATH_BUF_SIZE)) {
    // The misspelling is deliberate (sic): hosts rely on this line.
    log_erro("Too looong save_dir, %s\n", "quit!");
    return false;
  }
  if (strcpy_s(path->text, PATH_BUF_SIZE, save_dir) != 0) {
    log_erro("fail to copy string %s\n", save_dir);
    return false;
  }
  path->text[length] = '/';
  path->name_start = length + 1;
  return true;
}

// Appends the suffix to the name in `pname`, and both to the path.
bool append_file_name(digest_path *path, sis_context *ctx) {
  if (strcpy_s(ctx->pname + DIGEST_NAME_LENGTH, DIGEST_SUFFIX_SIZE, suffix_list[0]) != 0) {
    log_erro("fail to copy string %s\n", "suffix");
    return false;
  }
  if (strcpy_s(path->name(), path->name_room(), ctx->pname) != 0) {
    log_erro("fail to copy string %s\n", "pname");
    return false;
  }
  return true;
}

int clear_file_name(digest_path *path) {
  return memset_s(path->name(), path->name_room(), 0, path->name_room());
}

int clear_suffix(sis_context *ctx) {
  return memset_s(ctx->pname + DIGEST_NAME_LENGTH, DIGEST_SUFFIX_SIZE, 0, DIGEST_SUFFIX_SIZE);
}

// A descriptor below 1 means that no file is open. In a process that has closed its standard input,
// open may return 0; the file is then moved to another descriptor.
int move_off_zero(int fd) {
  if (fd != 0) {
    return fd;
  }
  const int moved = fcntl(fd, F_DUPFD, 1);
  const int error = errno;
  close(fd);
  errno = error;
  return moved;
}

// Returns 0 or the errno of the failed open.
int open_digest_file(const digest_path &path, int *fd, bool writing) {
  *fd = move_off_zero(writing ? open(path.text, O_RDWR | O_CREAT, DIGEST_FILE_MODE)
                              : open(path.text, O_RDONLY));
  if (*fd < 0) {
    const int error = errno;
    log_info("Cannot open %s returned %s\n", path.text, strerror(error));
    return error;
  }
  log_info("%s %s success\n", writing ? "CREATE" : "OPEN", path.text);
  return 0;
}

int lock_digest_file(const digest_path &path, int fd, bool writing) {
  // A signal, such as the one for the run's own time budget, must not end the wait: without the
  // lock this run would remove a file that another run is still writing.
  int result = 0;
  do {
    result = flock(fd, writing ? LOCK_EX : LOCK_SH);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int error = errno;
    log_info("Cannot %s lock %s returned %s\n", writing ? "exclusive" : "shared", path.text,
             strerror(error));
    return error;
  }
  return 0;
}

bool unlock_digest_file(const digest_path &path, int fd) {
  if (flock(fd, LOCK_UN) != 0) {
    const int error = errno;
    log_info("Cannot unlock %s returned %s\n", path.text, strerror(error));
    return false;
  }
  return true;
}

bool remove_digest_file(digest_path *path, sis_context *ctx) {
  if (!append_file_name(path, ctx)) {
    return false;
  }
  remove(path->text);
  if (clear_file_name(path) != 0) {
    log_erro("fail to reset %s\n", "pname");
  }
  return true;
}

}  // namespace

int create_open_hashfiles(sis_context *ctx, const char *save_dir, int *fd, unsigned write_mode) {
  const bool writing = (write_mode & OPEN_FOR_WRITING) != 0;
  digest_path path;
  if (!form_directory(&path, save_dir) || !append_file_name(&path, ctx)) {
    return PATH_FAILURE;
  }
  int error = open_digest_file(path, fd, writing);
  if (error != 0) {
    return error;
  }
  error = clear_file_name(&path);
  if (error != 0) {
    return error;
  }
  error = lock_digest_file(path, *fd, writing);
  if (error != 0) {
    return error;
  }
  return clear_suffix(ctx);
}

void destroy_exist_hashfiles(sis_context *ctx, const char *save_dir, int *fd, unsigned discard) {
  digest_path path;
  if (!form_directory(&path, save_dir)) {
    return;
  }
  if (*fd > 0) {
    if (!unlock_digest_file(path, *fd)) {
      return;
    }
    if ((discard & REMOVE_FILE) != 0) {
      close(*fd);
      if (!remove_digest_file(&path, ctx)) {
        return;
      }
    } else {
      fsync(*fd);
      close(*fd);
    }
  }
  if (clear_suffix(ctx) != 0) {
    log_erro("fail to reset %s\n", "suffix");
  }
}

}  // namespace velmarin
