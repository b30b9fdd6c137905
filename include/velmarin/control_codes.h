// The control codes of the deduplicating file system: their values, their argument records and
// the meaning of every flag and operation word. All codes are issued with ioctl(2) on an open
// descriptor; all return a negative value and set errno on failure. Records are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmarin {

// Issued on a source file: the unnamed temporary file in `sis_connect_arg` becomes a layered inode
// and the source is attached to it.
inline constexpr unsigned SIS_IOC_CONNECT = 0x4004f532;

// Issued on a target file, which from then on shares the data of the source in `sis_dedup_arg`.
inline constexpr unsigned SIS_IOC_DEDUP_FILE = 0x4008f533;

// Issued on a deduplicated or layered file: the file gets its own data back. The argument may be
// null or point to a 32-bit word, which is not read. On Linux a file that was never attached is
// refused with EINVAL.
inline constexpr unsigned SIS_IOC_REVOKE = 0x4004f534;

// Fills `sis_file_info`. Fails with EOPNOTSUPP on a file system without deduplication.
inline constexpr unsigned SIS_IOC_GET_FILE_INFO = 0x8008f535;

// Issued on an unnamed temporary file (O_TMPFILE): it receives the data of the file in
// `sis_clone_arg`. The value is SIS_IOC_DEDUP_FILE with bit 2 set.
inline constexpr unsigned SIS_IOC_CLONE_FILE = 0x4008f537;

// Sets, reads or clears flag bits of a file; works on a read-only descriptor.
inline constexpr unsigned SIS_IOC_COINCIDE_FLAG = 0xc008f538;

struct sis_connect_arg {
  uint32_t layer_fd;  // descriptor of the unnamed temporary file that becomes the layered inode
};
static_assert(sizeof(sis_connect_arg) == 4);

inline constexpr uint32_t SIS_DEDUP_ATTACHED = 0;  // the source is attached to a layered inode
inline constexpr uint32_t SIS_DEDUP_COPY = 1;      // also fills a freshly created empty target

struct sis_dedup_arg {
  uint32_t src_fd;  // descriptor of the file whose data the target will share
  uint32_t mode;    // SIS_DEDUP_ATTACHED or SIS_DEDUP_COPY
};
static_assert(sizeof(sis_dedup_arg) == 8 && offsetof(sis_dedup_arg, mode) == 4);

// The only valid value of `sis_clone_arg::flags`.
inline constexpr uint32_t SIS_CLONE_FLAGS = 0x60;

struct sis_clone_arg {
  uint32_t src_fd;  // descriptor of the file whose data is cloned
  uint32_t flags;   // SIS_CLONE_FLAGS
};
static_assert(sizeof(sis_clone_arg) == 8 && offsetof(sis_clone_arg, flags) == 4);

// Written by the file system; the caller zeroes it first. Undefined after a failed request.
struct sis_file_info {
  uint8_t deduped;  // nonzero: deduplicated onto a layered inode
  uint8_t layered;  // nonzero: attached to a layered inode; 0: a plain file
  uint8_t reserved[2];
  uint32_t layer_ino;  // number of the layered inode
};
static_assert(sizeof(sis_file_info) == 8 && offsetof(sis_file_info, layered) == 1 &&
              offsetof(sis_file_info, layer_ino) == 4);

inline constexpr uint32_t SIS_COINCIDE_SET = 4;
inline constexpr uint32_t SIS_COINCIDE_GET = 8;
inline constexpr uint32_t SIS_COINCIDE_CLEAR = 0x10;

// The coincide flag. A file whose flag is set is frozen: the file system clears the flag when the
// file's content changes, if not sooner.
inline constexpr uint32_t SIS_FLAG_COINCIDE = 0x2;

struct sis_coincide_arg {
  uint32_t flags;  // in: the bits to act on; out, after SIS_COINCIDE_GET: the file's present bits
  uint32_t op;     // SIS_COINCIDE_SET, SIS_COINCIDE_GET or SIS_COINCIDE_CLEAR
};
static_assert(sizeof(sis_coincide_arg) == 8 && offsetof(sis_coincide_arg, op) == 4);

// The results of `check_file_status`.
inline constexpr int SIS_STATUS_PLAIN = 0;       // not attached to a layered inode
inline constexpr int SIS_STATUS_LAYERED = 1;     // attached to a layered inode, not deduplicated
inline constexpr int SIS_STATUS_DEDUPED = 2;     // deduplicated onto a layered inode
inline constexpr int SIS_STATUS_COMPRESSED = 3;  // compressed; nothing else was checked

}  // namespace velmarin
