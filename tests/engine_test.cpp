// The rooms of the scan engine one by one, their jobs done in a fixed order by the test itself; and
// runs whose workers or time budget fail.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "fbddp/file_index.h"
#include "fbddp/forest.h"
#include "fbddp/grouping.h"
#include "fbddp/member_index.h"
#include "fbddp/scan_report.h"
#include "fbddp/time_budget.h"
#include "support/alarm_owner.h"
#include "support/captured_log.h"
#include "support/run_context.h"
#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"

namespace {

// What happens at the calls of one C library function: the first one to fail and how many fail, and
// something to do before each. Set while no other thread runs.
struct call_plan {
  std::string function;
  int first_failure = 0;
  int failures = 0;
  std::function<void()> before;
  std::atomic<int> calls = 0;

  void set(const std::string &name, int first, int count,
           const std::function<void()> &action = {}) {
    function = name;
    first_failure = first;
    failures = count;
    before = action;
    calls = 0;
  }
  bool fails(const char *name) {
    if (function != name) {
      return false;
    }
    if (before) {
      before();
    }
    const int call = ++calls;
    return call >= first_failure && call < first_failure + failures;
  }
};
call_plan plan;

}  // namespace

#define GOES_AS_PLANNED(failure, name, parameters, ...)           \
  extern "C" int name parameters noexcept {                       \
    using function = int(*) parameters;                           \
    static const auto next = (function)(dlsym(RTLD_NEXT, #name)); \
    if (plan.fails(#name)) {                                      \
      errno = EIO;                                                \
      return failure;                                             \
    }                                                             \
    return next(__VA_ARGS__);                                     \
  }
// clang-format off
GOES_AS_PLANNED(EIO, posix_fadvise, (int fd, off_t start, off_t size, int advice), fd, start, size, advice)
GOES_AS_PLANNED(-1, sigaction, (int signal, const struct sigaction *now, struct sigaction *old), signal, now, old)
GOES_AS_PLANNED(-1, sigprocmask, (int how, const sigset_t *set, sigset_t *old), how, set, old)
GOES_AS_PLANNED(-1, timer_create, (clockid_t clock, sigevent *event, timer_t *timer), clock, event, timer)
GOES_AS_PLANNED(-1, timer_settime, (timer_t timer, int flags, const itimerspec *now, itimerspec *old), timer, flags, now, old)
GOES_AS_PLANNED(EAGAIN, pthread_create, (pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument), thread, attributes, body, argument)
// clang-format on

namespace {

using namespace velmarin;
using namespace velmarin_test;
using lines = std::vector<std::string>;

TEST(FullPath, JoinsTheNamesAndGivesTheEmptyStringWhenTheyDoNotFit) {
  const struct {
    size_t root_length;
    size_t file_length;  // 0: the root alone
    bool fits;
  } cases[] = {{2, 3, true},     {4091, 3, true},  {4092, 3, false},
               {1, 4093, true},  {1, 4094, false}, {1, 4095, false},
               {1, 5000, false}, {4095, 0, true},  {4096, 0, false}};
  for (const auto &[root_length, file_length, fits] : cases) {
    run_context run;
    std::string path(root_length, 'r');
    dentry *d = run.list(nullptr, path, false);
    if (file_length > 0) {
      d = run.list(d, std::string(file_length, 'f'), true);
      path += "/" + std::string(file_length, 'f');
    }
    std::string memory(64 + PATH_BUF_SIZE, '#');
    const char *result = get_fullpath(d, &memory[64]);
    EXPECT_EQ(result, fits ? path : "") << root_length << " and " << file_length;
    EXPECT_EQ(result + strlen(result), &memory[64 + PATH_BUF_SIZE - 1]);
    EXPECT_EQ(memory.substr(0, 64), std::string(64, '#')) << "written before the buffer";
  }
  run_context run;
  path_buffer buffer;
  dentry *directory = run.list(run.list(nullptr, "/r/", false), "a", false);
  EXPECT_STREQ(get_fullpath(run.list(directory, "b", true), buffer.text), "/r//a/b");
  for (uint64_t depth = 1; depth < 2050; depth++) {
    ASSERT_EQ(directory->depth, depth % 2048);
    directory = run.list(directory, "d", false);
  }
}

// Real files, as the walk would have admitted them, that want their digests.
struct admitted_files : run_context {
  temporary_tree tree;
  captured_log log;
  dentry *root = list(nullptr, tree.root(), false);

  ~admitted_files() { drop_hash_table(&ctx); }

  dentry *add(const std::string &name, const std::string &content) {
    tree.write(name, content);
    dentry *file = list(root, name, true);
    file->mtime = tree.status(name).st_mtim;
    file->hash = hash_pending();
    return file;
  }
};

TEST(Pattern, SamplesTheFirstMebibyteAndSaysWhichReadFailed) {
  const std::string head(4096, 'h');
  const std::string tail(4096, 't');
  const auto whole = [&](char middle) { return head + std::string(1040384, middle) + tail; };
  const struct {
    const char *name;
    std::string content;
    std::string message;  // of a failure, without the path in which it ends
  } cases[] = {{"whole", whole('m'), ""},
               {"longer", whole('n') + "end", ""},
               {"short", whole('m').substr(1), "fail to read from 1044480 to 1048576 from "},
               {"tiny", "x", "fail to read from 0 to 4096 from "}};
  for (const auto &[name, content, message] : cases) {
    admitted_files files;
    dentry *file = files.add(name, content);
    const std::string path = files.tree.path(name);
    const unique_fd fd(open(path.c_str(), O_RDONLY));
    for (const int offered : {-1, fd.get()}) {
      file->pattern = 0;
      EXPECT_EQ(make_pattern(file, path.c_str(), offered), message.empty() ? 0 : 1) << name;
      EXPECT_EQ(file->pattern, message.empty() ? crc64_be(0, (head + tail).data(), 8192) : 0);
    }
    const std::string line = "ERRO " + message + path;
    EXPECT_EQ(files.log.messages(), message.empty() ? lines{} : (lines{line, line}));
    EXPECT_GT(lseek(fd.get(), 0, SEEK_CUR), 0) << "what was handed in is used and stays open";
  }
}

TEST(DigestJob, DigestsAnUnchangedFileAndSaysWhyThereIsNoDigest) {
  const auto touch = [](admitted_files *files) { files->tree.set_mtime("f", 1, 1); };
  const auto freeze = [](sis_freeze_callback prep, sis_freeze_callback verify) {
    return [=](admitted_files *files) { files->ops = {nullptr, nullptr, prep, verify, nullptr}; };
  };
  const auto well = [](int, const char *) { return 0; };
  const auto refused = [](int, const char *) { return EPERM; };
  const auto negative = [](int, const char *) { return -5; };
  const struct {
    std::function<void(admitted_files *)> prepare;
    lines message;  // of a failure: what stands before and behind the path
    uint64_t errors;
    uint64_t read;  // whether the content was read
    bool has_digest;
  } cases[] = {
      {[](auto *) {}, {}, 0, 1, true},
      {[](auto *files) { unlink(files->tree.path("f").c_str()); },
       {"cannot open ", " returned No such file or directory"},
       1,
       0,
       false},
      {touch, {}, 1, 0, false},
      {[&](auto *files) { plan.set("posix_fadvise", 0, 0, [=] { touch(files); }); },
       {},
       0,
       1,
       false},
      {[&](auto *files) {
         freeze(well, well)(files);
         touch(files);
       },
       {},
       0,
       1,
       true},
      {freeze(refused, nullptr), {}, 0, 1, true},
      {freeze(refused, well), {"call prep for ", " returned Operation not permitted"}, 1, 0, false},
      {freeze(negative, well), {"call prep for ", " returned Unknown error -5"}, 1, 0, false},
      {freeze(well, refused), {}, 0, 1, false},
  };
  int number = 0;
  for (const auto &[prepare, message, errors, read, has_digest] : cases) {
    SCOPED_TRACE(number++);
    admitted_files files;
    dentry *file = files.add("f", "abc");
    prepare(&files);
    digest_file_content(&files.ctx, file);
    plan.set("", 0, 0);
    EXPECT_EQ(files.log.messages(),
              message.empty() ? lines{}
                              : lines{"ERRO " + message[0] + files.tree.path("f") + message[1]});
    EXPECT_EQ(files.ctx.nr_error, errors);
    EXPECT_EQ(files.ctx.nr_hashed, read);
    ASSERT_EQ(file->hash != nullptr, has_digest);
    EXPECT_TRUE(!has_digest || memcmp(file->hash->digest, "\xba\x78\x16\xbf\x8f\x01", 6) == 0);
  }
}

TEST(DigestJob, TakesASavedDigestOnlyForTheSameTimeAndOnlyOnce) {
  admitted_files files;
  initialize_hash_table(&files.ctx);
  for (const uint32_t ino : {1U, 2U}) {
    auto *entry = static_cast<hash_entry *>(calloc(1, sizeof(hash_entry)));
    entry->record = static_cast<usable_hash *>(calloc(1, sizeof(usable_hash)));
    *entry->record = {ino, 0, 10, 20, {9}};
    list_append(&files.ctx.hash_entries, &entry->link);
    add_to_hash_table(&files.ctx, entry);
  }
  const struct {
    uint64_t key;
    long nanoseconds;
    uint64_t read;  // files opened and read so far
  } cases[] = {{1, 20, 0}, {1, 20, 1}, {2, 21, 2}, {3, 20, 3}};
  for (const auto &[key, nanoseconds, read] : cases) {
    dentry *file = files.add("f", "abc");
    files.tree.set_mtime("f", 10, nanoseconds);
    file->mtime = {10, nanoseconds};
    file->key = key;
    digest_file_content(&files.ctx, file);
    EXPECT_TRUE(files.ctx.nr_hashed == read && files.ctx.nr_file_opened == read) << key;
    EXPECT_EQ(file->hash->digest[0], read == 0 ? 9 : 0xba);
  }
  EXPECT_NE(lookup_hash_table(&files.ctx, 2)->record, nullptr) << "a stale record stays";
}

// Files that exist in the forest only, with digests made up.
struct forest : run_context {
  captured_log log;
  dentry *root = list(nullptr, "/r", false);
  uint32_t count = 0;

  explicit forest(bool with_indexes = true) {
    if (with_indexes) {
      make_member_indexes(&ctx);
    }
  }
  ~forest() { free_member_indexes(&ctx); }

  // Inserts the next file: "a", "b" and so on, with inode numbers from 1 on. Null when refused.
  dentry *insert(uint64_t size, int status = 0, uint64_t pattern = 0, uint32_t ino = 0) {
    count++;
    dentry *file = list(root, std::string(1, static_cast<char>('a' + count - 1)), true);
    file->key = ino != 0 ? ino : count;
    file->size = size;
    file->mtime = {count, 0};
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
  std::vector<dentry *> group(const std::string &contents, const std::vector<int> &statuses) {
    std::vector<dentry *> files;
    for (size_t i = 0; i < contents.size(); i++) {
      files.push_back(insert(5000, statuses[i % statuses.size()]));
    }
    queued();
    for (size_t i = 0; i < contents.size(); i++) {
      files[i]->hash = nullptr;
      if (contents[i] != '-') {
        files[i]->hash = static_cast<usable_hash *>(calloc(1, sizeof(usable_hash)));
        files[i]->hash->digest[DIGEST_SIZE - 1] = static_cast<uint8_t>(contents[i]);
      }
    }
    split_group(&ctx, files[0]);
    return files;
  }

  // The groups found, such as "ac bd".
  std::string groups() {
    std::string text;
    for (dentry &head : list_range<&dentry::group>(&ctx.groups)) {
      text += (text.empty() ? "" : " ") + std::string(name_of(&head));
      for (dentry &other : list_range<&dentry::same>(&head.same)) {
        text += name_of(&other);
      }
    }
    return text;
  }
};

TEST(Forest, WantsADigestOfEachInodeThatSharesItsKeyAndOfNoOther) {
  for (const bool with_indexes : {true, false}) {
    forest f(with_indexes);
    dentry *a = f.insert(10);
    f.insert(10 + FOREST_TREES);  // the same tree
    f.insert(9 + FOREST_TREES);
    EXPECT_EQ(f.queued(), "");
    f.insert(10);
    EXPECT_EQ(f.queued(), "ad");
    EXPECT_EQ(f.insert(10, 0, 0, 1), nullptr) << "a hard link to the node";
    EXPECT_NE(f.insert(11, 0, 0, 1), nullptr) << "an inode counts within one key only";
    f.insert(10);
    EXPECT_EQ(f.queued(), "g") << "the node's digest is still wanted";
    a->hash = nullptr;  // as if the node's digest job had failed
    f.insert(10);
    EXPECT_EQ(f.queued(), "ah");
    f.ctx.in_time = 0;
    EXPECT_TRUE(is_digest_wanted(f.insert(10)));
    EXPECT_EQ(f.queued(), "");
    for (uint32_t ino = 100; ino < 200; ino++) {
      EXPECT_NE(f.insert(10, 0, 0, ino), nullptr);
    }
    for (uint32_t ino = 100; ino < 200; ino++) {
      EXPECT_EQ(f.insert(10, 0, 0, ino), nullptr) << "a hard link to a member";
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
  EXPECT_EQ(f.log.messages(), lines{"ERRO fail to open /r/g returned No such file or directory"});
}

TEST(Grouping, FindsIdenticalFilesInOrderAndKeepsEveryFilesOwnStatusAndBlocks) {
  const std::pair<std::string, std::string> cases[] = {{"xyx", "ac"},
                                                       {"-xx", "bc"},
                                                       {"xx-", "ab"},
                                                       {"xy", ""},
                                                       {"-x", ""},
                                                       {"--", ""},
                                                       {"xyzz", "cd"},
                                                       {"xyxz", "ac"},
                                                       {"x-x-", "ac"},
                                                       {"xyxy", "ac bd"},
                                                       {"xyyx", "ad bc"},
                                                       {"xxxx", "abcd"},
                                                       {"-yxyx", "bd ce"},
                                                       {"xyxyzzx", "acg bd ef"},
                                                       {"abcdefghijklmnopqrstuvwxya", "az"},
                                                       {"abcdefghijklmnopqrstuvwxyy", "yz"}};
  const std::vector<int> statuses = {-95, 1, -2, 3, 0, 2, -22};
  for (const auto &[contents, expected] : cases) {
    forest f;
    const std::vector<dentry *> files = f.group(contents, statuses);
    EXPECT_EQ(f.groups(), expected) << contents;
    for (size_t i = 0; i < files.size(); i++) {
      EXPECT_EQ(attributes_of(files[i]).status, statuses[i % statuses.size()]) << contents << i;
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
    self->calls += (self->calls.empty() ? "" : ",") + call;
    self->records.push_back(*record);
    const auto answer = self->answers.find(call);
    return answer == self->answers.end() ? 0 : answer->second;
  }
};

TEST(Report, PassesThroughItsStagesAndObeysTheHostsAnswers) {
  const std::string groups = "begin,group a,file c,file e,group end,group b,file d,group end";
  const std::string end = ",compressed,file a,file d,file f,end";
  const std::pair<std::map<std::string, int>, std::string> cases[] = {
      {{}, groups + end},
      {{{"group a", 1}, {"file c", 1}, {"group end", 2}, {"end", 3}}, groups + end},
      {{{"begin", 1}}, "begin,end"},
      {{{"group a", 2}}, "begin,group a,group end,group b,file d,group end" + end},
      {{{"group a", 3}}, "begin,group a,end"},
      {{{"file c", 2}}, "begin,group a,file c,group end,group b,file d,group end" + end},
      {{{"file c", 3}}, "begin,group a,file c,end"},
      {{{"group end", 3}}, "begin,group a,file c,file e,group end,end"},
      {{{"compressed", 1}}, groups + ",compressed,end"},
      {{{"file f", 3}, {"file d", 1}}, groups + end},
      {{{"file a", 3}}, groups + end},
      {{{"file a", 2}}, groups + ",compressed,file a,end"}};
  for (const auto &[answers, calls] : cases) {
    forest f;
    f.ctx.nr_dir_opened = 11;
    f.ctx.nr_scan_file = 14;
    f.ctx.nr_error = 16;
    const std::vector<dentry *> files =
        f.group("xyxyx", {SIS_STATUS_COMPRESSED, 1, -95, SIS_STATUS_COMPRESSED, 0});
    f.insert(1, SIS_STATUS_COMPRESSED);
    report_host host = {answers, "", {}};
    report_findings(&f.ctx);
    EXPECT_TRUE(f.log.lines().empty()) << "no callback, no report";
    f.ops.report = report_host::receive;
    f.ctx.caller_data = reinterpret_cast<uint64_t>(&host);
    report_findings(&f.ctx);
    EXPECT_EQ(host.calls, calls);
    EXPECT_EQ(f.log.messages(), lines{"INFO nr_scan_file 14\n"});
    const sis_report &last = host.records.back();
    EXPECT_TRUE(reinterpret_cast<uintptr_t>(last.dentry) == 11 && last.status == 14 &&
                last.blocks == 16);
    if (answers.empty()) {
      const sis_report &c = host.records[2];
      EXPECT_TRUE(c.dentry == files[2] && c.ino == 3 && c.status == -95 && c.size == 5000);
      EXPECT_TRUE(c.blocks == 103 && c.mtime == &files[2]->mtime);
      EXPECT_EQ(c.digest, files[2]->hash->digest);
      EXPECT_EQ(host.records[11].digest, nullptr) << "f has no digest";
    }
  }
}

TEST(TimeBudget, LogsAFailureOfArmingOnceAndLeavesNoTimerAndTheFormerAction) {
  const struct {
    const char *function;
    int nth;
    const char *message;
    bool stays_blocked;
  } cases[] = {{"sigaction", 1, "ERRO fail to set signal action for 14", false},
               {"sigprocmask", 1, "ERRO fail to block signal 14", false},
               {"timer_create", 1, "ERRO fail to create timer of 7s", true},
               {"timer_settime", 1, "ERRO fail to initialize timer as counting down 7s", true},
               {"sigprocmask", 2, "ERRO fail to unblock signal 14", true}};
  const alarm_owner owner;
  for (const auto &[function, nth, message, stays_blocked] : cases) {
    const captured_log log;
    sis_context ctx = {};
    plan.set(function, nth, 1);
    arm_time_budget(&ctx, 7);
    plan.set("", 0, 0);
    EXPECT_EQ(log.messages(), lines{message});
    EXPECT_EQ(alarm_owner::mask_alarm(SIG_UNBLOCK), stays_blocked) << message;
    EXPECT_TRUE(owner.has_its_action() && !ctx.alarm.armed && ctx.timer == nullptr) << message;
    release_time_budget(&ctx);
    arm_time_budget(&ctx, 7);  // the users are counted as before
    EXPECT_FALSE(owner.has_its_action());
    release_time_budget(&ctx);
    EXPECT_TRUE(owner.has_its_action());
  }
}

TEST(TimeBudget, ASignalStopsOnlyTheLiveRunItNamesAndNeverReachesTheFormerAction) {
  const alarm_owner owner;
  sis_context first = {};
  sis_context second = {};
  first.in_time = second.in_time = 1;
  arm_time_budget(&first, 300);
  arm_time_budget(&second, 300);
  alarm_owner::send_alarm(nullptr);
  EXPECT_TRUE(first.in_time == 1 && second.in_time == 1);
  alarm_owner::send_alarm(&first);
  EXPECT_TRUE(first.in_time == 0 && second.in_time == 1);

  // A late signal of another timer, whose run had its context at the same address.
  alarm_owner::mask_alarm(SIG_BLOCK);
  sigevent event = {};
  event.sigev_signo = SIGALRM;
  event.sigev_value.sival_ptr = &second;
  timer_t other_timer = {};
  const itimerspec soon = {{}, {0, 1}};
  ASSERT_EQ(timer_create(CLOCK_REALTIME, &event, &other_timer), 0);
  ASSERT_EQ(timer_settime(other_timer, 0, &soon, nullptr), 0);
  sigset_t waiting = {};
  while (sigismember(&waiting, SIGALRM) != 1) {
    sigpending(&waiting);
  }
  alarm_owner::mask_alarm(SIG_UNBLOCK);
  EXPECT_EQ(second.in_time, 1);
  timer_delete(other_timer);

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
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++) {
    threads.emplace_back([&] {
      for (int round = 0; round < 1000; round++) {
        sis_context ctx = {};
        arm_time_budget(&ctx, 300);
        wrong_actions += owner.has_its_action() ? 1 : 0;
        release_time_budget(&ctx);
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong_actions, 0);
  EXPECT_TRUE(owner.has_its_action());
}

TEST(Run, ThatIsStoppedBeforeItsWalkReportsNothingAndStillLogsEveryPhase) {
  const temporary_tree tree("t/a=same t/b=same");
  const captured_log log;
  report_host host;
  const sis_ops ops = {nullptr, nullptr, nullptr, nullptr, report_host::receive};
  const std::string root = tree.path("t");
  const char *roots[] = {root.c_str()};
  int *stop_handle = nullptr;
  plan.set("pthread_create", 0, 0, [&] { signal_no_time(stop_handle); });
  EXPECT_EQ(single_instance_storage(roots, 1, nullptr, 0, tree.root().c_str(), 0, 0, 32, 0, &ops,
                                    reinterpret_cast<uint64_t>(&host), &stop_handle),
            0);
  plan.set("", 0, 0);
  EXPECT_EQ(host.calls, "begin,compressed,end");
  EXPECT_EQ(host.records.back().dentry, nullptr) << "no directory was opened";
  std::string phases;
  for (const std::string &line : log.messages()) {
    if (line.find("elapsed") != std::string::npos) {
      phases += line.substr(5, line.find(':') - 5) + ",";
    }
  }
  EXPECT_EQ(phases,
            "load_usable_hash(-1 entries),scan_directory,fetch_all_sis_file,"
            "save_usable_hash(0 entries),full scan process,");
}

}  // namespace
