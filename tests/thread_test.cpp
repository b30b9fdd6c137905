// Scans that are stopped, overlap, end while a signal arrives, or share their tree with other
// operations. What the tests look for is found by the sanitizers and by what is left afterwards.
//
// VELMARIN_ROUNDS_FACTOR=n makes every test n times as long.

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <latch>
#include <random>
#include <set>
#include <thread>

#include "fbddp/scan_context.h"
#include "support/alarm_owner.h"
#include "support/failure_injector.h"
#include "support/temporary_tree.h"
#include "velmarin/files.h"
#include "velmarin/scan.h"
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

std::ptrdiff_t descriptor_count() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

// A scan by the calling thread. Files whose names begin with the same letter have the same content.
struct scan {
  const temporary_tree *tree;
  unsigned time_budget = 0;  // seconds, unless the test has shortened all budgets
  sis_ops ops = {nullptr, nullptr, nullptr, nullptr, receive};
  std::function<void(uint32_t stage)> at_stage = [](uint32_t) {};

  int *stop_handle = nullptr;
  std::set<std::string> found = {};
  char group = 0;            // that is being reported
  bool was_stopped = false;  // as far as REPORT_END could see

  void run(int root_count = 1) {
    const std::string root = tree->path("t");
    const char *roots[] = {root.c_str()};
    EXPECT_EQ(
        single_instance_storage(roots, root_count, nullptr, 0, tree->path("s").c_str(), 0, 0, 0,
                                time_budget, &ops, reinterpret_cast<uint64_t>(this), &stop_handle),
        0);
  }

  static int receive(uint64_t caller_data, sis_report *record) {
    auto *self = reinterpret_cast<scan *>(caller_data);
    if (record->stage == REPORT_GROUP || record->stage == REPORT_FILE) {
      const std::string name = fs::path(record->path).filename();
      self->group = record->stage == REPORT_GROUP ? name[0] : self->group;
      EXPECT_EQ(name[0], self->group) << "not identical";
      self->found.insert(name);
    } else if (record->stage == REPORT_END) {
      self->was_stopped = __atomic_load_n(self->stop_handle, __ATOMIC_RELAXED) == 0;
    }
    self->at_stage(record->stage);
    return 0;
  }
};

class Threads : public testing::Test {
 protected:
  Threads() {
    velmarin_set_log_sink([](void *, int, int, const char *, const char *) {}, nullptr);
    poll_time = 100'000;
    for (int i = 0; i < FILES; i++) {
      tree.write(name_of(i), content_of(i));
      tree.set_mtime(name_of(i), 1000, 0);
      all.insert(fs::path(name_of(i)).filename());
    }
    scan{&tree}.run();  // whatever starts with the first use has started
    descriptors_ = descriptor_count();
  }

  ~Threads() override {
    EXPECT_EQ(library_blocks, 0);
    EXPECT_EQ(descriptor_count(), descriptors_);
    EXPECT_TRUE(owner.has_its_action());
    budget_time = 0;
    velmarin_set_log_sink(nullptr, nullptr);
  }

  static std::string name_of(int i) {
    return "t/d" + std::to_string(i % 4) + "/" + content_of(i)[0] + std::to_string(i);
  }
  static std::string content_of(int i) {
    return static_cast<char>('a' + i % 6) + std::string(5000, 'x');
  }
  long random(long below) { return std::uniform_int_distribution<long>(0, below - 1)(generator_); }

  const alarm_owner owner;
  const temporary_tree tree{"t/unlike=unlike s/"};
  std::set<std::string> all;

 private:
  std::mt19937 generator_{std::random_device{}()};
  std::ptrdiff_t descriptors_ = 0;
};

scan *stopped_scan = nullptr;
std::atomic<long> entries_before_stop = 0;

TEST_F(Threads, AScanThatIsStoppedAtAnyMomentFindsNothingUntrueAndLosesNothing) {
  unsigned stopped[2] = {};  // through the handle, by the budget
  for (unsigned round = rounds(60); round > 0 && !HasFailure(); round--) {
    fs::remove_all(tree.path("s"));  // so that there are digests to compute
    fs::create_directory(tree.path("s"));
    budget_time = 1000 + random(3'000'000);
    scan s{&tree, round % 2};
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
    s.run();
    stopped[s.time_budget] += s.was_stopped ? 1 : 0;
    EXPECT_TRUE(std::ranges::includes(all, s.found));
    scan after{&tree};
    after.run();
    EXPECT_EQ(after.found, all);
  }
  printf("stopped: %u through the handle, %u by the budget\n", stopped[0], stopped[1]);
  EXPECT_GT(stopped[0], 0U);
  EXPECT_GT(stopped[1], 0U);
}

TEST_F(Threads, RunsThatStartAndEndTogetherLeaveTheFormerActionEachTime) {
  for (unsigned round = rounds(25); round > 0 && !HasFailure(); round--) {
    budget_time = random(2) == 0 ? 0 : random(5'000'000) + 1000;
    std::barrier start(8);
    std::vector<std::jthread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; i++) {
      threads.emplace_back([&, budget = random(4) == 0 ? 0U : 300U] {
        scan s{&tree, budget};
        start.arrive_and_wait();
        s.run();
        EXPECT_TRUE(s.was_stopped || s.found == all);
      });
    }
    threads.clear();
    EXPECT_TRUE(owner.has_its_action());
  }
}

// The budget is steered towards the end of the run: longer after a run that it stopped, shorter
// after one that it did not.
TEST_F(Threads, ABudgetThatIsSpentAsTheRunEndsTouchesNothing) {
  poll_time = 20'000;
  long budget = 500'000;  // nanoseconds
  unsigned stopped = 0;
  const unsigned all_rounds = rounds(300);
  for (unsigned round = 0; round < all_rounds; round++) {
    budget_time = std::max(1000L, budget + random(100'000) - 50'000);
    scan s{&tree, 1};
    s.run(0);
    stopped += s.was_stopped ? 1 : 0;
    budget = std::max(10'000L, budget + (s.was_stopped ? budget : -budget) / 20);
    ASSERT_TRUE(owner.has_its_action());
  }
  EXPECT_GT(stopped, 0U);
  EXPECT_LT(stopped, all_rounds);
}

// Not every kernel discards the signal of a deleted timer. Alone, a run must take it with it, or
// the former action would get it. With another run beside it that holds the handler, the signal
// reaches the handler when its own run is gone.
TEST_F(Threads, ASignalThatIsStillPendingWhenItsRunIsOverTouchesNothing) {
  for (const bool is_alone : {true, false}) {
    std::latch begun(1);
    std::latch over(1);
    const std::jthread other([&] {
      scan s{&tree, is_alone ? 0U : 300U};
      s.at_stage = [&](uint32_t stage) {
        if (stage == REPORT_BEGIN) {
          alarm_owner::mask_alarm(SIG_BLOCK);  // its workers are gone
          begun.count_down();
          over.wait();
        }
      };
      s.run();
      EXPECT_FALSE(s.was_stopped);
    });
    begun.wait();
    for (unsigned round = rounds(100); round > 0; round--) {
      scan s{&tree, 300};
      s.at_stage = [&s](uint32_t) {  // what its timer sends
        alarm_owner::mask_alarm(SIG_BLOCK);
        alarm_owner::send_alarm(reinterpret_cast<char *>(s.stop_handle) -
                                offsetof(sis_context, in_time));
      };
      s.run(0);
      alarm_owner::mask_alarm(SIG_UNBLOCK);
      EXPECT_EQ(owner.has_its_action(), is_alone);
    }
    over.count_down();
  }
}

TEST_F(Threads, OperationsOnFilesOfATreeThatIsBeingScannedChangeNoContent) {
  if (setxattr(tree.path("t").c_str(), "user.velmarin.probe", "1", 1, 0) != 0) {
    GTEST_SKIP() << "no user attributes in the temporary directory";
  }
  const std::function<void(char **)> operations[] = {
      [](char **files) { sisFileTaskImpl(files[0], files[1]); },
      [](char **files) { setCheckFlagImpl(files[0], 1000, 0); },
      [](char **files) { EXPECT_GE(getCoincideFlagImpl(files[0]), 0); },
      [](char **files) { sis_them_all(files, 3); },
      [](char **files) { EXPECT_GE(getSISFileInfoImpl(files[0]), 0); },
      [](char **files) { recoverFileImpl(files[1]); },
      [](char **files) { revoke_file(files[0]); }};
  std::vector<std::jthread> threads;
  for (unsigned n = 0; n < 3; n++) {
    threads.emplace_back([&, n](const std::stop_token &is_over) {
      for (std::mt19937 generator(n); !is_over.stop_requested();) {
        const int first = static_cast<int>(generator() % (FILES - 12));
        std::string paths[] = {tree.path(name_of(first)), tree.path(name_of(first + 6)),
                               tree.path(name_of(first + 12))};
        char *files[] = {paths[0].data(), paths[1].data(), paths[2].data()};
        operations[generator() % std::size(operations)](files);
      }
    });
  }
  scan last{&tree};
  last.ops.prep = freeze_file;
  last.ops.verify = check_frozen;
  for (unsigned round = rounds(40); round > 0 && !HasFailure(); round--) {
    scan{last}.run();
  }
  threads.clear();
  last.run();
  EXPECT_EQ(last.found, all);
  for (int i = 0; i < FILES; i++) {
    EXPECT_TRUE(tree.read(name_of(i)) == content_of(i)) << name_of(i);
  }
}

}  // namespace
