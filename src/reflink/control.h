// The requests that the library makes of the file system: one typed function for each control code
// and use. Each returns the result of ioctl and leaves errno as ioctl set it; none logs.
#pragma once

#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cstdint>

#include "velmarin/control_codes.h"

namespace velmarin {

// Fills `temporary_fd`, an unnamed temporary file, with the data of `src_fd`.
inline int clone_into_temporary(int temporary_fd, int src_fd) {
  sis_clone_arg argument = {static_cast<uint32_t>(src_fd), SIS_CLONE_FLAGS};
  return ioctl(temporary_fd, SIS_IOC_CLONE_FILE, &argument);
}

// Turns the filled temporary file into a layered inode and attaches `src_fd` to it.
inline int connect_layer(int src_fd, int temporary_fd) {
  sis_connect_arg argument = {static_cast<uint32_t>(temporary_fd)};
  return ioctl(src_fd, SIS_IOC_CONNECT, &argument);
}

// Makes `target_fd` share the data of `src_fd`. `mode` is SIS_DEDUP_ATTACHED or SIS_DEDUP_COPY.
inline int share_data(int target_fd, int src_fd, uint32_t mode) {
  sis_dedup_arg argument = {static_cast<uint32_t>(src_fd), mode};
  return ioctl(target_fd, SIS_IOC_DEDUP_FILE, &argument);
}

// Gives the file its own data back.
inline int revoke(int fd) {
  return ioctl(fd, SIS_IOC_REVOKE, nullptr);
}

// The same request, with the descriptor itself as the argument, which is not read.
inline int revoke_with_descriptor(int fd) {
  uint32_t word = static_cast<uint32_t>(fd);
  return ioctl(fd, SIS_IOC_REVOKE, &word);
}

// `info` is valid only on success.
inline int query_file_info(int fd, sis_file_info *info) {
  *info = {};
  return ioctl(fd, SIS_IOC_GET_FILE_INFO, info);
}

inline int set_coincide_flag(int fd) {
  sis_coincide_arg argument = {SIS_FLAG_COINCIDE, SIS_COINCIDE_SET};
  return ioctl(fd, SIS_IOC_COINCIDE_FLAG, &argument);
}

inline int clear_coincide_flag(int fd) {
  sis_coincide_arg argument = {SIS_FLAG_COINCIDE, SIS_COINCIDE_CLEAR};
  return ioctl(fd, SIS_IOC_COINCIDE_FLAG, &argument);
}

// Requests the bits in `*flags` and stores the file's current flag word there.
inline int get_flag_word(int fd, uint32_t *flags) {
  sis_coincide_arg argument = {*flags, SIS_COINCIDE_GET};
  const int result = ioctl(fd, SIS_IOC_COINCIDE_FLAG, &argument);
  *flags = argument.flags;
  return result;
}

// Stores the inode flags (FS_*_FL) in `*flags`. The kernel writes 32 bits, whatever size the
// request code encodes.
inline int get_inode_flags(int fd, uint32_t *flags) {
  *flags = 0;
  return ioctl(fd, static_cast<unsigned>(FS_IOC_GETFLAGS), flags);
}

}  // namespace velmarin
