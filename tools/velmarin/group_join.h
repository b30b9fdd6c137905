// Joins the findings of several library runs: groups with the same content, and files without a
// match in their own run.
#pragma once

#include <array>
#include <map>
#include <span>
#include <utility>
#include <vector>

#include "digest_keeper.h"
#include "findings.h"
#include "volume_watch.h"

namespace tool {

class GroupJoin {
 public:
  GroupJoin(Findings &findings, DigestKeeper &keeper) : findings_(findings), keeper_(keeper) {}

  // Joins the groups of `findings` that have the same digest, and adds the collected files that are
  // identical to a file of another run. Computes digests that are not saved, until a stop is
  // requested.
  void run(std::vector<CollectedFile> files);

 private:
  using Digest = std::array<uint8_t, 32>;
  using FileId = std::pair<dev_t, uint64_t>;  // device and inode number
  using Content = std::pair<Digest, uint64_t>;

  void load_groups();
  void add(FoundFile file, const Digest &digest);
  void join_size(std::span<CollectedFile> files);
  void join_candidates(std::span<CollectedFile> files);
  bool is_known(const CollectedFile &file) const;
  bool find_digest(const CollectedFile &file, Digest &digest);
  void store_groups();

  Findings &findings_;
  DigestKeeper &keeper_;
  std::map<FileId, Digest> known_;
  std::map<Content, FoundGroup> groups_;
};

}  // namespace tool
