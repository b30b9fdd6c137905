// Keeps files apart whose inode numbers agree in their low 32 bits, all that a run of the library
// compares of them. The first run over a tree sees the numbers that fit into 32 bits. If there are
// others, further runs follow: each sees one file of each low half, until none is kept back.
#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace tool {

// What a run leaves to the next.
struct KeptBack {
  std::unordered_set<uint64_t> inodes;       // not filled by a first run, which keeps all wide ones
  std::unordered_set<uint64_t> directories;  // checksums of the paths that lead to the files

  bool is_empty() const { return directories.empty(); }
};

class WideInodes {
 public:
  // Prepares a further run. Call it after all first ones, which need no preparation. `is_second`:
  // it takes any number that is too wide for the first.
  void begin_further(KeptBack expected, bool is_second);

  // Whether a further run has to enter the directory.
  bool leads_to_files(std::string_view directory) const;

  // Before the run: gives the low half to this file. Returns false if the run cannot take it.
  bool reserve(uint64_t inode);

  // Whether the run may see the file. Keeps it back for the next run otherwise. Thread-safe.
  bool take(uint64_t inode, std::string_view path) {
    return is_further_ || inode > UINT32_MAX ? take_wide(inode, path) : true;
  }

  // The whole number of the file that took the low half in this run.
  uint64_t whole_number(uint32_t low) const;

  // What the run has kept back. Empty if there is no need for another.
  KeptBack take_kept();

 private:
  bool take_wide(uint64_t inode, std::string_view path);
  bool is_expected(uint64_t inode) const;
  void note_directories(std::string_view path);

  bool is_further_ = false;
  bool is_second_ = false;
  KeptBack expected_;
  std::mutex lock_;                               // guards the following while a run is under way
  std::unordered_map<uint32_t, uint32_t> taken_;  // by the low half; the upper half
  KeptBack kept_;
};

}  // namespace tool
