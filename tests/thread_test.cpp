// Scans that are stopped, overlap, or end while a signal arrives. The sanitizers and the state left
// behind show most of the faults that these tests look for.
//
// VELMARIN_ROUNDS_FACTOR=n makes every test n times as long.

#include <gtest/gtest.h>
#include <unistd.h>

#include <barrier>
#include <filesystem>
#include <random>

#include "support/alarm_owner.h"
#include "support/captured_log.h"
#include "support/failure_injector.h"
#include "support/temporary_tree.h"
#include "support/test_scan.h"
#include "velmarin_platform/log_sink.h"

namespace {

using namespace velmarin;
using namespace velmarin_test;
namespace fs = std::filesystem;

constexpr int FILES = 40;

unsigned rounds(unsigned usual) {
  const char *factor = getenv("VELMARIN_ROUNDS_FACTOR");
  const unsigned count = usual * (factor != nullptr ? static_cast<unsigned>(atoi(factor)) : 1);
  printf("rounds: %u\n", count);
  return count;
}

class Threads : public testing::Test {
 protected:
  Threads() {
    fs::current_path(tree.root());
    velmarin_set_log_sink([](void *, int, int, const char *, const char *) {}, nullptr);
    poll_time = 100'000;
    for (int i = 0; i < FILES; i++) {
      tree.write(name_of(i), content_of(i));
      tree.set_mtime(name_of(i), 1000, 0);
    }
    all = scan().run().found;
    EXPECT_EQ(all.size(), 6U);
    // Whatever the first use starts is running by now.
    descriptors_ = count_in("/proc/self/fd");
    threads_ = count_in("/proc/self/task");
  }

  ~Threads() override {
    EXPECT_EQ(library_blocks, 0);
    EXPECT_EQ(count_in("/proc/self/fd"), descriptors_);
    while (count_in("/proc/self/task") > threads_) {  // a joined thread may linger
      std::this_thread::yield();
    }
    EXPECT_TRUE(owner.has_its_action());
    budget_time = 0;
    velmarin_set_log_sink(nullptr, nullptr);
  }

  static std::string name_of(int i) {
    return "t/d" + std::to_string(i % 4) + "/" + std::to_string(i);
  }
  static std::string content_of(int i) {
    return static_cast<char>('a' + i % 6) + std::string(5000, 'x');
  }
  long random(long below) { return std::uniform_int_distribution<long>(0, below - 1)(generator_); }

  const alarm_owner owner;
  const temporary_tree tree{"t/unlike=unlike s/"};
  groups all;

 private:
  std::mt19937 generator_{std::random_device{}()};
  std::ptrdiff_t descriptors_ = 0;
  std::ptrdiff_t threads_ = 0;
};

scan *stopped_scan = nullptr;
std::atomic<long> entries_before_stop = 0;

TEST_F(Threads, AScanStoppedAtAnyMomentReportsNothingFalseAndLosesNothing) {
  unsigned stopped[2] = {};  // through the handle, by the budget
  for (unsigned round = rounds(60); round > 0 && !HasFailure(); round--) {
    fs::remove_all("s");  // so that digests are computed
    fs::create_directory("s");
    budget_time = 1000 + random(3'000'000);
    scan s = {.time_budget = round % 2};
    stopped_scan = &s;
    entries_before_stop = random(FILES);
    if (s.time_budget == 0) {  // in a worker, while the others go on
      s.ops.filter = [](int, const struct stat *, const char *) {
        if (entries_before_stop-- == 0) {
          signal_no_time(stopped_scan->stop_handle);
        }
        return 0;
      };
    }
    stopped[s.time_budget] += s.run().was_stopped ? 1U : 0U;
    EXPECT_TRUE(s.found_parts_of(all));
    EXPECT_EQ(scan().run().found, all);
  }
  EXPECT_GT(stopped[0], 0U);
  EXPECT_GT(stopped[1], 0U);
}

TEST_F(Threads, ConcurrentRunsFindEverythingAndRestoreThePreviousAction) {
  for (unsigned round = rounds(25); round > 0 && !HasFailure(); round--) {
    budget_time = random(2) == 0 ? 0 : random(5'000'000) + 1000;
    std::barrier start(8);
    std::vector<std::jthread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; i++) {
      threads.emplace_back([&, budget = random(4) == 0 ? 0U : 300U] {
        scan s = {.time_budget = budget};
        start.arrive_and_wait();
        s.run();
        EXPECT_TRUE(s.was_stopped || s.found == all);
      });
    }
    threads.clear();
    EXPECT_TRUE(owner.has_its_action());
  }
}

}  // namespace
