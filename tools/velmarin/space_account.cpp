#include "space_account.h"

#include <algorithm>
#include <iterator>

namespace tool {

// A segment of unknown size is never split: all files refer to it by the same range.
void SpaceAccount::split_at(uint64_t address) {
  const auto next = segments_.upper_bound(address);
  if (next == segments_.begin()) {
    return;
  }
  const auto position = std::prev(next);
  if (position->first == address || position->second.end <= address) {
    return;
  }
  Segment tail = position->second;
  Segment &head = position->second;
  head.end = address;
  if (head.is_size_known) {
    head.bytes = head.end - position->first;
    tail.bytes = tail.end - address;
  }
  segments_.emplace_hint(next, address, tail);
}

Space SpaceAccount::space_of(uint64_t address, Segment &segment) {
  if (segment.is_shared && segment.held == Segment::Held::not_asked) {
    segment.held = is_held_elsewhere_(address) ? Segment::Held::perhaps : Segment::Held::no;
  }
  const bool is_certain =
      segment.is_size_known && !segment.is_perhaps && segment.held != Segment::Held::perhaps;
  return is_certain ? Space{segment.bytes, 0} : Space{0, segment.bytes};
}

// Adds a segment for a range that no segment covers. Returns its position.
SpaceAccount::Segments::iterator SpaceAccount::add_segment(Segments::iterator position,
                                                           uint64_t begin, uint64_t end,
                                                           const HeldRange &range) {
  return segments_.emplace_hint(position, begin,
                                Segment{.end = end,
                                        .bytes = range.is_size_known ? end - begin : range.bytes,
                                        .is_size_known = range.is_size_known,
                                        .is_perhaps = range.is_perhaps});
}

void SpaceAccount::add_reference(const HeldRange &range) {
  split_at(range.begin);
  split_at(range.end);
  for (uint64_t begin = range.begin; begin < range.end;) {
    auto position = segments_.lower_bound(begin);
    if (position == segments_.end() || position->first > begin) {
      const uint64_t next = position == segments_.end() ? range.end : position->first;
      position = add_segment(position, begin, std::min(next, range.end), range);
    } else if (position->second.references == 0) {
      const Space space = space_of(position->first, position->second);
      freed_.certain -= space.certain;
      freed_.uncertain -= space.uncertain;
    }
    Segment &segment = position->second;
    ++segment.references;
    segment.is_shared |= range.is_shared;
    segment.is_perhaps &= range.is_perhaps;
    if (!segment.is_size_known) {
      segment.bytes = std::max(segment.bytes, range.bytes);
    }
    begin = segment.end;
  }
}

void SpaceAccount::drop_reference(const HeldRange &range) {
  for (auto position = segments_.lower_bound(range.begin);
       position != segments_.end() && position->first < range.end; ++position) {
    if (--position->second.references == 0) {
      freed_ += space_of(position->first, position->second);
    }
  }
}

void SpaceAccount::add(const ExtentMap &map) {
  for (const HeldRange &range : map.held) {
    add_reference(range);
  }
}

void SpaceAccount::remove(const ExtentMap &map) {
  for (const HeldRange &range : map.held) {
    if (!range.is_beyond_end) {
      drop_reference(range);
    }
  }
}

void SpaceAccount::add_common_unwritten(const ExtentMap &map, const ExtentMap &source) {
  for (const MappedData &own : map.reserved) {
    for (const MappedData &other : source.reserved) {
      const uint64_t begin = std::max(own.offset, other.offset);
      const uint64_t end = std::min(own.end(), other.end());
      if (begin < end) {
        add_reference(
            {.begin = own.address + (begin - own.offset), .end = own.address + (end - own.offset)});
      }
    }
  }
}

}  // namespace tool
