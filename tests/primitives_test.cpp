// The helpers that everything else stands on: the red-black tree and time text.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>

#include "common/log.h"
#include "common/rbtree.h"

namespace {

using namespace velmarin;

int height_of(const rb_node *node) {
  return node == nullptr ? 0 : 1 + std::max(height_of(node->left), height_of(node->right));
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
    ASSERT_LE(height_of(root.node), 2 * std::log2(keys.size() + 1));
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
