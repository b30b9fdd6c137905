#include "share_plan.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>

namespace tool {
namespace {

// Files that share one copy of the data.
struct Copy {
  std::vector<size_t> files;  // indexes in the group
  uint64_t freed_bytes = 0;   // certain, once none of the files refers to it
  bool is_layered = false;
};

// Numbers the copies. Files share one if they have the same extents or, where these are unknown,
// the same layered inode.
std::vector<Copy> copies_of(FoundGroup &group, const Share &share,
                            const std::vector<ExtentMap> &maps) {
  std::vector<Copy> copies;
  std::map<std::vector<MappedData>, size_t> by_data;
  std::map<uint32_t, size_t> by_layer;
  for (const size_t index : share.files) {
    FileState &state = group.files[index].state;
    size_t number = copies.size();
    if (maps[index].is_known) {
      number = by_data.try_emplace(maps[index].data, number).first->second;
    } else if (state.layer != 0) {
      number = by_layer.try_emplace(state.layer, number).first->second;
    }
    if (number == copies.size()) {
      copies.emplace_back();
    }
    copies[number].files.push_back(index);
    copies[number].is_layered |= state.layer != 0;
    state.copy = static_cast<uint32_t>(number);
  }
  for (const size_t index : share.files) {
    FileState &state = group.files[index].state;
    state.has_twin = copies[state.copy].files.size() > 1;
  }
  return copies;
}

// Works out what each copy occupies alone.
void compute_freed_bytes(std::vector<Copy> &copies, const std::vector<ExtentMap> &maps,
                         SpaceAccount &account) {
  for (Copy &copy : copies) {
    for (const size_t index : copy.files) {
      account.remove(maps[index]);
    }
    copy.freed_bytes = account.freed().certain;
    for (const size_t index : copy.files) {
      account.add(maps[index]);
    }
  }
}

// Puts the best source first, and before it none that cannot be the source. It comes from the copy
// that would free the least space or, if equal, has the most files, and is attached to a layered
// inode if possible.
void sort_files(FoundGroup &group, Share &share, const std::vector<Copy> &copies) {
  const auto rank = [&](size_t index) {
    const FileState &state = group.files[index].state;
    const Copy &copy = copies[state.copy];
    return std::tuple(state.source_obstacle != 0, copy.freed_bytes, SIZE_MAX - copy.files.size(),
                      !copy.is_layered, state.copy, state.layer == 0);
  };
  std::ranges::stable_sort(share.files, {}, rank);
}

// Simulates merging all other copies.
Space reclaimable(const FoundGroup &group, const Share &share, const std::vector<ExtentMap> &maps,
                  SpaceAccount &account, bool is_btrfs) {
  const size_t source_index = share.files.front();
  const uint32_t source = group.files[source_index].state.copy;
  Space unknown;
  uint64_t records = group.files[source_index].state.record_bytes;
  for (const size_t index : share.files) {
    const FileState &state = group.files[index].state;
    if (state.copy == source || state.obstacle != 0) {
      continue;
    }
    records += state.record_bytes;
    if (!maps[index].is_known) {
      unknown.uncertain += state.allocated_bytes;
    }
    account.remove(maps[index]);
    if (!is_btrfs) {
      account.add_common_unwritten(maps[index], maps[source_index]);
    }
  }
  unknown += account.freed();
  return unknown.less(records);
}

uint64_t unmerged_bytes(const FoundGroup &group, const Share &share) {
  uint64_t bytes = 0;
  std::set<uint32_t> counted = {group.files[share.files.front()].state.copy};
  for (const size_t index : share.files) {
    const FileState &state = group.files[index].state;
    if (state.obstacle == 0 && counted.insert(state.copy).second) {
      bytes += state.allocated_bytes;
    }
  }
  return bytes;
}

// The additional space that separate copies would occupy: every use of a block but the first.
uint64_t saved_bytes(const std::vector<ExtentMap> &maps) {
  std::vector<DiskRange> uses;
  for (const ExtentMap &map : maps) {
    uses.insert(uses.end(), map.used.begin(), map.used.end());
  }
  std::sort(uses.begin(), uses.end());
  uint64_t bytes = 0;
  uint64_t end = 0;  // of the uses so far
  for (const DiskRange &use : uses) {
    bytes += std::min(end, use.end) - std::min(end, use.begin);
    end = std::max(end, use.end);
  }
  return bytes;
}

// Drops what files hold that merging cannot change: they count like files elsewhere.
void release_unchangeable(const FoundGroup &group, const Share &share,
                          std::vector<ExtentMap> &maps) {
  for (const size_t index : share.files) {
    if (group.files[index].state.obstacle != 0) {
      maps[index].held.clear();
      maps[index].inode.reset();
    }
  }
}

}  // namespace

SpaceAccount account_of(const Volume &volume, const std::vector<ExtentMap> &maps) {
  std::set<btrfs::Inode> known;
  for (const ExtentMap &map : maps) {
    if (map.is_known && map.inode) {
      known.insert(*map.inode);
    }
  }
  const int fd = volume.fd.get();
  SpaceAccount account([fd, known = std::move(known)](uint64_t address) {
    const auto references = btrfs::references_of(fd, address);
    return !references || !std::all_of(references->begin(), references->end(),
                                       [&](const auto &inode) { return known.contains(inode); });
  });
  for (const ExtentMap &map : maps) {
    account.add(map);
  }
  return account;
}

void plan_share(FoundGroup &group, Share &share, std::vector<ExtentMap> maps,
                const Volume &volume) {
  std::vector<Copy> copies = copies_of(group, share, maps);
  if (share.can_share) {
    share.saved_bytes = saved_bytes(maps);
    release_unchangeable(group, share, maps);
    SpaceAccount account = account_of(volume, maps);
    if (copies.size() > 1) {
      compute_freed_bytes(copies, maps, account);
    }
    sort_files(group, share, copies);
    share.reclaimable = reclaimable(group, share, maps, account, volume.is_btrfs);
  } else {
    sort_files(group, share, copies);
  }
  share.unmerged_bytes = unmerged_bytes(group, share);
}

}  // namespace tool
