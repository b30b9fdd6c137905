#include "file_digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "common/unique_fd.h"
#include "scan_probes.h"
#include "velmarin/primitives.h"

namespace tool {
namespace {

constexpr int OPEN_FLAGS = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr size_t BLOCK_SIZE = 128 * 1024;
constexpr size_t PATTERN_BLOCK = 4096;

// Returns 0 or ESTALE.
int check_unchanged(int fd, const struct stat &before) {
  struct stat now = {};
  const bool is_same =
      fstat(fd, &now) == 0 && S_ISREG(now.st_mode) && now.st_dev == before.st_dev &&
      now.st_ino == before.st_ino && now.st_size == before.st_size &&
      now.st_mtim.tv_sec == before.st_mtim.tv_sec && now.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
  return is_same ? 0 : ESTALE;
}

// Returns 0 or an errno.
int hash_contents(int fd, EVP_MD_CTX *context) {
  std::vector<unsigned char> block(BLOCK_SIZE);
  ssize_t count = 0;
  while ((count = TEMP_FAILURE_RETRY(read(fd, block.data(), block.size()))) > 0) {
    if (EVP_DigestUpdate(context, block.data(), static_cast<size_t>(count)) != 1) {
      return EIO;
    }
  }
  return count < 0 ? errno : 0;
}

}  // namespace

int read_digest(const std::string &path, const struct stat &status,
                std::array<uint8_t, 32> &digest) {
  const velmarin::unique_fd fd(open(path.c_str(), OPEN_FLAGS));
  if (!fd.is_open()) {
    return errno;
  }
  ++probe_counts.read;
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    return ENOMEM;
  }
  int error = check_unchanged(fd.get(), status);
  if (error == 0) {
    error = hash_contents(fd.get(), context.get());
  }
  if (error == 0) {
    error = check_unchanged(fd.get(), status);
  }
  if (error == 0 && EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) != 1) {
    error = EIO;
  }
  return error;
}

uint64_t read_pattern(const std::string &path) {
  const velmarin::unique_fd fd(open(path.c_str(), OPEN_FLAGS));
  std::array<unsigned char, 2 * PATTERN_BLOCK> blocks;
  constexpr auto WHOLE = static_cast<ssize_t>(PATTERN_BLOCK);
  const bool is_read = pread(fd.get(), blocks.data(), PATTERN_BLOCK, 0) == WHOLE &&
                       pread(fd.get(), blocks.data() + PATTERN_BLOCK, PATTERN_BLOCK,
                             PATTERN_MIN_SIZE - PATTERN_BLOCK) == WHOLE;
  return is_read ? crc64_be(0, blocks.data(), blocks.size()) : 0;
}

}  // namespace tool
