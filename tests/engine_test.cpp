// The rooms of the scan engine one by one, their jobs done in a fixed order by the test itself.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "fbddp/fingerprint.h"
#include "fbddp/forest.h"
#include "fbddp/grouping.h"
#include "fbddp/job_queue.h"
#include "fbddp/member_index.h"
#include "fbddp/scan_report.h"
#include "fbddp/time_budget.h"
#include "support/alarm_owner.h"
#include "support/captured_log.h"
#include "support/run_context.h"
#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"

static std::function<void()> during_reading;

// The engine gives this advice before and after it reads a file.
extern "C" int posix_fadvise(int, off_t, off_t, int) noexcept {
  during_reading();
  return 0;
}

namespace {

using namespace velmarin;
using namespace velmarin_test;

TEST(DigestJob, DigestsAnUnchangedFileAndCountsWhatWentWrong) {
  const auto well = [](int, const char *) { return 0; };
  const auto refused = [](int, const char *) { return EPERM; };
  enum touched { never, before, meanwhile };
  enum outcome { digested, changed, left_out };
  const struct {
    touched touch;
    sis_freeze_callback prep, verify;
    outcome result;
  } cases[] = {{never, nullptr, nullptr, digested},    {before, nullptr, nullptr, left_out},
               {meanwhile, nullptr, nullptr, changed}, {meanwhile, well, well, digested},
               {never, refused, nullptr, digested},    {never, refused, well, left_out}};
  for (const auto &[touch, prep, verify, result] : cases) {
    SCOPED_TRACE(std::to_string(touch) + std::to_string(result));
    const captured_log log;
    const temporary_tree tree("f=abc");
    run_context run;
    run.ops = {nullptr, nullptr, prep, verify, nullptr};
    dentry *file = run.list(run.list(nullptr, tree.root(), false), "f", true);
    file->mtime = tree.status("f").st_mtim;
    const std::function<void()> change = [&tree] { tree.set_mtime("f", 1, 1); };
    if (touch == before) {
      change();
    }
    during_reading = touch == meanwhile ? change : [] {};
    digest_file_content(&run.ctx, file);
    EXPECT_EQ(run.ctx.nr_error, result == left_out ? 1U : 0U);
    EXPECT_EQ(run.ctx.nr_hashed, result == left_out ? 0U : 1U);
    ASSERT_EQ(file->hash != nullptr, result == digested);
    EXPECT_TRUE(!file->hash || memcmp(file->hash->digest, "\xba\x78\x16\xbf", 4) == 0);
  }
}

constexpr int STATUSES[] = {SIS_STATUS_COMPRESSED, 1, -95, SIS_STATUS_COMPRESSED, 0, 2, -22};

// Files that exist in the forest only, with digests made up.
struct forest : run_context {
  captured_log log;
  dentry *root = list(nullptr, "/r", false);
  uint32_t count = 0;

  ~forest() { free_member_indexes(&ctx); }

  // Inserts the next file: "a", "b" and so on, with inode numbers from 1 on. Null when refused.
  dentry *insert(uint64_t size, int status = 0, uint64_t pattern = 0, uint32_t ino = 0) {
    dentry *file = list(root, std::string(1, static_cast<char>('a' + count++)), true);
    file->key = ino != 0 ? ino : count;
    file->size = size;
    file->own = {status, MARKER_NOT_SET, 100 + count};
    file->pattern = pattern;
    if (insert_into_forest(&ctx, file, -1, nullptr)) {
      return file;
    }
    free_entry(&ctx, file);
    return nullptr;
  }

  // The names of the queued files, in order; the queue is empty afterwards.
  std::string queued() {
    std::string names;
    for (job *taken; (taken = take_job(&ctx)) != nullptr; finish_job(&ctx, taken)) {
      names += name_of(taken->target);
    }
    return names;
  }

  // Inserts a file of one size for each letter of `contents`; '-' stands for a file whose digest
  // job failed. Splits their group.
  std::vector<dentry *> group(const std::string &contents) {
    std::vector<dentry *> files;
    for (size_t i = 0; i < contents.size(); i++) {
      files.push_back(insert(5000, STATUSES[i % std::size(STATUSES)]));
    }
    queued();
    for (size_t i = 0; i < contents.size(); i++) {
      uint8_t digest[DIGEST_SIZE] = {};
      digest[DIGEST_SIZE - 1] = static_cast<uint8_t>(contents[i]);
      files[i]->hash = nullptr;
      if (contents[i] != '-') {
        give_digest(files[i], digest);
      }
    }
    split_group(&ctx, files[0]);
    return files;
  }

  // The groups found, such as " ac bd".
  std::string groups() {
    std::string text;
    for (dentry &head : list_range<&dentry::group>(&ctx.groups)) {
      text += " " + std::string(name_of(&head));
      for (dentry &other : list_range<&dentry::same>(&head.same)) {
        text += name_of(&other);
      }
    }
    return text;
  }
};

TEST(Forest, WantsADigestOfEachInodeThatSharesItsKeyAndOfNoOther) {
  for (const bool with_indexes : {true, false}) {
    forest f;
    if (with_indexes) {
      make_member_indexes(&f.ctx);
    }
    dentry *a = f.insert(10);
    f.insert(10 + FOREST_TREES);  // the same tree
    EXPECT_EQ(f.queued(), "");
    f.insert(10);
    EXPECT_EQ(f.queued(), "ac");
    EXPECT_EQ(f.insert(10, 0, 0, 1), nullptr) << "a hard link to the node";
    EXPECT_EQ(f.insert(10, 0, 0, 3), nullptr) << "a hard link to a member";
    EXPECT_NE(f.insert(11, 0, 0, 1), nullptr) << "an inode counts within one key only";
    f.insert(10);
    EXPECT_EQ(f.queued(), "g") << "the node's digest is still wanted";
    a->hash = nullptr;  // as if the node's digest job had failed
    f.insert(10);
    EXPECT_EQ(f.queued(), "ah");
    f.ctx.in_time = 0;
    EXPECT_TRUE(is_digest_wanted(f.insert(10)));
    EXPECT_EQ(f.queued(), "");
    for (uint32_t ino = 100; ino < 300; ino++) {  // each twice
      EXPECT_EQ(f.insert(10, 0, 0, 100 + ino % 100) != nullptr, ino < 200);
    }
  }
}

TEST(Forest, TellsFilesFromOneMebibyteOnApartByTheirPatterns) {
  forest f;
  for (const uint64_t pattern : {5U, 7U, 3U}) {
    f.insert(PATTERN_MIN_SIZE, 0, pattern);
  }
  EXPECT_EQ(f.queued(), "");
  f.insert(PATTERN_MIN_SIZE, 0, 7);
  EXPECT_EQ(f.queued(), "bd");
  f.insert(PATTERN_MIN_SIZE - 1, 0, 1);
  f.insert(PATTERN_MIN_SIZE - 1, 0, 2);
  EXPECT_EQ(f.queued(), "ef") << "below, patterns do not count";
  f.insert(PATTERN_MIN_SIZE);
  EXPECT_EQ(f.queued(), "ag") << "without a pattern it joins the node it was compared with";
}

TEST(Grouping, FindsIdenticalFilesInOrderAndKeepsEveryFilesOwnStatusAndBlocks) {
  for (const std::string groups : {"xyx ac", "-xx bc", "xx- ab", "xy", "-x", "--", "xyzz cd",
                                   "xyxz ac", "x-x- ac", "xyxy ac bd", "xyyx ad bc", "xxxx abcd",
                                   "-yxyx bd ce", "xyxyzzx acg bd ef", "abcdefghijklmnopqa ar"}) {
    forest f;
    const std::string contents = groups.substr(0, groups.find(' '));
    const std::vector<dentry *> files = f.group(contents);
    EXPECT_EQ(contents + f.groups(), groups);
    for (size_t i = 0; i < files.size(); i++) {
      EXPECT_EQ(attributes_of(files[i]).status, STATUSES[i % std::size(STATUSES)]) << contents << i;
      EXPECT_EQ(attributes_of(files[i]).blocks, 101 + i) << contents << i;
    }
  }
}

// A host that writes down each call and answers as told.
struct report_host {
  std::map<std::string, int> answers;
  std::string calls;
  std::vector<sis_report> records;

  static int receive(uint64_t caller_data, sis_report *record) {
    constexpr const char *STAGES[] = {"begin", "compressed", "end", "group ", "file ", "group end"};
    auto *self = reinterpret_cast<report_host *>(caller_data);
    std::string call = STAGES[record->stage];
    if (call.back() == ' ') {
      call += strrchr(record->path, '/') + 1;
    }
    self->calls += call + ",";
    self->records.push_back(*record);
    return self->answers[call];
  }
};

TEST(Report, PassesThroughItsStagesAndObeysTheHostsAnswers) {
  const std::string groups = "begin,group a,file c,file e,group end,group b,file d,group end,";
  const std::string end = "compressed,file a,file d,file f,end,";
  const std::pair<std::map<std::string, int>, std::string> cases[] = {
      {{}, groups + end},
      {{{"group a", 1}, {"file c", 1}, {"group end", 2}, {"file a", 3}}, groups + end},
      {{{"begin", 1}}, "begin,end,"},
      {{{"group a", 2}}, "begin,group a,group end,group b,file d,group end," + end},
      {{{"group a", 3}}, "begin,group a,end,"},
      {{{"file c", 3}}, "begin,group a,file c,end,"},
      {{{"file c", 2}}, "begin,group a,file c,group end,group b,file d,group end," + end},
      {{{"group end", 3}}, "begin,group a,file c,file e,group end,end,"},
      {{{"compressed", 1}}, groups + "compressed,end,"},
      {{{"file a", 2}}, groups + "compressed,file a,end,"}};
  for (const auto &[answers, calls] : cases) {
    forest f;
    const std::vector<dentry *> files = f.group("xyxyx");
    f.insert(1, SIS_STATUS_COMPRESSED);
    report_host host = {answers, "", {}};
    f.ops.report = report_host::receive;
    f.ctx.caller_data = reinterpret_cast<uint64_t>(&host);
    report_findings(&f.ctx);
    EXPECT_EQ(host.calls, calls);
    if (answers.empty()) {
      const sis_report &c = host.records[2];
      EXPECT_TRUE(c.dentry == files[2] && c.ino == 3 && c.status == -95 && c.size == 5000);
      EXPECT_TRUE(c.blocks == 103 && c.mtime == &files[2]->mtime &&
                  c.digest == files[2]->hash->digest);
      EXPECT_EQ(host.records[11].digest, nullptr) << "f has no digest";
    }
  }
}

TEST(TimeBudget, ASignalStopsOnlyTheLiveRunItNamesAndNeverReachesTheFormerAction) {
  const alarm_owner owner;
  sis_context first = {};
  sis_context second = {};
  first.in_time = second.in_time = 1;
  arm_time_budget(&first, 300);
  arm_time_budget(&second, 300);
  itimerspec left = {};
  timer_gettime(first.timer, &left);
  EXPECT_GE(left.it_value.tv_sec, 298);
  alarm_owner::send_alarm(&first);
  EXPECT_TRUE(first.in_time == 0 && second.in_time == 1);

  // A late signal of another timer, whose run had its context at the same address.
  siginfo_t late = {};
  late.si_code = SI_TIMER;
  late.si_timerid = -1;
  late.si_value.sival_ptr = &second;
  ASSERT_EQ(syscall(SYS_rt_sigqueueinfo, getpid(), SIGALRM, &late), 0);
  usleep(0);
  EXPECT_EQ(second.in_time, 1);

  release_time_budget(&first);
  EXPECT_FALSE(owner.has_its_action()) << "the second run still needs the handler";
  alarm_owner::mask_alarm(SIG_BLOCK);
  alarm_owner::send_alarm(&second);
  release_time_budget(&second);
  alarm_owner::mask_alarm(SIG_UNBLOCK);
  EXPECT_TRUE(owner.has_its_action() && second.in_time == 1);
}

TEST(TimeBudget, RunsThatStartAndEndAtTheSameMomentLeaveTheRightActionInForce) {
  const alarm_owner owner;
  std::atomic<int> wrong_actions = 0;
  const auto start_and_end = [&] {
    for (int round = 0; round < 1000; round++) {
      sis_context ctx = {};
      arm_time_budget(&ctx, 300);
      wrong_actions += owner.has_its_action() ? 1 : 0;
      release_time_budget(&ctx);
    }
  };
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; i++) {
    threads.emplace_back(start_and_end);
  }
  threads.clear();
  EXPECT_EQ(wrong_actions, 0);
  EXPECT_TRUE(owner.has_its_action());
}

}  // namespace
