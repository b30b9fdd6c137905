// Names the digest file.

#include "fbddp/digest_name.h"

#include <bounds_checked.h>
#include <openssl/sha.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "common/heap_ptr.h"
#include "common/log.h"

namespace velmarin {
namespace {

constexpr int NAMING_FAILED = 1;

// Concatenates the root paths without separators or terminators. An empty path is skipped, since a
// bounded copy may refuse a destination of 0 bytes.
bool join_roots(const char **roots, int root_count, char *joined, uint32_t size) {
  uint32_t used = 0;
  for (int i = 0; i < root_count; i++) {
    const size_t length = strlen(roots[i]);
    if (length != 0 && memcpy_s(joined + used, size - used, roots[i], length) != 0) {
      return false;
    }
    used += static_cast<uint32_t>(length);
  }
  return true;
}

bool print_name(sis_context *ctx, const unsigned char *digest) {
  for (size_t i = 0; i < SHA256_DIGEST_LENGTH; i++) {
    const size_t written = 2 * i;
    if (snprintf_s(ctx->pname + written, DIGEST_NAME_LENGTH + 1 - written,
                   DIGEST_NAME_LENGTH - written, "%02x", digest[i]) < 0) {
      return false;
    }
  }
  return true;
}

bool print_digest_name(sis_context *ctx, const char *joined, uint32_t size) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  if (SHA256(reinterpret_cast<const unsigned char *>(joined), size, digest) == nullptr) {
    return false;
  }
  errno = 0;  // the digest may have set it without failing
  return print_name(ctx, digest);
}

}  // namespace

int name_digest_file(sis_context *ctx, const char **roots, int root_count) {
  uint32_t size = 0;
  for (int i = 0; i < root_count; i++) {
    size += static_cast<uint32_t>(strlen(roots[i]));
  }
  // Without roots the size is 0, and null is not a failure.
  const heap_ptr<char> joined = heap_allocate<char>(size);
  if (joined == nullptr && size != 0) {
    log_erro("fail to allocate name buffer for %s", "SAVED");
    return NAMING_FAILED;
  }
  // A bounded function that fails need not set errno; the run fails all the same.
  int error = 0;
  errno = 0;
  if (!join_roots(roots, root_count, joined.get(), size) ||
      !print_digest_name(ctx, joined.get(), size)) {
    error = errno;
    log_erro("fail to calculate hash filename return %s", strerror(error));
    error = error != 0 ? error : NAMING_FAILED;
  }
  return error;
}

}  // namespace velmarin
