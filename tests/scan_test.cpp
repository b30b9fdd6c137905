// Whole scans of real trees through the built library.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include "support/alarm_owner.h"
#include "support/captured_log.h"
#include "support/scripted_fs.h"
#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"
#include "velmarin/scan.h"

namespace {

using namespace velmarin;
using namespace velmarin_test;
using lines = std::vector<std::string>;
namespace fs = std::filesystem;

std::string joined(const auto &words, const char *separator) {
  std::string text;
  for (const std::string &word : words) {
    text += (text.empty() ? "" : separator) + word;
  }
  return text;
}

// One scan of roots below a tree: what it is asked for, and what it told. Names are below the tree.
struct scan {
  explicit scan(const temporary_tree &scanned, const lines &root_names = {"t"})
      : tree(&scanned), roots(root_names) {}

  const temporary_tree *tree;
  lines roots;
  lines skips;
  std::string save_dir = tree->path("s");
  uint64_t min_size = 0;
  int max_depth = 0;
  unsigned time_budget = 0;
  sis_ops ops = {nullptr, nullptr, nullptr, nullptr, receive};
  std::function<void(const sis_report &)> on_report = [](const sis_report &) {};

  int *stop_handle = nullptr;
  int result = -1;
  std::string groups;  // such as "t/a=t/b u/x=u/y": names and groups sorted
  std::set<std::string> compressed;
  std::string counters;  // in the order of the last record

  scan &run() {
    const auto pointers_to = [this](lines *names) {
      std::vector<const char *> pointers;
      for (std::string &name : *names) {
        name = tree->path(name);
        pointers.push_back(name.c_str());
      }
      return pointers;
    };
    lines root_paths = roots;
    lines skip_paths = skips;
    found_.clear();
    compressed.clear();
    result = single_instance_storage(
        pointers_to(&root_paths).data(), static_cast<int>(roots.size()),
        skips.empty() ? nullptr : pointers_to(&skip_paths).data(), static_cast<int>(skips.size()),
        save_dir.c_str(), min_size, max_depth, 32, time_budget, &ops,
        reinterpret_cast<uint64_t>(this), &stop_handle);
    groups = joined(found_, " ");
    return *this;
  }

 private:
  static int receive(uint64_t caller_data, sis_report *record) {
    reinterpret_cast<scan *>(caller_data)->take(*record);
    return 0;
  }

  void take(const sis_report &record) {
    on_report(record);
    switch (record.stage) {
      case REPORT_GROUP:
      case REPORT_FILE: {
        const std::string name = std::string(record.path).substr(tree->root().size() + 1);
        (in_compressed_ ? compressed : group_).insert(name);
        break;
      }
      case REPORT_GROUP_END:
        found_.insert(joined(group_, "="));
        group_.clear();
        break;
      case REPORT_END:
        counters = joined(lines{std::to_string(reinterpret_cast<uintptr_t>(record.dentry)),
                                std::to_string(record.ino),
                                std::to_string(reinterpret_cast<uintptr_t>(record.path)),
                                std::to_string(record.status), std::to_string(record.size),
                                std::to_string(record.blocks)},
                          " ");
        break;
      default:
        break;
    }
    in_compressed_ =
        record.stage == REPORT_COMPRESSED || (in_compressed_ && record.stage == REPORT_FILE);
  }

  bool in_compressed_ = false;
  std::set<std::string> group_;
  std::set<std::string> found_;
};

// Runs independent scans at the same time.
void run_all(std::vector<scan> *scans) {
  std::vector<std::thread> threads;
  for (scan &one : *scans) {
    threads.emplace_back([&one] { one.run(); });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
}

TEST(Scan, FindsIdenticalFilesAndReadsNoUnchangedFileAgain) {
  const temporary_tree tree(
      "t/one=abc t/d/two=abc t/d/e/three=abc t/other=abd t/p=pair u/q=pair t/unique=longer_text "
      "t/skipped=abc t/skip/x=abc t/small=ab t/small2=ab t/hard=hardly s/");
  ASSERT_EQ(link(tree.path("t/hard").c_str(), tree.path("t/link").c_str()), 0);
  ASSERT_EQ(symlink("d", tree.path("t/symlink").c_str()), 0);
  ASSERT_EQ(mkfifo(tree.path("t/fifo").c_str(), 0600), 0);
  const captured_log log;
  scan s(tree, {"t", "u", "missing"});
  s.skips = {"t/skipped", "t/skip", "t/skip", "t/symlink", "t/fifo", "gone"};
  s.min_size = 3;
  const auto host_thread = std::this_thread::get_id();
  s.on_report = [host_thread](const sis_report &record) {
    EXPECT_EQ(std::this_thread::get_id(), host_thread);
    if (record.stage == REPORT_GROUP && record.size == 3) {
      EXPECT_EQ(memcmp(record.digest, "\xba\x78\x16\xbf\x8f\x01\xcf\xea\x41\x41\x40\xde", 12), 0);
    }
  };
  const std::string groups = "t/d/e/three=t/d/two=t/one t/p=u/q";
  s.run();
  EXPECT_EQ(s.result, 0);
  EXPECT_EQ(s.groups, groups);
  EXPECT_EQ(s.counters, "8 4 18 9 6 0");
  EXPECT_EQ(s.run().groups, groups);
  EXPECT_EQ(s.counters, "8 4 12 9 0 0") << "all digests were kept";
  const fs::path digest_file = fs::directory_iterator(s.save_dir)->path();
  std::ofstream(digest_file, std::ios::app) << "more";
  EXPECT_EQ(s.run().groups, groups);
  EXPECT_EQ(s.counters, "8 4 18 9 6 0") << "a damaged digest file counts for nothing";
  const struct timespec mtime = tree.status("t/one").st_mtim;
  tree.set_mtime("t/one", mtime.tv_sec, mtime.tv_nsec ^ 1);
  EXPECT_EQ(s.run().groups, groups);
  EXPECT_EQ(s.counters, "8 4 13 9 1 0") << "one file was touched";

  std::string all = joined(log.messages(), "\n");
  for (const std::string &line :
       {"duplicated skip entry of " + tree.path("t/skip"),
        "failed to open skip entry " + tree.path("t/symlink") +
            " returned Too many levels of symbolic links",
        "skip entry " + tree.path("t/fifo") + " is not a file nor a directory",
        "failed to open skip entry " + tree.path("gone") + " returned No such file or directory",
        std::string("load_usable_hash(6 entries):"), std::string("load_usable_hash(-1 entries):"),
        std::string("save_usable_hash(6 entries):"), std::string("nr_scan_file 9\n")}) {
    EXPECT_NE(all.find("INFO " + line), std::string::npos) << line;
  }
  EXPECT_EQ(all.find("ERRO"), all.rfind("ERRO")) << all;
}

TEST(Scan, ObeysItsLimitsAndCallbacksAndNamesItsDigestFileByTheRoots) {
  const temporary_tree tree("t/a=same t/b=same t/d/c=same t/d/e=more t/ab/x=1 s/ s1/ s2/ s3/ s4/");
  const captured_log log;
  std::vector<scan> scans;
  const auto add = [&](const lines &roots, const std::string &save_dir) -> scan & {
    scan &added = scans.emplace_back(tree, roots);
    added.save_dir = tree.path(save_dir);
    return added;
  };
  scans.reserve(9);
  scan &shallow = add({"t"}, "s");
  shallow.max_depth = 1;
  scan &filtered = add({"t", "t/d"}, "s");
  filtered.min_size = 5;
  filtered.ops.filter = [](int, const struct stat *status, const char *path) {
    const std::string_view name = path;
    return S_ISDIR(status->st_mode) ? (name.ends_with("/t/d") ? -1 : 0)
           : name.ends_with('b')    ? 0
                                    : 7;
  };
  scan &judged = add({"t", "t/d"}, "s");
  judged.ops.get_status = [](int, const struct stat *, const char *path) {
    return path[strlen(path) - 1] == 'b' ? 0 : SIS_STATUS_COMPRESSED;
  };
  scan &changed = add({"t"}, "s4");
  changed.ops.prep = [](int, const char *) { return 0; };
  changed.ops.verify = [](int, const char *path) { return path[strlen(path) - 1] == 'a' ? -1 : 0; };
  add({"t/a", "b"}, "s1");
  add({"b", "t/a"}, "s1");
  scan &mute = add({"t"}, "s2");
  mute.ops.report = nullptr;
  scan &empty = add({}, "s3");
  run_all(&scans);

  for (const scan &one : scans) {
    EXPECT_EQ(one.result, 0);
  }
  EXPECT_EQ(shallow.groups, "t/a=t/b");
  EXPECT_EQ(shallow.counters, "1 1 4 2 2 0");
  EXPECT_EQ(filtered.groups, "") << "b is too small, a is alone, t/d is left out";
  EXPECT_EQ(filtered.counters, "4 2 3 2 0 0");
  EXPECT_EQ(judged.groups, "t/a=t/b=t/d/c");
  EXPECT_EQ(judged.compressed, (std::set<std::string>{"t/a", "t/ab/x", "t/d/c", "t/d/e"}));
  EXPECT_EQ(changed.groups, "t/b=t/d/c");
  EXPECT_EQ(std::distance(fs::directory_iterator(tree.path("s1")), {}), 2);
  EXPECT_EQ(std::distance(fs::directory_iterator(tree.path("s2")), {}), 1);
  EXPECT_EQ(empty.counters, "0 0 0 0 0 0");
  EXPECT_TRUE(fs::exists(
      tree.path("s3/e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855.hsh")));
}

scan *watched = nullptr;  // the scan that the callbacks below belong to

TEST(Scan, StoppedByItsHostKeepsTheDigestsItHasAndReportsNoGroupItHasNotSplit) {
  const temporary_tree tree("t/a=same t/b=same t/c=same s/");
  const captured_log log;
  scan s(tree);
  watched = &s;
  s.ops.prep = [](int, const char *) { return 0; };
  s.ops.verify = [](int, const char *) {
    signal_no_time(watched->stop_handle);
    return 0;
  };
  EXPECT_EQ(s.run().result, 0);
  EXPECT_EQ(s.groups, "");
  const std::string read = s.counters.substr(s.counters.size() - 3, 1);
  EXPECT_NE(read, "0");
  s.ops.verify = nullptr;
  EXPECT_EQ(s.run().groups, "t/a=t/b=t/c");
  EXPECT_EQ(s.counters.substr(s.counters.size() - 3), std::to_string(3 - std::stoi(read)) + " 0");
}

TEST(Scan, WhoseBudgetIsSpentDuringTheWalkStillReportsAndLeavesSigalrmAsItWas) {
  const alarm_owner owner;
  const temporary_tree tree("t/a=same t/b=same s/");
  const captured_log log;
  scan s(tree);
  watched = &s;
  s.time_budget = 1;
  s.ops.filter = [](int, const struct stat *, const char *) {
    while (__atomic_load_n(watched->stop_handle, __ATOMIC_RELAXED) != 0) {
      std::this_thread::yield();
    }
    return 0;
  };
  s.on_report = [&owner](const sis_report &record) {
    if (record.stage == REPORT_END) {  // a signal that is pending when the run ends
      EXPECT_FALSE(owner.has_its_action());
      alarm_owner::mask_alarm(SIG_BLOCK);
      alarm_owner::send_alarm(nullptr);
    }
  };
  EXPECT_EQ(s.run().result, 0);
  EXPECT_TRUE(alarm_owner::mask_alarm(SIG_UNBLOCK));
  EXPECT_TRUE(owner.has_its_action());
  EXPECT_EQ(s.counters, "1 1 0 0 0 0");
  EXPECT_EQ(s.groups, "");
  EXPECT_TRUE(log.messages().back().starts_with("INFO full scan process:1."));
}

TEST(Scan, ManyAtOnceOverOneDigestFileAgreeAndLeaveNoDescriptorThreadOrAction) {
  const auto count_in = [](const char *directory) {
    return std::distance(fs::directory_iterator(directory), {});
  };
  const alarm_owner owner;
  const temporary_tree tree("t/a=same t/b=same t/d/c=more t/d/e=more s/");
  const captured_log log;
  const auto descriptors = count_in("/proc/self/fd");
  const auto threads = count_in("/proc/self/task");
  for (int round = 0; round < 5; round++) {
    std::vector<scan> scans(20, scan(tree));
    for (scan &one : scans) {
      one.time_budget = 300;
    }
    run_all(&scans);
    for (const scan &one : scans) {
      EXPECT_EQ(one.result, 0);
      EXPECT_EQ(one.groups, "t/a=t/b t/d/c=t/d/e");
    }
  }
  EXPECT_EQ(count_in("/proc/self/fd"), descriptors);
  while (count_in("/proc/self/task") > threads) {  // a joined thread may take a moment to vanish
    std::this_thread::yield();
  }
  EXPECT_TRUE(owner.has_its_action());
}

int start_scan(const temporary_tree &tree, const lines &roots, int64_t size_hint,
               sis_report_callback report = nullptr, uint64_t caller_data = 0) {
  std::vector<const char *> pointers;
  for (const std::string &root : roots) {
    pointers.push_back(root.c_str());
  }
  const std::string save_dir = tree.path("s");
  const sis_scan_request request = {
      static_cast<int32_t>(roots.size()), 0, pointers.data(), nullptr, save_dir.c_str(), size_hint};
  return startScanDirImpl(&request, caller_data, report);
}

TEST(ScanRequest, ChoosesTheMinimumSizeAndChecksTheDirectoriesInOrder) {
  const temporary_tree nothing;
  const temporary_tree tree("t/ s/");
  const std::string small = "SERVICE minimum is:65536\n";
  const struct {
    const temporary_tree *tree;
    int64_t size_hint;
    lines messages;
  } cases[] = {{&nothing, 0x10000000, {small, "SERVICE Cannot access " + nothing.path("s")}},
               {&nothing, -1, {small, "SERVICE Cannot access " + nothing.path("s")}},
               {&nothing,
                0x10000001,
                {"SERVICE minimum is:1048576\n", "SERVICE Cannot access " + nothing.path("s")}},
               {&tree, 0, {small, "SERVICE Cannot read from /gone"}}};
  for (const auto &[where, size_hint, messages] : cases) {
    const captured_log log;
    EXPECT_EQ(start_scan(*where, {where->path("t"), "/gone", "/gone too"}, size_hint), ENOENT);
    EXPECT_EQ(log.messages(), messages);
  }
  const captured_log log;
  int untouched = 0;
  int *handle = &untouched;
  EXPECT_EQ(single_instance_storage(nullptr, 0, nullptr, 0, "s", 0, 0, 0, 9, nullptr, 0, &handle),
            EINVAL);
  EXPECT_TRUE(handle == &untouched && log.lines().empty());
}

TEST(ScanRequest, AsksTheFileSystemAboutEachFileAndFreezesWhatItReads) {
  const temporary_tree tree("t/a=x*65536 t/b=x*65536 t/small1=x*65535 t/small2=x*65535 s/");
  const captured_log log;
  lines calls;
  const auto receive = [](uint64_t caller_data, sis_report *record) {
    std::string call = std::to_string(record->stage);
    if (record->stage == REPORT_GROUP || record->stage == REPORT_FILE) {
      call += " " + std::to_string(record->status) + " " + std::to_string(record->size);
    }
    reinterpret_cast<lines *>(caller_data)->push_back(call);
    return 0;
  };
  scripted_fs file_system;
  file_system.answer_with(static_cast<unsigned>(FS_IOC_GETFLAGS), uint32_t{FS_COMPR_FL}, true);
  file_system.answer_with(SIS_IOC_COINCIDE_FLAG, sis_coincide_arg{SIS_FLAG_COINCIDE, 0}, true);
  EXPECT_EQ(start_scan(tree, {tree.path("t")}, 0, receive, reinterpret_cast<uint64_t>(&calls)), 0);
  EXPECT_EQ(calls, (lines{"0", "3 3 65536", "4 3 65536", "5", "1", "4 3 65536", "4 3 65536", "2"}));
  std::string requests = joined(file_system.texts(tree.root()), "\n");
  for (const char *request :
       {"a ro flags=2 op=4", "a ro flags=0 op=8", "b ro flags=2 op=4", "b ro flags=0 op=8"}) {
    EXPECT_NE(requests.find(std::string("COINCIDE_FLAG t/") + request), std::string::npos);
  }

  EXPECT_EQ(start_scan(tree, {tree.path("t")}, 0), 0);
  EXPECT_EQ(file_system.count(SIS_IOC_COINCIDE_FLAG), 4U) << "no unchanged file is read again";
}

}  // namespace
