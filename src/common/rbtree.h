// Searching an intrusive red-black tree and linking a new node. The tree has no lock: its user
// guards it, or builds it before other threads read it.
#pragma once

#include "velmarin/primitives.h"

namespace velmarin {

// Where a search ended: at a node that compares equal, or at the empty child position `slot` below
// `parent` (null in an empty tree) where a node with that key belongs.
struct rb_position {
  rb_node *match;
  rb_node *parent;
  rb_node **slot;
};

// Descends from the root. `compare(node)` returns a value below 0 to go left, above 0 to go right
// and 0 for a match.
template <typename Compare>
rb_position rb_search(rb_root *root, Compare compare) {
  rb_node *parent = nullptr;
  rb_node **slot = &root->node;
  while (*slot != nullptr) {
    parent = *slot;
    const int order = compare(parent);
    if (order == 0) {
      return {parent, nullptr, nullptr};
    }
    slot = order < 0 ? &parent->left : &parent->right;
  }
  return {nullptr, parent, slot};
}

// The node that compares equal, or null. Any number of threads may search a tree that no thread
// changes.
template <typename Compare>
rb_node *rb_find(const rb_root *root, Compare compare) {
  rb_node *node = root->node;
  while (node != nullptr) {
    const int order = compare(node);
    if (order == 0) {
      break;
    }
    node = order < 0 ? node->left : node->right;
  }
  return node;
}

inline int compare_keys(uint64_t left, uint64_t right) {
  return left < right ? -1 : static_cast<int>(left > right);
}

// Links `node` as a red leaf where a search without a match ended, and rebalances.
inline void rb_insert_at(const rb_position &position, rb_node *node, rb_root *root) {
  node->parent_color = reinterpret_cast<uintptr_t>(position.parent);
  node->left = nullptr;
  node->right = nullptr;
  *position.slot = node;
  rb_insert_color(node, root);
}

}  // namespace velmarin
