// Insertion and removal in an intrusive red-black tree, after Cormen, Leiserson, Rivest and Stein,
// Introduction to Algorithms, chapter 13. The textbook's mirrored cases are one case here, with the
// side as a variable.

#include "common/rbtree.h"

#include <initializer_list>

namespace velmarin {
namespace {

constexpr uintptr_t COLOR_MASK = 1;
constexpr uintptr_t BLACK = 1;
constexpr uintptr_t FLAG_MASK = 3;  // low bits of the parent word, not part of the address

enum class side { left, right };

side opposite(side s) {
  return s == side::left ? side::right : side::left;
}

rb_node *parent_of(const rb_node *node) {
  return reinterpret_cast<rb_node *>(node->parent_color & ~FLAG_MASK);
}

void set_parent(rb_node *node, const rb_node *parent) {
  node->parent_color = reinterpret_cast<uintptr_t>(parent) | (node->parent_color & COLOR_MASK);
}

// Empty children are black.
bool is_red(const rb_node *node) {
  return node != nullptr && (node->parent_color & COLOR_MASK) != BLACK;
}

void set_red(rb_node *node) {
  node->parent_color &= ~COLOR_MASK;
}

void set_black(rb_node *node) {
  node->parent_color |= BLACK;
}

rb_node *&child(rb_node *node, side s) {
  // The checker does not know the invariants that keep `node` from being null here.
  return s == side::left ? node->left : node->right;  // NOLINT(clang-analyzer-*)
}

side side_of(const rb_node *node, const rb_node *parent) {
  return parent->left == node ? side::left : side::right;
}

// Makes `replacement`, which may be null, the child of `parent` (or the root) in place of `node`.
void replace_child(const rb_node *node, rb_node *replacement, rb_node *parent, rb_root *root) {
  if (parent == nullptr) {
    root->node = replacement;
  } else {
    child(parent, side_of(node, parent)) = replacement;
  }
  if (replacement != nullptr) {
    set_parent(replacement, parent);
  }
}

// Moves `node` down to side `down`; its child on the other side takes its place.
void rotate(rb_node *node, side down, rb_root *root) {
  const side up = opposite(down);
  rb_node *riser = child(node, up);
  rb_node *moved = child(riser, down);
  replace_child(node, riser, parent_of(node), root);
  child(riser, down) = node;
  set_parent(node, riser);
  child(node, up) = moved;
  if (moved != nullptr) {
    set_parent(moved, node);
  }
}

rb_node *leftmost(rb_node *node) {
  while (node->left != nullptr) {
    node = node->left;
  }
  return node;
}

// Restores the black height after the subtree `node` below `parent`, which may be empty, has lost
// one black node.
void fix_missing_black(rb_node *node, rb_node *parent, rb_root *root) {
  while (parent != nullptr && !is_red(node)) {
    const side near = side_of(node, parent);
    const side far = opposite(near);
    rb_node *sibling = child(parent, far);
    if (is_red(sibling)) {
      set_black(sibling);
      set_red(parent);
      rotate(parent, near, root);
      sibling = child(parent, far);
    }
    if (!is_red(child(sibling, near)) && !is_red(child(sibling, far))) {
      set_red(sibling);
      node = parent;
      parent = parent_of(node);
      continue;
    }
    if (!is_red(child(sibling, far))) {
      rotate(sibling, far, root);
      sibling = child(parent, far);
    }
    if (is_red(parent)) {
      set_red(sibling);
    } else {
      set_black(sibling);
    }
    set_black(parent);
    set_black(child(sibling, far));
    rotate(parent, near, root);
    node = root->node;
    parent = nullptr;
  }
  if (node != nullptr) {
    set_black(node);
  }
}

// Replaces `node` with `successor`, which is in no tree, and keeps the colour of `node`.
void replace_node(rb_node *successor, const rb_node *node, rb_root *root) {
  *successor = *node;
  replace_child(node, successor, parent_of(node), root);
  for (rb_node *below : {successor->left, successor->right}) {
    if (below != nullptr) {
      set_parent(below, successor);
    }
  }
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

void rb_insert_color(rb_node *node, rb_root *root) {
  for (rb_node *parent = parent_of(node); is_red(parent); parent = parent_of(node)) {
    rb_node *grandparent = parent_of(parent);
    if (grandparent == nullptr) {
      break;
    }
    const side near = side_of(parent, grandparent);
    rb_node *uncle = child(grandparent, opposite(near));
    if (is_red(uncle)) {
      set_black(parent);
      set_black(uncle);
      set_red(grandparent);
      node = grandparent;
      continue;
    }
    if (side_of(node, parent) != near) {
      rotate(parent, near, root);
      parent = node;
    }
    set_black(parent);
    set_red(grandparent);
    rotate(grandparent, opposite(near), root);
    break;
  }
  set_black(root->node);
}

void rb_erase(rb_node *node, rb_root *root) {
  // The node that vacates its position: `node`, or its successor if `node` has two children.
  rb_node *vacating = node;
  if (node->left != nullptr && node->right != nullptr) {
    vacating = leftmost(node->right);
  }
  rb_node *replacement = vacating->left != nullptr ? vacating->left : vacating->right;
  rb_node *parent = parent_of(vacating);
  const bool lost_black = !is_red(vacating);

  replace_child(vacating, replacement, parent, root);
  if (vacating != node) {
    replace_node(vacating, node, root);
    if (parent == node) {
      parent = vacating;
    }
  }
  if (lost_black) {
    fix_missing_black(replacement, parent, root);
  }
}

rb_node *rb_first(const rb_root *root) {
  return root->node == nullptr ? nullptr : leftmost(root->node);
}

rb_node *rb_next(const rb_node *node) {
  rb_node *parent = parent_of(node);
  if (parent == node) {
    return nullptr;
  }
  if (node->right != nullptr) {
    return leftmost(node->right);
  }
  while (parent != nullptr && node == parent->right) {
    node = parent;
    parent = parent_of(node);
  }
  return parent;
}
