// The requests that the library makes of the file system: one typed function for each control code
// and use. All return what ioctl returned and leave errno as it set it; none logs.
#pragma once

#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cstdint>

#include "velmarin/control_codes.h"

namespace velmarin {

// `temporary_fd`, an unnamed temporary file, receives the data of `src_fd`.
inline int clone_into_temporary(int temporary_fd, int src_fd) {
  sis_clone_arg argument = {static_cast<uint32_t>(src_fd), SIS_CLONE_FLAGS};
  return ioctl(temporary_fd, SIS_IOC_CLONE_FILE, &argument);
}

// The filled temporary file becomes a layered inode, to which `src_fd` is attached.
inline int connect_to_layer(int src_fd, int temporary_fd) {
  sis_connect_arg argument = {static_cast<uint32_t>(temporary_fd)};
  return ioctl(src_fd, SIS_IOC_CONNECT, &argument);
}

// `target_fd` comes to share the data of `src_fd`. `mode` is SIS_DEDUP_ATTACHED or SIS_DEDUP_COPY.
inline int share_data(int target_fd, int src_fd, uint32_t mode) {
  sis_dedup_arg argument = {static_cast<uint32_t>(src_fd), mode};
  return ioctl(target_fd, SIS_IOC_DEDUP_FILE, &argument);
}

// The file gets its own data back.
inline int revoke(int fd) {
  return ioctl(fd, SIS_IOC_REVOKE, nullptr);
}

// The same request, with the descriptor itself as its unread argument.
inline int revoke_with_descriptor(int fd) {
  uint32_t word = static_cast<uint32_t>(fd);
  return ioctl(fd, SIS_IOC_REVOKE, &word);
}

// `info` means something only after a success.
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

// Asks for the bits in `*flags` and leaves the file's present flag word there.
inline int get_flag_word(int fd, uint32_t *flags) {
  sis_coincide_arg argument = {*flags, SIS_COINCIDE_GET};
  const int result = ioctl(fd, SIS_IOC_COINCIDE_FLAG, &argument);
  *flags = argument.flags;
  return result;
}

// Leaves the inode flags (FS_*_FL) in `*flags`. The kernel writes 32 bits, whatever size the code
// names.
inline int get_inode_flags(int fd, uint32_t *flags) {
  *flags = 0;
  return ioctl(fd, static_cast<unsigned>(FS_IOC_GETFLAGS), flags);
}

}  // namespace velmarin
