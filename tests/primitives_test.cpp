// The helpers that everything else stands on: CRC-64, the red-black tree, time text, log lines and
// the hash table of saved digests.

#include <gtest/gtest.h>

#include <bit>
#include <climits>
#include <cstdlib>
#include <random>
#include <set>

#include "common/log.h"
#include "common/rbtree.h"
#include "fbddp/file_index.h"
#include "support/captured_log.h"

namespace {

using namespace velmarin;
using namespace velmarin_test;

TEST(Crc64, BothFunctionsGiveTheirPublishedCheckValuesAlsoInTwoCalls) {
  for (size_t split = 0; split <= 9; split++) {
    const char *rest = &"123456789"[split];
    EXPECT_EQ(crc64_be(crc64_be(0, "123456789", split), rest, 9 - split), 0x6C40DF5F0B497347);
    EXPECT_EQ(
        crc64_rocksoft_generic(crc64_rocksoft_generic(0, "123456789", split), rest, 9 - split),
        0xAE8B14860A799888);
  }
  EXPECT_EQ(crc64_be(0x1234, nullptr, 0), 0x1234U);
  EXPECT_EQ(crc64_rocksoft_generic(0x1234, nullptr, 0), 0x1234U);
}

struct keyed_node {
  rb_node node;
  int key;
};

int key_of(const rb_node *node) {
  return reinterpret_cast<const keyed_node *>(node)->key;
}

bool is_black(const rb_node *node) {
  return (node->parent_color & 1) != 0;
}

// Checks links and colours below `node`, which hangs at `depth`; returns the black height.
int check_subtree(const rb_node *node, const rb_node *parent, int depth, int max_depth) {
  EXPECT_LE(depth, max_depth);
  if (node == nullptr) {
    return 0;
  }
  EXPECT_EQ(node->parent_color & ~uintptr_t{1}, reinterpret_cast<uintptr_t>(parent));
  EXPECT_TRUE(is_black(node) || (parent != nullptr && is_black(parent))) << "red root or red pair";
  const int black_height = check_subtree(node->left, node, depth + 1, max_depth);
  EXPECT_EQ(check_subtree(node->right, node, depth + 1, max_depth), black_height);
  return black_height + (is_black(node) ? 1 : 0);
}

TEST(RedBlackTree, StaysSortedAndBalancedUnderRisingAndRandomInsertionsAndRemovals) {
  keyed_node nodes[300];
  for (const bool rising : {true, false}) {
    std::mt19937 random(2);
    rb_root root = {};
    std::set<int> keys;
    EXPECT_EQ(rb_first(&root), nullptr);
    for (int step = 0; step < 6000; step++) {
      const int key = rising ? step % 300 : static_cast<int>(random() % 300);
      const auto order = [key](const rb_node *node) { return key - key_of(node); };
      const rb_position position = rb_search(&root, order);
      ASSERT_EQ(position.match != nullptr, keys.contains(key));
      ASSERT_EQ(rb_find(&root, order), position.match);
      if (position.match == nullptr) {
        nodes[key] = {{UINTPTR_MAX, nullptr, nullptr}, key};
        rb_insert_at(position, &nodes[key].node, &root);
        keys.insert(key);
      } else {
        rb_erase(&nodes[key].node, &root);
        keys.erase(key);
      }
      check_subtree(root.node, nullptr, 0, 2 * static_cast<int>(std::bit_width(keys.size() + 1)));
      const rb_node *node = rb_first(&root);
      for (const int expected : keys) {
        ASSERT_TRUE(node != nullptr && key_of(node) == expected) << expected;
        node = rb_next(node);
      }
      ASSERT_EQ(node, nullptr);
    }
  }
  rb_node loose = {reinterpret_cast<uintptr_t>(&loose), &nodes[0].node, nullptr};
  EXPECT_EQ(rb_next(&loose), nullptr) << "a node in no tree has no successor";
}

TEST(TimeText, TellsWhatDidNotFitAndWritesNothingBeyondTheBuffer) {
  constexpr time_t NOON = 1700049600;  // 2023-11-15 12:00:00 UTC
  const std::string date = "2023-11-15 12:00:00";
  const struct {
    const char *zone;
    unsigned size;
    struct timespec time;
    int result;
    std::string text;
  } cases[] = {
      {"UTC", 64, {NOON, 0}, 0, date},
      {"EST5", 64, {NOON, 999999999}, 0, "2023-11-15 07:00:00.999999999"},
      {"UTC", 30, {NOON, 5}, 0, date + ".000000005"},
      {"UTC", 29, {NOON, 5}, 1, date},
      {"UTC", 20, {NOON, 5}, 1, date},
      {"UTC", 20, {NOON, 0}, 0, date},
      {"UTC", 19, {NOON, 0}, 2, ""},
      {"UTC", 0, {NOON, 0}, 2, ""},
      {"UTC", 64, {LONG_MAX, 0}, 1, ""},
  };
  for (const auto &[zone, size, time, result, text] : cases) {
    setenv("TZ", zone, 1);
    std::string buffer(72, '#');
    EXPECT_EQ(timespec2str(buffer.data(), size, &time), result) << text << " in " << size;
    EXPECT_EQ(buffer.substr(size), std::string(72 - size, '#')) << text << " in " << size;
    EXPECT_TRUE(text.empty() || buffer.c_str() == text) << buffer << " in " << size;
  }
  unsetenv("TZ");
}

hash_entry *list_entry(sis_context *ctx, uint32_t ino, uint32_t dev) {
  auto *entry = static_cast<hash_entry *>(calloc(1, sizeof(hash_entry)));
  entry->record = static_cast<usable_hash *>(calloc(1, sizeof(usable_hash)));
  entry->record->ino = ino;
  entry->record->dev = dev;
  list_append(&ctx->hash_entries, &entry->link);
  add_to_hash_table(ctx, entry);
  return entry;
}

TEST(FileIndex, FindsEachKeyAndRefusesASecondEntryWithALineOfFullForm) {
  sis_context ctx = {};
  list_init(&ctx.hash_entries);
  EXPECT_EQ(lookup_hash_table(&ctx, 1), nullptr) << "no table, no entry";
  const captured_log log;
  ASSERT_EQ(initialize_hash_table(&ctx), 0);
  hash_entry *first = list_entry(&ctx, 0x1234, 5);
  const hash_entry *same_bucket = list_entry(&ctx, 0x11234, 5);
  EXPECT_TRUE(log.lines().empty());
  list_entry(&ctx, 0x1234, 5);

  EXPECT_EQ(ctx.hash_table[0x234].node, &first->node);
  EXPECT_EQ(first->node.right, &same_bucket->node);
  EXPECT_EQ(lookup_hash_table(&ctx, 0x500001234), first);
  EXPECT_EQ(lookup_hash_table(&ctx, 0x500011234), same_bucket);
  EXPECT_EQ(lookup_hash_table(&ctx, 0x600001234), nullptr);

  ASSERT_EQ(log.messages(),
            std::vector<std::string>{"ERRO same dev:ino found in hash table for 5:4660\n"});
  int thread = 0;
  char line[32];
  time_t seconds = 0;
  ASSERT_EQ(sscanf(log.lines()[0].text.c_str(), "[ERRO from thread %d at fbddp.cpp:%31[0-9] @%ld.",
                   &thread, line, &seconds),
            3);
  EXPECT_EQ(thread, gettid());
  EXPECT_EQ(strlen(line), 4U) << "padded with zeros";
  EXPECT_LE(std::abs(seconds - time(nullptr)), 2);
  EXPECT_STREQ(module_file_of("/x.y/src/reflink/control.h").name, "reflink.h");

  free(first->record);
  first->record = nullptr;  // as if a file had taken it
  drop_hash_table(&ctx);
  EXPECT_TRUE(ctx.hash_table == nullptr && list_is_empty(&ctx.hash_entries));
}

}  // namespace
