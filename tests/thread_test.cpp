// Scans that are stopped, overlap, end while a signal arrives, or share their tree with other
// operations. What the tests look for is found by the sanitizers and by what is left afterwards.
//
// VELMARIN_ROUNDS_FACTOR=n makes every test n times as long.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
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

unsigned rounds(unsigned usual) {
  const char *factor = getenv("VELMARIN_ROUNDS_FACTOR");
  const unsigned count = usual * (factor != nullptr ? static_cast<unsigned>(atoi(factor)) : 1);
  printf("rounds: %u\n", count);
  return count;
}

std::ptrdiff_t count_in(const char *directory) {
  return std::distance(fs::directory_iterator(directory), {});
}

// Files that begin with the same letter have the same content.
using groups = std::map<char, std::set<std::string>>;

// A scan by the calling thread.
struct scan {
  const temporary_tree *tree;
  unsigned time_budget = 0;  // seconds, unless the test has shortened all budgets
  std::string save_dir = tree->path("s");
  sis_ops ops = {nullptr, nullptr, nullptr, nullptr, receive};

  int *stop_handle = nullptr;
  groups found = {};
  char group = 0;            // that is being reported
  bool was_stopped = false;  // as far as REPORT_END could see
  std::function<void()> before_report = [] {};
  std::function<void()> after_report = [] {};

  void run(bool with_roots = true) {
    const std::string root = tree->path("t");
    const char *roots[] = {root.c_str()};
    EXPECT_EQ(
        single_instance_storage(roots, with_roots ? 1 : 0, nullptr, 0, save_dir.c_str(), 0, 0, 0,
                                time_budget, &ops, reinterpret_cast<uint64_t>(this), &stop_handle),
        0);
  }

  static int receive(uint64_t caller_data, sis_report *record) {
    auto *self = reinterpret_cast<scan *>(caller_data);
    if (record->stage == REPORT_BEGIN) {
      self->before_report();
    } else if (record->stage == REPORT_GROUP || record->stage == REPORT_FILE) {
      const std::string name = fs::path(record->path).filename();
      if (record->stage == REPORT_GROUP) {
        self->group = name[0];
      }
      EXPECT_EQ(name[0], self->group) << "not identical";
      EXPECT_NE(record->digest, nullptr);
      self->found[name[0]].insert(name);
    } else if (record->stage == REPORT_END) {
      self->was_stopped = __atomic_load_n(self->stop_handle, __ATOMIC_RELAXED) == 0;
      self->after_report();
    }
    return 0;
  }
};

class Threads : public testing::Test {
 protected:
  Threads() {
    velmarin_set_log_sink([](void *, int, int, const char *, const char *) {}, nullptr);
    poll_time = 100'000;
    for (int i = 0; i < 40; i++) {
      const std::string letter(1, static_cast<char>('a' + i % 6));
      const std::string name = letter + std::to_string(i);
      tree.write("t/d" + std::to_string(i % 4) + "/" + name, letter + std::string(5000, 'x'));
      all[letter[0]].insert(name);
    }
    tree.write("t/unlike", "unlike");
    scan{&tree}.run();  // whatever starts with the first use has started
    const auto begin = std::chrono::steady_clock::now();
    scan{&tree, 0, tree.path("other_s")}.run();
    usual_time = std::chrono::nanoseconds(std::chrono::steady_clock::now() - begin).count();
    descriptors_ = count_in("/proc/self/fd");
    threads_ = count_in("/proc/self/task");
  }

  ~Threads() override {
    EXPECT_EQ(library_blocks, 0);
    EXPECT_EQ(count_in("/proc/self/fd"), descriptors_);
    for (int i = 0; count_in("/proc/self/task") > threads_ && i < 5000; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_LE(count_in("/proc/self/task"), threads_);
    EXPECT_TRUE(owner.has_its_action());
    budget_time = 0;
    velmarin_set_log_sink(nullptr, nullptr);
  }

  long random(long below) { return std::uniform_int_distribution<long>(0, below - 1)(generator_); }

  const alarm_owner owner;
  const temporary_tree tree{"t/ s/ other_s/"};
  groups all;
  long usual_time;  // of a scan that computes all digests; nanoseconds

 private:
  std::mt19937 generator_{std::random_device{}()};
  std::ptrdiff_t descriptors_ = 0;
  std::ptrdiff_t threads_ = 0;
};

std::atomic<int *> published_handle = nullptr;
scan *current = nullptr;  // the scan that publishes its handle

TEST_F(Threads, AScanThatIsStoppedAtAnyMomentFindsNothingUntrueAndLosesNothing) {
  unsigned stopped = 0;
  for (unsigned round = rounds(60); round > 0; round--) {
    fs::remove_all(tree.path("s"));  // so that there are digests to compute
    fs::create_directory(tree.path("s"));
    scan s{&tree};
    const long moment = random(usual_time * 5 / 4) + 1000;
    if (round % 2 == 0) {
      s.time_budget = 1;
      budget_time = moment;
      s.run();
    } else {
      published_handle = nullptr;
      std::atomic<bool> is_done = false;
      std::thread stopper([&] {
        while (published_handle == nullptr) {
          std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::nanoseconds(moment));
        signal_no_time(published_handle);
        is_done = true;
      });
      current = &s;
      s.ops.filter = [](int, const struct stat *, const char *) {
        published_handle = current->stop_handle;
        return 0;
      };
      s.before_report = [&is_done] {  // the handle is good until the scan returns
        while (!is_done) {
          std::this_thread::yield();
        }
      };
      s.run();
      stopper.join();
    }
    stopped += s.was_stopped ? 1 : 0;
    for (const auto &[letter, names] : s.found) {
      EXPECT_TRUE(
          std::includes(all[letter].begin(), all[letter].end(), names.begin(), names.end()));
    }
    scan after{&tree};
    after.run();
    EXPECT_EQ(after.found, all);
    ASSERT_FALSE(HasFailure());
  }
  printf("stopped before the report's end: %u\n", stopped);
}

TEST_F(Threads, RunsThatStartAndEndTogetherLeaveTheFormerActionEachTime) {
  constexpr int RUNS = 8;
  for (unsigned round = rounds(25); round > 0; round--) {
    budget_time = random(2) == 0 ? 0 : random(5'000'000) + 1000;
    std::barrier start(RUNS);
    std::vector<scan> scans(RUNS, scan{&tree});
    std::vector<std::thread> threads;
    for (scan &one : scans) {
      one.time_budget = random(4) == 0 ? 0 : 300;
      threads.emplace_back([&start, &one] {
        start.arrive_and_wait();
        one.run();
      });
    }
    for (std::thread &thread : threads) {
      thread.join();
    }
    for (const scan &one : scans) {
      EXPECT_TRUE(one.was_stopped || one.found == all);
    }
    ASSERT_TRUE(owner.has_its_action());
    ASSERT_FALSE(HasFailure());
  }
}

// The budget is steered towards the end of the run: longer after a run that it stopped, shorter
// after one that it did not.
TEST_F(Threads, ABudgetThatIsSpentAsTheRunEndsTouchesNothing) {
  poll_time = 20'000;
  long budget = 500'000;  // nanoseconds
  unsigned stopped = 0;
  const unsigned all_rounds = rounds(300);
  for (unsigned round = all_rounds; round > 0; round--) {
    budget_time = std::max(1000L, budget + random(100'000) - 50'000);
    scan s{&tree};
    s.time_budget = 1;
    s.run(false);
    stopped += s.was_stopped ? 1 : 0;
    budget += s.was_stopped ? budget / 20 : -budget / 20;
    budget = std::max(budget, 10'000L);
    ASSERT_TRUE(owner.has_its_action());
  }
  printf("stopped before the report's end: %u\n", stopped);
  EXPECT_GT(stopped, 0U);
  EXPECT_LT(stopped, all_rounds);
}

// Sends what the timer of a run sends, and blocks it, so that it stays pending.
void send_pending_alarm(int *stop_handle) {
  alarm_owner::mask_alarm(SIG_BLOCK);
  alarm_owner::send_alarm(reinterpret_cast<char *>(stop_handle) - offsetof(sis_context, in_time));
}

// Not every kernel discards the signal of a deleted timer. Alone, a run must take it with it, or
// the former action would get it. With another run beside it that holds the handler, the signal
// reaches the handler when its own run is gone.
TEST_F(Threads, ASignalThatIsStillPendingWhenItsRunIsOverTouchesNothing) {
  for (const bool is_alone : {true, false}) {
    std::atomic<bool> is_over = false;
    std::atomic<bool> has_begun = false;
    std::thread other([&] {
      scan s{&tree, is_alone ? 0U : 300U, tree.path("other_s")};
      s.before_report = [&] {
        alarm_owner::mask_alarm(SIG_BLOCK);  // its workers are gone
        has_begun = true;
        while (!is_over) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      };
      s.run();
      EXPECT_FALSE(s.was_stopped);
    });
    while (!has_begun) {
      std::this_thread::yield();
    }
    for (unsigned round = rounds(100); round > 0; round--) {
      scan s{&tree, 300};
      s.after_report = [&s] { send_pending_alarm(s.stop_handle); };
      s.run(false);
      alarm_owner::mask_alarm(SIG_UNBLOCK);
      EXPECT_EQ(owner.has_its_action(), is_alone);
    }
    is_over = true;
    other.join();
  }
}

TEST_F(Threads, OperationsOnFilesOfATreeThatIsBeingScannedChangeNoContent) {
  if (setxattr(tree.path("t").c_str(), "user.velmarin.probe", "1", 1, 0) != 0) {
    GTEST_SKIP() << "no user attributes in the temporary directory";
  }
  std::map<std::string, std::string> contents;
  groups large;
  std::vector<std::string> paths;
  for (int i = 0; i < 9; i++) {
    const std::string letter(1, static_cast<char>('p' + i % 3));
    const std::string name = letter + std::to_string(i);
    contents["t/" + name] = letter + std::string(70000, 'y');
    tree.write("t/" + name, contents["t/" + name]);
    paths.push_back(tree.path("t/" + name));
    large[letter[0]].insert(name);
  }
  std::atomic<bool> is_over = false;
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < 3; thread++) {
    threads.emplace_back([&, thread] {
      std::mt19937 generator(thread);
      const std::string copy = tree.path("t/pcopy" + std::to_string(thread));
      for (unsigned turn = 0; !is_over; turn++) {
        const unsigned first = static_cast<unsigned>(generator() % paths.size());
        std::string group[] = {paths[first], paths[(first + 3) % 9], paths[(first + 6) % 9]};
        const char *a = group[0].c_str();
        const char *b = group[1].c_str();
        switch (turn % 7) {
          case 0:
            sisFileTaskImpl(a, b);
            break;
          case 1: {
            const struct timespec mtime =
                tree.status(fs::path(a).lexically_relative(tree.root())).st_mtim;
            setCheckFlagImpl(a, mtime.tv_sec, mtime.tv_nsec);
            EXPECT_GE(getCoincideFlagImpl(a), 0);
            break;
          }
          case 2: {
            char *members[] = {group[0].data(), group[1].data(), group[2].data()};
            sis_them_all(members, 3);
            break;
          }
          case 3:
            EXPECT_GE(getSISFileInfoImpl(a), 0);
            recoverFileImpl(b);
            break;
          case 4: {
            const int fd = create_layer(a);
            if (fd >= 0) {
              dedup_file(b, fd);
              close(fd);
            }
            break;
          }
          case 5:
            reflink_copy(paths[0].c_str(), copy.c_str());
            unlink(copy.c_str());
            break;
          default:
            revoke_file(a);
            get_sis_file_statistics(nullptr, nullptr, nullptr, nullptr);
            break;
        }
      }
    });
  }
  const auto scan_large = [this](groups *found) {
    const std::string root = tree.path("t");
    const std::string save_dir = tree.path("s");
    const char *roots[] = {root.c_str()};
    const sis_scan_request request = {1, 0, roots, nullptr, save_dir.c_str(), 0};
    scan s{&tree};
    const auto receive = [](uint64_t caller_data, sis_report *record) {
      return record->stage == REPORT_END ? 0 : scan::receive(caller_data, record);
    };
    EXPECT_EQ(startScanDirImpl(&request, reinterpret_cast<uint64_t>(&s), receive), 0);
    *found = s.found;
  };
  groups found = {};
  for (unsigned round = rounds(40); round > 0 && !HasFailure(); round--) {
    scan_large(&found);
  }
  is_over = true;
  for (std::thread &thread : threads) {
    thread.join();
  }
  for (const auto &[name, content] : contents) {
    EXPECT_TRUE(tree.read(name) == content) << name;
  }
  scan_large(&found);
  EXPECT_EQ(found, large);
}

}  // namespace
