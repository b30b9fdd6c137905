// Doubly linked lists of records that carry their own links. A list is a ring that includes its
// head, so no operation needs a special case for the ends. No function here locks or allocates.
#pragma once

#include <bit>
#include <cstddef>

namespace velmarin {

// The head of a list, or a record's link in one. The head of an empty list points to itself, as
// does a link that is on no list.
struct list_head {
  list_head *next;
  list_head *prev;
};
static_assert(sizeof(list_head) == 2 * sizeof(void *));

inline void list_init(list_head *head) {
  head->next = head;
  head->prev = head;
}

inline bool list_is_empty(const list_head *head) {
  return head->next == head;
}

inline void list_append(list_head *head, list_head *link) {
  link->prev = head->prev;
  link->next = head;
  head->prev->next = link;
  head->prev = link;
}

// Leaves the link pointing to itself.
inline void list_unlink(list_head *link) {
  link->prev->next = link->next;
  link->next->prev = link->prev;
  list_init(link);
}

// Moves all elements of `from` to the tail of `to`, in order, and leaves `from` empty.
inline void list_append_all(list_head *to, list_head *from) {
  if (list_is_empty(from)) {
    return;
  }
  from->next->prev = to->prev;
  to->prev->next = from->next;
  from->prev->next = to;
  to->prev = from->prev;
  list_init(from);
}

// The record whose field `Position` is `member`.
template <auto Position, typename Owner, typename Member>
Owner *owner_by_position(Member *member, Member Owner::*) {
  const auto offset = std::bit_cast<std::ptrdiff_t>(Position);
  return reinterpret_cast<Owner *>(reinterpret_cast<char *>(member) - offset);
}

template <auto Position, typename Member>
auto *owner_of(Member *member) {
  return owner_by_position<Position>(member, Position);
}

// The records linked through the field `Position`, for a range-based loop. The loop body must not
// unlink the current record.
template <auto Position>
class list_range {
 public:
  explicit list_range(list_head *head) : head_(head) {}

  struct iterator {
    list_head *link;
    auto &operator*() const { return *owner_of<Position>(link); }
    void operator++() { link = link->next; }
    bool operator!=(const iterator &other) const { return link != other.link; }
  };
  iterator begin() const { return {head_->next}; }
  iterator end() const { return {head_}; }

 private:
  list_head *head_;
};

}  // namespace velmarin
