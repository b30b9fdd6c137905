// The coincide flag of a file. The attribute holds the flag bits and the file's stamp when they
// were set. Once the file's size or modification time differs, the bits read as clear, so a `touch`
// clears them too. Two kinds of change after the flag was set leave the time as it is and go
// unnoticed: the rest of a long write(2) that had already begun, and stores through a shared
// mapping into a page that was already dirty (on tmpfs, already mapped).
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

#include "sisfs.h"

namespace velmarin::sisfs {
namespace {

constexpr char COINCIDE_ATTRIBUTE[] = "user.velmarin.coincide";
constexpr uint32_t COINCIDE_VERSION = 1;

struct coincide_record {
  uint32_t version;
  uint32_t flags;
  file_stamp file;
};
static_assert(sizeof(coincide_record) == 48);

bool has_record(int fd, const coincide_record &wanted) {
  coincide_record present;
  return read_attribute(fd, COINCIDE_ATTRIBUTE, &present, sizeof(present)) == 0 &&
         memcmp(&present, &wanted, sizeof(present)) == 0;
}

// The attribute of a file that is already frozen is not written again: a write costs many times as
// much as a read.
int set_flags(int fd, uint32_t flags) {
  file_status status;
  const int error = stat_settled(fd, &status);
  if (error != 0) {
    return error;
  }
  const coincide_record record = {COINCIDE_VERSION, flags, status.stamp};
  if (has_record(fd, record)) {
    return 0;
  }
  return write_attribute(fd, COINCIDE_ATTRIBUTE, &record, sizeof(record));
}

int clear_flags(int fd) {
  file_status status;
  const int error = stat_regular(fd, &status);
  if (error != 0) {
    return error;
  }
  return fremovexattr(fd, COINCIDE_ATTRIBUTE) == 0 || errno == ENODATA ? 0 : errno;
}

int get_flags(int fd, uint32_t *flags) {
  file_status status;
  int error = stat_regular(fd, &status);
  if (error != 0) {
    return error;
  }
  coincide_record record;
  error = read_attribute(fd, COINCIDE_ATTRIBUTE, &record, sizeof(record));
  if (error != 0 && error != ENODATA) {
    return error;
  }
  const bool is_set =
      error == 0 && record.version == COINCIDE_VERSION && is_unchanged(record.file, status.stamp);
  *flags = is_set ? record.flags & SIS_FLAG_COINCIDE : 0;
  return 0;
}

}  // namespace

int coincide_flag(int fd, sis_coincide_arg *argument) {
  if (argument->op == SIS_COINCIDE_GET) {
    return get_flags(fd, &argument->flags);
  }
  const bool is_change = argument->op == SIS_COINCIDE_SET || argument->op == SIS_COINCIDE_CLEAR;
  if (!is_change || argument->flags != SIS_FLAG_COINCIDE) {
    return EINVAL;
  }
  if (const int error = check_changeable(fd); error != 0) {
    return error;
  }
  return argument->op == SIS_COINCIDE_SET ? set_flags(fd, argument->flags) : clear_flags(fd);
}

}  // namespace velmarin::sisfs
