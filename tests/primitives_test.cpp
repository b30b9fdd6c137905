// The basic helpers: the red-black tree, the list, descriptors and time text.

#include <bounds_checked.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <set>

#include "common/list.h"
#include "common/log.h"
#include "common/rbtree.h"
#include "common/unique_fd.h"

namespace {

using namespace velmarin;

// The black nodes on every way down; below 0 unless the colours obey the rules.
int black_height(const rb_node *node, bool is_below_red) {
  if (node == nullptr) {
    return 0;
  }
  const bool is_red = (node->parent_color & 1) == 0;
  const int left = black_height(node->left, is_red);
  const bool obeys = left == black_height(node->right, is_red) && !(is_red && is_below_red);
  return obeys ? left + (is_red ? 0 : 1) : -1000;
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
      nodes[key] = {UINTPTR_MAX, nodes, nodes};
      rb_insert_at(position, &nodes[key], &root);
    } else {
      rb_erase(rb_find(&root, order), &root);
      keys.erase(key);
    }
    ASSERT_GE(black_height(root.node, true), 0);
    const rb_node *node = rb_first(&root);
    for (const int expected : keys) {
      ASSERT_TRUE(node != nullptr && key_of(node) == expected) << expected;
      node = rb_next(node);
    }
    ASSERT_EQ(node, nullptr);
  }
}

TEST(List, IsLinkedBothWaysAfterAnotherIsAppended) {
  list_head links[4], to, from;
  list_init(&to);
  list_init(&from);
  list_append(&to, &links[0]);
  list_append_all(&to, &from);
  for (const int i : {1, 2, 3}) {
    list_append(&from, &links[i]);
  }
  list_append_all(&to, &from);
  EXPECT_TRUE(list_is_empty(&from));
  for (int i = 3; i >= 0; i--) {
    EXPECT_EQ(to.prev, &links[i]);
    list_unlink(to.prev);
  }
  EXPECT_TRUE(list_is_empty(&to) && to.prev == &to && list_is_empty(&links[2]));
}

TEST(BoundedFunctions, RefuseNullAndWhatDoesNotFitAndWriteNothingElse) {
  std::string text = "abcd";
  char *const d = text.data();
  EXPECT_EQ(
      (std::vector{memset_s(nullptr, 4, 0, 1), memcpy_s(nullptr, 4, d, 1),
                   memcpy_s(d, 4, nullptr, 1), strcpy_s(nullptr, 4, d), strcpy_s(d, 4, nullptr),
                   memset_s(d, 1, 0, 2), memcpy_s(d, 1, "xy", 2), strcpy_s(d, 0, ""),
                   snprintf_s(nullptr, 4, 4, "x"), snprintf_s(d, 0, 4, "x")}),
      (std::vector{EINVAL, EINVAL, EINVAL, EINVAL, EINVAL, ERANGE, ERANGE, ERANGE, -1, -1}));
  EXPECT_TRUE(text == "abcd" && strcpy_s(d, 2, "xy") == ERANGE &&
              snprintf_s(d + 1, 1, 0, "%s", "") == 0 && snprintf_s(d + 2, 1, 9, "x") == -1);
  EXPECT_EQ(text, std::string("\0\0\0d", 4));
}

TEST(UniqueFd, ClosesDescriptor0Too) {
  const int saved = dup(0);
  close(0);
  {
    const unique_fd fd(dup(saved));
    EXPECT_TRUE(fd.get() == 0 && fd.is_open());
  }
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_EQ(dup(saved), 0);
  close(saved);
}

TEST(TimeText, ReportsWhatDidNotFitAndWritesNothingBeyondTheBuffer) {
  setenv("TZ", "X-1", 1);
  tzset();
  setenv("TZ", "UTC", 1);
  for (const long nanoseconds : {0L, 5L, 999'999'999L}) {
    const timespec time = {1700049600, nanoseconds};
    const std::string fraction = std::to_string(nanoseconds);
    const std::string date = "2023-11-15 12:00:00";
    const std::string whole =
        nanoseconds == 0 ? date : date + "." + std::string(9 - fraction.size(), '0') + fraction;
    for (unsigned size = 0; size < 40; size++) {
      std::string buffer(40, '#');
      const int result = size < 20 ? 2 : size > whole.size() ? 0 : 1;
      EXPECT_EQ(timespec2str(buffer.data(), size, &time), result) << size;
      EXPECT_EQ(buffer.substr(size), std::string(40 - size, '#')) << size;
      EXPECT_TRUE(result == 2 || buffer.c_str() == (result == 0 ? whole : date)) << buffer;
    }
  }
  const timespec never = {INT64_MAX, 0};
  EXPECT_EQ(timespec2str(nullptr, 0, &never), 1);
}

}  // namespace
