// The helpers that everything else stands on: the red-black tree and time text.

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "common/log.h"
#include "common/rbtree.h"

namespace {

using namespace velmarin;

// Checks links and colours below `parent`; returns the number of black nodes on each way down.
int black_height(const rb_node *node, const rb_node *parent) {
  if (node == nullptr) {
    return 0;
  }
  const bool is_black = (node->parent_color & 1) != 0;
  EXPECT_EQ(node->parent_color & ~uintptr_t{1}, reinterpret_cast<uintptr_t>(parent));
  EXPECT_TRUE(is_black || (parent != nullptr && (parent->parent_color & 1) != 0)) << "red pair";
  const int height = black_height(node->left, node);
  EXPECT_EQ(black_height(node->right, node), height);
  return height + (is_black ? 1 : 0);
}

TEST(RedBlackTree, StaysSortedAndBalancedUnderRisingAndRandomInsertionsAndRemovals) {
  rb_node nodes[300];
  const auto key_of = [&nodes](const rb_node *node) { return static_cast<int>(node - nodes); };
  std::mt19937 random(2);
  rb_root root = {};
  std::set<int> keys;
  for (int step = 0; step < 6000; step++) {
    const int key = step < 600 ? step % 300 : static_cast<int>(random() % 300);
    const auto order = [&](const rb_node *node) { return key - key_of(node); };
    const rb_position position = rb_search(&root, order);
    ASSERT_EQ(position.match != nullptr, keys.contains(key));
    if (keys.insert(key).second) {
      nodes[key] = {UINTPTR_MAX, nullptr, nullptr};
      rb_insert_at(position, &nodes[key], &root);
    } else {
      rb_erase(rb_find(&root, order), &root);
      keys.erase(key);
    }
    black_height(root.node, nullptr);
    const rb_node *node = rb_first(&root);
    for (const int expected : keys) {
      ASSERT_TRUE(node != nullptr && key_of(node) == expected) << expected;
      node = rb_next(node);
    }
    ASSERT_EQ(node, nullptr);
  }
}

TEST(TimeText, TellsWhatDidNotFitAndWritesNothingBeyondTheBuffer) {
  constexpr struct timespec TIME = {1700049600, 5};
  const std::string text = "2023-11-15 12:00:00.000000005";
  setenv("TZ", "UTC", 1);
  for (unsigned size = 0; size < 40; size++) {
    std::string buffer(40, '#');
    const int result = size >= 30 ? 0 : size >= 20 ? 1 : 2;
    EXPECT_EQ(timespec2str(buffer.data(), size, &TIME), result) << size;
    EXPECT_EQ(buffer.substr(size), std::string(40 - size, '#')) << size;
    EXPECT_TRUE(result == 2 || buffer.c_str() == text.substr(0, result == 0 ? 29 : 19)) << buffer;
  }
}

}  // namespace
