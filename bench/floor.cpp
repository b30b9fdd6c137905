// floor DIRECTORY MINIMUM: the least that finding identical files costs on this machine. Walks the
// tree with one stat per entry, then computes, on all processors, the SHA-256 of every file of at
// least MINIMUM bytes that shares its size with another. Prints the seconds that both take.
//
// floor DIRECTORY open: the least time that a scan can take if it opens every file. Lists the tree,
// then, on all processors, opens each file by its path, reads its status and one attribute, and
// closes it. Prints the seconds that both take.

#include <fcntl.h>
#include <fts.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using names = std::vector<std::string>;

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Calls `visit` for every regular file, with its status if `options` request it.
template <typename Visit>
void walk(char *directory, int options, Visit visit) {
  char *roots[] = {directory, nullptr};
  FTS *tree = fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | options, nullptr);
  if (tree == nullptr) {
    perror(directory);
    return;
  }
  while (const FTSENT *entry = fts_read(tree)) {
    if (entry->fts_info == FTS_F || entry->fts_info == FTS_NSOK) {
      visit(*entry);
    }
  }
  fts_close(tree);
}

// Calls `process` for all names, on all processors.
template <typename Process>
void for_all(const names &files, Process process) {
  std::atomic<size_t> next = 0;
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < std::thread::hardware_concurrency(); i++) {
    threads.emplace_back([&] {
      for (size_t index = next++; index < files.size(); index = next++) {
        process(files[index]);
      }
    });
  }
}

void hash_file(const std::string &name) {
  static thread_local std::vector<unsigned char> block(1 << 18);
  static thread_local const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(
      EVP_MD_CTX_new(), EVP_MD_CTX_free);
  const int fd = open(name.c_str(), O_RDONLY);
  if (fd < 0) {
    return;
  }
  EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr);
  ssize_t count = 0;
  while ((count = read(fd, block.data(), block.size())) > 0) {
    EVP_DigestUpdate(digest.get(), block.data(), static_cast<size_t>(count));
  }
  unsigned char result[EVP_MAX_MD_SIZE];
  EVP_DigestFinal_ex(digest.get(), result, nullptr);
  close(fd);
}

void open_file(const std::string &name) {
  const int fd = open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  if (fd < 0) {
    return;
  }
  struct stat status;
  char value[64];
  if (fstat(fd, &status) == 0 && fgetxattr(fd, "user.floor", value, sizeof(value)) >= 0) {
    fprintf(stderr, "%s has the attribute\n", name.c_str());
  }
  close(fd);
}

// All files of at least `minimum` bytes that share their size with another inode.
names candidates_in(char *directory, off_t minimum) {
  std::map<off_t, std::map<ino_t, std::string>> by_size;
  walk(directory, 0, [&](const FTSENT &entry) {
    if (entry.fts_statp->st_size >= minimum) {
      by_size[entry.fts_statp->st_size].emplace(entry.fts_statp->st_ino, entry.fts_path);
    }
  });
  names candidates;
  for (const auto &[size, files] : by_size) {
    for (const auto &[inode, name] : files) {
      if (files.size() > 1) {
        candidates.push_back(name);
      }
    }
  }
  return candidates;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: floor DIRECTORY MINIMUM|open\n");
    return 2;
  }
  const bool opens = strcmp(argv[2], "open") == 0;
  auto start = std::chrono::steady_clock::now();
  names files;
  if (opens) {
    walk(argv[1], FTS_NOSTAT, [&](const FTSENT &entry) { files.push_back(entry.fts_path); });
  } else {
    files = candidates_in(argv[1], std::stoll(argv[2]));
  }
  printf("walk %.3f s\n", seconds_since(start));
  start = std::chrono::steady_clock::now();
  for_all(files, opens ? open_file : hash_file);
  printf("%s %.3f s, %zu files\n", opens ? "open" : "hash", seconds_since(start), files.size());
}
