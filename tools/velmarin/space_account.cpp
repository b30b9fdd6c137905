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
  const auto place = std::prev(next);
  if (place->first == address || place->second.end <= address) {
    return;
  }
  Segment tail = place->second;
  Segment &head = place->second;
  head.end = address;
  if (head.is_size_known) {
    head.bytes = head.end - place->first;
    tail.bytes = tail.end - address;
  }
  segments_.emplace_hint(next, address, tail);
}

Space SpaceAccount::space_of(uint64_t address, Segment &segment) {
  if (segment.is_shared && segment.held == Segment::Held::not_asked) {
    segment.held = is_held_elsewhere_(address) ? Segment::Held::perhaps : Segment::Held::no;
  }
  const bool is_certain = segment.is_size_known && segment.held != Segment::Held::perhaps;
  return is_certain ? Space{segment.bytes, 0} : Space{0, segment.bytes};
}

// Adds a segment for a range that no segment covers. Returns its position.
SpaceAccount::Segments::iterator SpaceAccount::cover(Segments::iterator place, uint64_t begin,
                                                     uint64_t end, const HeldRange &range) {
  Segment segment;
  segment.end = end;
  segment.bytes = range.is_size_known ? end - begin : range.bytes;
  segment.is_size_known = range.is_size_known;
  return segments_.emplace_hint(place, begin, segment);
}

void SpaceAccount::refer(const HeldRange &range) {
  split_at(range.begin);
  split_at(range.end);
  for (uint64_t begin = range.begin; begin < range.end;) {
    auto place = segments_.lower_bound(begin);
    if (place == segments_.end() || place->first > begin) {
      const uint64_t next = place == segments_.end() ? range.end : place->first;
      place = cover(place, begin, std::min(next, range.end), range);
    } else if (place->second.references == 0) {
      const Space space = space_of(place->first, place->second);
      given_back_.certain -= space.certain;
      given_back_.uncertain -= space.uncertain;
    }
    Segment &segment = place->second;
    ++segment.references;
    segment.is_shared |= range.is_shared;
    if (!segment.is_size_known) {
      segment.bytes = std::max(segment.bytes, range.bytes);
    }
    begin = segment.end;
  }
}

void SpaceAccount::release(const HeldRange &range) {
  for (auto place = segments_.lower_bound(range.begin);
       place != segments_.end() && place->first < range.end; ++place) {
    if (--place->second.references == 0) {
      given_back_ += space_of(place->first, place->second);
    }
  }
}

void SpaceAccount::add(const ExtentMap &map) {
  for (const HeldRange &range : map.held) {
    refer(range);
  }
}

void SpaceAccount::remove(const ExtentMap &map) {
  for (const HeldRange &range : map.held) {
    release(range);
  }
}

void SpaceAccount::keep_rest(const ExtentMap &map) {
  for (const HeldRange &range : map.held) {
    if (range.is_beyond_end) {
      refer(range);
    }
  }
}

void SpaceAccount::drop_rest(const ExtentMap &map) {
  for (const HeldRange &range : map.held) {
    if (range.is_beyond_end) {
      release(range);
    }
  }
}

void SpaceAccount::keep_common_reserve(const ExtentMap &map, const ExtentMap &source) {
  for (const MappedData &own : map.reserved) {
    for (const MappedData &other : source.reserved) {
      const uint64_t begin = std::max(own.offset, other.offset);
      const uint64_t end = std::min(own.offset + own.length, other.offset + other.length);
      if (begin < end) {
        refer({.begin = own.address + (begin - own.offset),
               .end = own.address + (end - own.offset),
               .bytes = end - begin});
      }
    }
  }
}

uint64_t SpaceAccount::shared_bytes() const {
  uint64_t bytes = 0;
  for (const auto &[address, segment] : segments_) {
    if (segment.references > 1 && segment.is_size_known) {
      bytes += (segment.references - 1) * segment.bytes;
    }
  }
  return bytes;
}

}  // namespace tool
