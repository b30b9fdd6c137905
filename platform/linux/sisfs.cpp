// The exported `ioctl`: handles the control codes of the deduplicating file system and passes every
// other request to the kernel. That includes unknown numbers of the same type, for which a file
// system without codes of its own returns ENOTTY.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "sisfs.h"
#include "velmarin/export.h"

namespace velmarin::sisfs {
namespace {

// A scan makes this request for every regular file, so a file without a record costs only one
// system call. The file's type is not checked: a directory, a pipe or a device is reported as not
// attached.
int get_file_info(int fd, void *argument) {
  layer_record record = {};
  const int error = read_attachment(fd, &record);
  if (error != 0 && error != ENODATA) {
    return error;
  }
  if (argument == nullptr) {
    return EFAULT;
  }
  sis_file_info info = {};
  if (error == 0) {
    info.deduped = record.deduped;
    info.layered = record.layered;
    info.layer_ino = record.layer_ino;
  }
  memcpy(argument, &info, sizeof(info));
  return 0;
}

// Only null is detected; any other argument must point to the record.
template <typename Argument>
int with_argument(int fd, const void *argument, int (*request)(int, const Argument &)) {
  if (argument == nullptr) {
    return EFAULT;
  }
  Argument copy;
  memcpy(&copy, argument, sizeof(copy));
  return request(fd, copy);
}

int coincide_request(int fd, void *argument) {
  if (argument == nullptr) {
    return EFAULT;
  }
  sis_coincide_arg copy;
  memcpy(&copy, argument, sizeof(copy));
  const int error = coincide_flag(fd, &copy);
  memcpy(argument, &copy, sizeof(copy));
  return error;
}

}  // namespace
}  // namespace velmarin::sisfs

// Like the kernel, uses only the low 32 bits of the request.
extern "C" VELMARIN_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
  using namespace velmarin;
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);

  const int saved_errno = errno;
  int error = 0;
  switch (static_cast<uint32_t>(request)) {
    case SIS_IOC_GET_FILE_INFO:
      error = sisfs::get_file_info(fd, argument);
      break;
    case SIS_IOC_COINCIDE_FLAG:
      error = sisfs::coincide_request(fd, argument);
      break;
    case SIS_IOC_CLONE_FILE:
      error = sisfs::with_argument<sis_clone_arg>(fd, argument, sisfs::clone_file);
      break;
    case SIS_IOC_CONNECT:
      error = sisfs::with_argument<sis_connect_arg>(fd, argument, sisfs::connect_layer);
      break;
    case SIS_IOC_DEDUP_FILE:
      error = sisfs::with_argument<sis_dedup_arg>(fd, argument, sisfs::dedup_file);
      break;
    case SIS_IOC_REVOKE:
      error = sisfs::revoke_file(fd);
      break;
    default:
      return sisfs::kernel_ioctl(fd, request, argument);
  }
  if (error != 0 && fcntl(fd, F_GETFD) < 0) {
    error = EBADF;  // takes precedence over any other error
  }
  errno = error != 0 ? error : saved_errno;
  return error != 0 ? -1 : 0;
}
