// The modules of the scan engine one by one. The test runs their jobs itself, in a fixed order.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include <filesystem>
#include <utility>

#include "common/paths.h"
#include "fbddp/dentry_forms.h"
#include "fbddp/fingerprint.h"
#include "fbddp/forest.h"
#include "fbddp/grouping.h"
#include "fbddp/job_queue.h"
#include "fbddp/member_index.h"
#include "fbddp/scan_report.h"
#include "fbddp/time_budget.h"
#include "fbddp/walk.h"
#include "support/alarm_owner.h"
#include "support/run_context.h"
#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"
#include "velmarin/primitives.h"

namespace {

using namespace velmarin;
using namespace velmarin_test;

constexpr int STATUSES[] = {SIS_STATUS_COMPRESSED, 1,  -95, SIS_STATUS_COMPRESSED, 0,
                            SIS_STATUS_COMPRESSED, -22};

// Files that exist only in the forest, with made-up digests.
struct forest : run_context {
  dentry *root = list(nullptr, "/r", false);
  uint32_t count = 0;

  ~forest() { free_member_indexes(&ctx); }

  // Inserts the next file: "a", "b" and so on, with inode numbers from 1 on. Null when refused.
  dentry *insert(uint64_t size, uint64_t pattern = 0, uint64_t key = 0) {
    dentry *file = list(root, std::string(1, static_cast<char>('a' + count)), true);
    file->own = {STATUSES[count % std::size(STATUSES)], MARKER_NOT_SET, 100 + count};
    count++;
    file->key = key != 0 ? key : count;
    file->size = size;
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
      names += name_of(taken->dentry);
    }
    return names;
  }

  // Inserts a file of one size for each letter of `contents`; '-' stands for a file whose digest
  // job failed. Splits their group.
  std::vector<dentry *> group(const std::string &contents) {
    std::vector<dentry *> files;
    for (const char content : contents) {
      uint8_t digest[DIGEST_SIZE] = {};
      digest[DIGEST_SIZE - 1] = static_cast<uint8_t>(content);
      files.push_back(insert(5000));
      files.back()->hash = nullptr;
      content != '-' ? give_digest(files.back(), digest) : void();
    }
    queued();
    split_group(&ctx, files[0]);
    return files;
  }
};

TEST(Dentry, HasAPathOfAtMost4095CharactersAndWritesNothingBeforeItsBuffer) {
  run_context c;
  struct {
    char canary[8] = "#######";
    path_buffer path = {};
  } place;
  for (const size_t root : {1U, 2U, 4093U, 4094U, 4095U, 4096U}) {
    for (const size_t leaf : {1U, 2U, 8U, 4091U, 4092U, 4093U, 4094U, 4095U, 4096U}) {
      const std::string names[] = {std::string(root, 'r'), std::string(leaf, 'f')};
      dentry *parent = c.list(nullptr, names[0], false);
      dentry *file = c.list(parent, names[1], true);
      const std::string whole = names[0] + "/" + names[1];
      EXPECT_STREQ(get_fullpath(file, place.path.text), whole.size() < 4096 ? whole.c_str() : "");
      EXPECT_STREQ(get_fullpath(parent, place.path.text), root < 4096 ? names[0].c_str() : "");
      EXPECT_EQ(memcmp(place.canary, "#######", 8), 0) << root << " " << leaf;
    }
  }
}

// Which entries keep a record when a tree is walked to a given depth.
TEST(Walk, KeepsRecordsOnlyOfCandidatesAndDirectoriesThatWereRead) {
  const temporary_tree tree("a=same b=other_content d/e=depth d/f/g=deeper");
  std::filesystem::create_hard_link(tree.path("a"), tree.path("c"));
  std::filesystem::create_symlink("d", tree.path("l"));
  const auto walk = [&tree](uint64_t max_depth, uint64_t min_size, bool in_time) {
    run_context c;
    c.ctx.max_depth = max_depth;
    c.ctx.min_size = min_size;
    c.ctx.in_time = in_time ? 1 : 0;
    read_directory(&c.ctx, c.list(nullptr, tree.root(), false));
    for (job *taken; (taken = take_job(&c.ctx)) != nullptr; finish_job(&c.ctx, taken)) {
      is_file_form(taken->dentry) ? admit_file(&c.ctx, taken->dentry)
                                  : read_directory(&c.ctx, taken->dentry);
    }
    std::string kept;
    for (const dentry &d : list_range<&dentry::link>(&c.ctx.dentries)) {
      kept += parent_of(&d) == nullptr ? '/' : name_of(&d)[0];
    }
    std::ranges::replace(kept, 'c', 'a');  // either name of the one file may come first
    std::ranges::sort(kept);
    return kept;
  };
  EXPECT_EQ(walk(0, 0, true), "/abdefg");
  EXPECT_EQ(walk(1, 0, true), "/ab");
  EXPECT_EQ(walk(2, 4, true), "/abde");
  EXPECT_EQ(walk(0, 5, true), "/bdefg");
  EXPECT_EQ(walk(0, 0, false), "/aabdl") << "no job is scheduled";
}

TEST(Forest, RequestsADigestOnlyOfInodesThatShareTheirKey) {
  for (void (*make_indexes)(sis_context *) : {make_member_indexes, +[](sis_context *) {}}) {
    forest f;
    make_indexes(&f.ctx);
    dentry *a = f.insert(10);
    f.insert(10 + FOREST_TREES);  // the same tree
    EXPECT_EQ(f.queued(), "");
    dentry *c = f.insert(10);
    EXPECT_EQ(f.queued(), "ac");
    EXPECT_EQ(f.insert(10, 0, 1), nullptr) << "a hard link to the node";
    EXPECT_EQ(f.insert(10, 0, 3), nullptr) << "a hard link to a member";
    EXPECT_EQ(f.insert(10, 0, uint64_t{7} << 32 | 1), nullptr) << "only inode numbers are compared";
    EXPECT_EQ(f.insert(10, 0, uint64_t{7} << 32 | 3), nullptr);
    EXPECT_NE(f.insert(11, 0, 1), nullptr) << "inodes are compared only within one key";
    f.insert(10);
    EXPECT_EQ(f.queued(), "i") << "the node's digest is still pending";
    a->hash = nullptr;  // as if the node's digest job had failed
    f.insert(10);
    EXPECT_EQ(f.queued(), "aj");
    f.ctx.in_time = 0;
    EXPECT_TRUE(is_digest_pending(f.insert(10)));
    EXPECT_EQ(f.queued(), "");
    for (uint32_t ino = 100; ino < 300; ino++) {  // each twice
      EXPECT_EQ(f.insert(10, 0, 100 + ino % 100) != nullptr, ino < 200);
    }
    c->key = 300;  // only an index still has its inode
    EXPECT_EQ(f.insert(10, 0, 3) == nullptr, make_indexes == make_member_indexes);
  }
}

TEST(Forest, DistinguishesFilesOfAtLeastOneMebibyteByPattern) {
  forest f;
  for (const uint64_t pattern : {5U, 7U, 3U, 7U}) {
    f.insert(PATTERN_MIN_SIZE, pattern);
  }
  EXPECT_EQ(f.queued(), "bd");
  f.insert(PATTERN_MIN_SIZE - 1, 1);
  f.insert(PATTERN_MIN_SIZE - 1, 2);
  EXPECT_EQ(f.queued(), "ef") << "patterns are ignored below one mebibyte";
  f.insert(PATTERN_MIN_SIZE);
  EXPECT_EQ(f.queued(), "ag") << "without a pattern it joins the node it was compared with";
}

// The report of a run as its host sees it, such as "<(ac)(bd)|ae>": two groups and two compressed
// files. The host returns 0, except once, at the given point of the report.
std::string report;
std::pair<std::string, int> answer;

int record_call(uint64_t, sis_report *record) {
  constexpr const char *MARKS[] = {"<", "|", ">", "(", "", ")"};
  report += MARKS[record->stage];
  if (record->stage == REPORT_GROUP || record->stage == REPORT_FILE) {
    report += name_of(record->dentry);
    EXPECT_TRUE(std::string_view(record->path).ends_with(name_of(record->dentry)));
    EXPECT_EQ(record->status, attributes_of(record->dentry).status);
  }
  return report == answer.first ? answer.second : 0;
}

std::string report_of(forest *f, const std::pair<std::string, int> &given = {}) {
  report.clear();
  answer = given;
  f->ops.report = record_call;
  report_findings(&f->ctx);
  return report;
}

TEST(Grouping, FindsIdenticalFilesInOrderAndKeepsEveryFilesOwnStatusAndBlocks) {
  for (const std::string expected :
       {"x <|a>", "- <|a>", "xy <|a>", "-x <|a>", "xyx <(ac)|a>", "-xx <(bc)|a>", "xx- <(ab)|a>",
        "xyzz <(cd)|ad>", "xyxz <(ac)|ad>", "xyxy <(ac)(bd)|ad>", "xyyx <(ad)(bc)|ad>",
        "xxxx <(abcd)|ad>", "xyxyzzx <(acg)(bd)(ef)|adf>", "abcdefghijklmnopqa <(ar)|adfhkmor>"}) {
    forest f;
    const std::string contents = expected.substr(0, expected.find(' '));
    const std::vector<dentry *> files = f.group(contents);
    EXPECT_EQ(contents + " " + report_of(&f), expected);
    for (size_t i = 0; i < files.size(); i++) {
      EXPECT_EQ(attributes_of(files[i]).status, STATUSES[i % std::size(STATUSES)]) << i;
      EXPECT_EQ(attributes_of(files[i]).blocks, 100 + i) << expected << i;
    }
  }
}

TEST(Report, GoesThroughItsStagesAndObeysTheHost) {
  forest f;
  f.group("xyxyx");
  f.insert(1);
  const std::string whole = "<(ace)(bd)|adf>";
  EXPECT_EQ(report_of(&f), whole);
  for (const char *ignored : {"<(a", "<(ac", "<(ace)", "<(ace)(bd)|a"}) {
    EXPECT_EQ(report_of(&f, {ignored, 1}), whole);
  }
  EXPECT_EQ(report_of(&f, {"<", 1}), "<>");
  EXPECT_EQ(report_of(&f, {"<(a", REPORT_SKIP}), "<(a)(bd)|adf>");
  EXPECT_EQ(report_of(&f, {"<(a", REPORT_STOP}), "<(a>");
  EXPECT_EQ(report_of(&f, {"<(ac", REPORT_SKIP}), "<(ac)(bd)|adf>");
  EXPECT_EQ(report_of(&f, {"<(ac", REPORT_STOP}), "<(ac>");
  EXPECT_EQ(report_of(&f, {"<(ace)", REPORT_STOP}), "<(ace)>");
  EXPECT_EQ(report_of(&f, {"<(ace)(bd)|", 1}), "<(ace)(bd)|>");
  EXPECT_EQ(report_of(&f, {"<(ace)(bd)|a", REPORT_SKIP}), "<(ace)(bd)|a>");
}

TEST(TimeBudget, ASignalStopsOnlyTheLiveRunItNamesAndNeverReachesThePreviousAction) {
  const alarm_owner owner;
  sis_context first = {};
  sis_context second = {};
  first.in_time = second.in_time = 1;
  arm_time_budget(&first, 300);
  arm_time_budget(&second, 300);
  alarm_owner::send_alarm(&first);
  EXPECT_TRUE(first.in_time == 0 && second.in_time == 1);

  // A late signal from another run's timer, whose context was at the same address.
  siginfo_t late = {};
  late.si_code = SI_TIMER;
  late.si_timerid = -1;
  late.si_value.sival_ptr = &second;
  ASSERT_EQ(syscall(SYS_rt_sigqueueinfo, getpid(), SIGALRM, &late), 0);
  usleep(0);
  EXPECT_EQ(second.in_time, 1);
  second.alarm.deadline = {0, 999'999'999};  // passed, so it may be its own
  ASSERT_EQ(syscall(SYS_rt_sigqueueinfo, getpid(), SIGALRM, &late), 0);
  usleep(0);
  EXPECT_EQ(std::exchange(second.in_time, 1), 0);

  release_time_budget(&first);
  EXPECT_FALSE(owner.has_its_action()) << "the second run still needs the handler";
  first.in_time = 1;
  alarm_owner::send_alarm(&first);
  EXPECT_EQ(first.in_time, 1) << "the run is over";
  alarm_owner::mask_alarm(SIG_BLOCK);
  alarm_owner::send_alarm(&second);
  release_time_budget(&second);
  EXPECT_TRUE(alarm_owner::mask_alarm(SIG_UNBLOCK)) << "as before";
  EXPECT_TRUE(owner.has_its_action() && second.in_time == 1);
}

TEST(Pattern, IsTheCrcOfTwoBlocksOfAWholeFileAndDoesNotBlockOnAFifoThatReplacedIt) {
  const temporary_tree tree("whole=abcdefg*149797 short=x*5000 empty=x*0");
  ASSERT_EQ(mkfifo(tree.path("fifo").c_str(), 0600), 0);
  const std::string content = tree.read("whole");
  const std::string sample = content.substr(0, 4096) + content.substr(0xff000, 4096);
  run_context run;
  dentry *root = run.list(nullptr, tree.root(), false);
  alarm(60);  // ends a test that hangs
  for (const auto &[name, result] :
       {std::pair("whole", 0), {"short", 1}, {"empty", 1}, {"fifo", ESPIPE}, {"gone", ENOENT}}) {
    dentry *file = run.list(root, name, true);
    errno = 0;
    EXPECT_EQ(make_pattern(file, nullptr, -1), result) << name;
    EXPECT_EQ(file->pattern, result == 0 ? crc64_be(0, sample.data(), sample.size()) : 0U);
  }
  alarm(0);
  EXPECT_EQ(run.log.messages(),
            (std::vector<std::string>{
                "ERRO fail to read from 1044480 to 1048576 from " + tree.path("short"),
                "ERRO fail to read from 0 to 4096 from " + tree.path("empty"),
                "ERRO fail to seek to 0 from " + tree.path("fifo"),
                "ERRO fail to open " + tree.path("gone") + " returned No such file or directory"}));
}

}  // namespace
