// Counts the files of a group that refer to each range on disk, and so knows what is freed when
// some of them no longer do.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "extents.h"
#include "space.h"

namespace tool {

class SpaceAccount {
 public:
  // `is_held_elsewhere` returns whether anything besides the files of this account may refer to a
  // range. It is called only for shared ranges to which none of these files refers any more.
  explicit SpaceAccount(std::function<bool(uint64_t address)> is_held_elsewhere)
      : is_held_elsewhere_(std::move(is_held_elsewhere)) {}

  void add(const ExtentMap &map);

  // Removes what the file no longer refers to once it shares the data of another. Ranges beyond its
  // end stay.
  void remove(const ExtentMap &map);

  // Adds what XFS leaves to `map` after merging: its own blocks where neither file has written any.
  void add_common_unwritten(const ExtentMap &map, const ExtentMap &source);

  // The space to which the files no longer refer.
  const Space &freed() const { return freed_; }

 private:
  // Keyed by the first address; segments do not overlap.
  struct Segment {
    uint64_t end;
    uint64_t bytes;
    bool is_size_known;
    bool is_perhaps;
    uint32_t references = 0;
    bool is_shared = false;
    enum class Held { not_asked, no, perhaps } held = Held::not_asked;
  };
  using Segments = std::map<uint64_t, Segment>;

  void add_reference(const HeldRange &range);
  void drop_reference(const HeldRange &range);
  void split_at(uint64_t address);
  Segments::iterator add_segment(Segments::iterator position, uint64_t begin, uint64_t end,
                                 const HeldRange &range);
  Space space_of(uint64_t address, Segment &segment);

  std::function<bool(uint64_t)> is_held_elsewhere_;
  Segments segments_;
  Space freed_;
};

}  // namespace tool
