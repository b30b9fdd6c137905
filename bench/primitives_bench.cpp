// CRC-64, the red-black tree, the hash table of saved digests.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "common/rbtree.h"
#include "fbddp/file_index.h"
#include "velmarin/primitives.h"

namespace {

using namespace velmarin;

void crc64(benchmark::State &state) {
  const std::vector<unsigned char> block(8192, 'x');
  for ([[maybe_unused]] auto round : state) {
    benchmark::DoNotOptimize(crc64_be(0, block.data(), block.size()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(block.size()));
}
BENCHMARK(crc64);

struct keyed_node {
  rb_node node;
  uint64_t key;
};

// The same keys in the same order every time.
std::vector<keyed_node> random_nodes(int64_t count) {
  std::mt19937_64 random(1);
  std::vector<keyed_node> nodes(static_cast<size_t>(count));
  for (keyed_node &one : nodes) {
    one.key = random();
  }
  return nodes;
}

rb_root tree_of(std::vector<keyed_node> *nodes) {
  rb_root root = {};
  for (keyed_node &one : *nodes) {
    rb_insert_at(rb_search(&root,
                           [&one](rb_node *node) {
                             return compare_keys(one.key, owner_of<&keyed_node::node>(node)->key);
                           }),
                 &one.node, &root);
  }
  return root;
}

void tree_insertion(benchmark::State &state) {
  auto nodes = random_nodes(state.range(0));
  for ([[maybe_unused]] auto round : state) {
    benchmark::DoNotOptimize(tree_of(&nodes));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(tree_insertion)->Range(1 << 10, 1 << 20);

void tree_traversal(benchmark::State &state) {
  auto nodes = random_nodes(state.range(0));
  const rb_root root = tree_of(&nodes);
  for ([[maybe_unused]] auto round : state) {
    for (rb_node *node = rb_first(&root); node != nullptr; node = rb_next(node)) {
      benchmark::DoNotOptimize(node);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(tree_traversal)->Range(1 << 10, 1 << 20);

void add_saved_digest(sis_context *ctx, uint64_t key) {
  auto *entry = static_cast<hash_entry *>(calloc(1, sizeof(hash_entry)));
  entry->record = static_cast<usable_hash *>(calloc(1, sizeof(usable_hash)));
  entry->record->ino = static_cast<uint32_t>(key);
  entry->record->dev = static_cast<uint32_t>(key >> 32);
  list_append(&ctx->hash_entries, &entry->link);
  add_to_hash_table(ctx, entry);
}

void saved_digest_lookup(benchmark::State &state) {
  sis_context ctx = {};
  list_init(&ctx.hash_entries);
  if (initialize_hash_table(&ctx) != 0) {
    state.SkipWithError("no memory");
    return;
  }
  const auto count = static_cast<uint64_t>(state.range(0));
  for (uint64_t i = 0; i < count; i++) {
    add_saved_digest(&ctx, i * 3);
  }
  std::mt19937_64 random(2);
  for ([[maybe_unused]] auto round : state) {
    benchmark::DoNotOptimize(lookup_hash_table(&ctx, random() % (3 * count)));
  }
  state.SetItemsProcessed(state.iterations());
  drop_hash_table(&ctx);
}
BENCHMARK(saved_digest_lookup)->Range(1 << 10, 1 << 20);

}  // namespace
