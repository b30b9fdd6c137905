// floor DIRECTORY MINIMUM: the least that finding identical files costs on this machine. Walks the
// tree with one stat for each entry, then computes the SHA-256 of every file of at least MINIMUM
// bytes that is not alone with its size, on all processors. Prints the seconds of both.

#include <fcntl.h>
#include <fts.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
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

// Files of one size, each inode once.
std::map<off_t, std::map<ino_t, std::string>> walk(char *directory, off_t minimum) {
  std::map<off_t, std::map<ino_t, std::string>> by_size;
  char *roots[] = {directory, nullptr};
  FTS *tree = fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr);
  if (tree == nullptr) {
    perror(directory);
    return by_size;
  }
  while (const FTSENT *entry = fts_read(tree)) {
    if (entry->fts_info == FTS_F && entry->fts_statp->st_size >= minimum) {
      by_size[entry->fts_statp->st_size].emplace(entry->fts_statp->st_ino, entry->fts_path);
    }
  }
  fts_close(tree);
  return by_size;
}

void hash_file(const std::string &name, EVP_MD_CTX *digest, std::vector<unsigned char> *block) {
  const int fd = open(name.c_str(), O_RDONLY);
  if (fd < 0) {
    return;
  }
  EVP_DigestInit_ex(digest, EVP_sha256(), nullptr);
  ssize_t count = 0;
  while ((count = read(fd, block->data(), block->size())) > 0) {
    EVP_DigestUpdate(digest, block->data(), static_cast<size_t>(count));
  }
  unsigned char result[EVP_MAX_MD_SIZE];
  EVP_DigestFinal_ex(digest, result, nullptr);
  close(fd);
}

void hash_all(const names &files) {
  std::atomic<size_t> next = 0;
  const auto work = [&] {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(),
                                                                         EVP_MD_CTX_free);
    std::vector<unsigned char> block(1 << 18);
    for (size_t i = next++; i < files.size(); i = next++) {
      hash_file(files[i], digest.get(), &block);
    }
  };
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < std::thread::hardware_concurrency(); i++) {
    threads.emplace_back(work);
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: floor DIRECTORY MINIMUM\n");
    return 2;
  }
  auto start = std::chrono::steady_clock::now();
  names candidates;
  for (const auto &[size, files] : walk(argv[1], std::stoll(argv[2]))) {
    for (const auto &[inode, name] : files) {
      if (files.size() > 1) {
        candidates.push_back(name);
      }
    }
  }
  printf("walk %.3f s\n", seconds_since(start));
  start = std::chrono::steady_clock::now();
  hash_all(candidates);
  printf("hash %.3f s, %zu files\n", seconds_since(start), candidates.size());
}
