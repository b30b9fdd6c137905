// The small modules of the command-line tool: names and sizes as text, globs, what was
// left out, the time left, paths, signals.

#include <android/log.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "copy_permissions.h"
#include "digest_file.h"
#include "display_name.h"
#include "estimate.h"
#include "file_digest.h"
#include "glob.h"
#include "guarded_open.h"
#include "merge.h"
#include "mounts.h"
#include "omission_watch.h"
#include "omissions.h"
#include "progress_text.h"
#include "scan_paths.h"
#include "size_text.h"
#include "space_account.h"
#include "stop_signal.h"
#include "support/temporary_tree.h"
#include "time_limit.h"

namespace {

using namespace tool;
using namespace velmarin_test;
namespace fs = std::filesystem;

std::vector<std::string> words_of(const std::string &text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

TEST(DisplayName, KeepsWhatIsPrintableEscapesWhatIsNotAndTreatsInvalidBytesOneByOne) {
  const std::string valid =  // what lies on both sides of each limit
      "\x01\x08\t\n\x0b\x0c\r\x0e\x1f [\\]~\x7f\u0080\u009f\u00a0\u061b\u061c\u061d\u200d\u200e"
      "\u200f\u2010\u2027\u2028\u202e\u202f\u2065\u2066\u2069\u206a\ufefe\ufeff\uff00\U0010ffff";
  const std::string escaped =
      "\\x01\\x08\\t\\n\\x0b\\x0c\\r\\x0e\\x1f [\\\\]~\\x7f\\xc2\\x80\\xc2\\x9f\u00a0\u061b"
      "\\xd8\\x9c\u061d\u200d\\xe2\\x80\\x8e\\xe2\\x80\\x8f\u2010\u2027\\xe2\\x80\\xa8"
      "\\xe2\\x80\\xae\u202f\u2065\\xe2\\x81\\xa6\\xe2\\x81\\xa9\u206a\ufefe\\xef\\xbb\\xbf"
      "\uff00\U0010ffff";
  EXPECT_EQ(escaped_name(valid), escaped);
  EXPECT_TRUE(is_utf8(valid) && utf8_name(valid) == valid);
  // A lone byte, parts of characters, too long forms, a surrogate, and a code beyond the last.
  for (const std::string &bytes : words_of("\xff \x80 \xe2\x82 \xf0\x9f\x98 \xc0\x80 \xe0\x9f\xbf "
                                           "\xf0\x8f\xbf\xbf \xed\xa0\x80 \xf4\x90\x80\x80")) {
    std::string hex, replaced;
    for (const char byte : bytes) {
      hex += "\\x" + hex_text({&byte, 1});
      replaced += "\ufffd";
    }
    EXPECT_EQ(escaped_name("a" + bytes + "b" + bytes), "a" + hex + "b" + hex);
    EXPECT_EQ(utf8_name("a" + bytes + "b"), "a" + replaced + "b");
    EXPECT_FALSE(is_utf8("a" + bytes)) << hex;
  }
}

TEST(Glob, MatchesNamesPathsAndDirectories) {
  // The paths that each matches of all paths; those that end in '/' are directories.
  const std::string paths =
      "a.txt build/ build/out.o build/deep/ build/deep/out.o src/build [odd] ünt back\\slash "
      "src/x/main.c a]b a-b aXb/aYb \xff!";
  std::istringstream rows(
      "* " + paths + ";** " + paths +
      ";a.txt a.txt;**/build build/ src/build;?.[t-z][!y-z]t a.txt;/* a.txt build/ [odd] ünt "
      "back\\slash a]b a-b \xff!;"
      "*/ build/ build/deep/;build build/ src/build;/build build/;src/build/;"
      "*/out.o build/out.o;**/out.o build/out.o build/deep/out.o;"
      "build/** build/out.o build/deep/ build/deep/out.o;"
      "build/**/**/out.o build/out.o build/deep/out.o;build**.o;"
      "/build**.o build/out.o build/deep/out.o;build/**p/*t.o build/deep/out.o;"
      "s*c/*/m*n*c src/x/main.c;s*n.c;s**/c;[[]odd] [odd];[odd];[odd;\\[odd] [odd];[o-;"
      "back[\\\\]slash back\\slash;back\\\\* back\\slash;*\\;?nt ünt;*??nt;[à-ý]nt ünt;"
      "[^a-z]nt ünt;a[]-]b a]b a-b;a[+-]b a-b;a[^/]b a]b a-b;aXb[!a]aYb;aXb?aYb;aXb[/]aYb;"
      "/a?b/* aXb/aYb;?[!a] \xff!;/;");
  for (std::string row; std::getline(rows, row, ';');) {
    const std::string text = row.substr(0, row.find(' '));
    const Glob glob(text);
    std::string matched = text;
    for (const std::string &path : words_of(paths)) {
      const bool is_directory = path.ends_with('/');
      if (glob.matches(path.substr(0, path.size() - is_directory), is_directory)) {
        matched += " " + path;
      }
    }
    EXPECT_EQ(matched, row);
  }
}

TEST(Omissions, TellsThePathCauseAndErrorFromALineKeepsSomeAndCountsAll) {
  Omissions omissions;
  const EntryFilter none;
  OmissionWatch watch(omissions, none, {}, 1);
  for (const char *line :
       {"cannot open /a returned b returned Permission denied",
        "cannot open /a returned b returned Permission denied",
        "failed to open //dir as directory returned Cannot allocate memory",
        "failed to read [7]/r returned Input/output error",
        "failed to get stat of [12]/s returned no such error",
        "failed to allocate hash for /h returned Cannot allocate memory",
        "call prep for /p returned Permission denied",
        "cannot open /stopped returned Operation canceled", "cannot open /cut"}) {
    OmissionWatch::note_log_message(line);
  }
  std::string listed;
  for (const Omission &omission : omissions.list()) {
    listed += describe(omission) + "; " + errno_name(omission.error) + "\n";
  }
  EXPECT_EQ(listed,
            "/a returned b: not opened, Permission denied; EACCES\n"
            "/dir: directory not read, Cannot allocate memory; ENOMEM\n"
            "/h: not read, Cannot allocate memory; ENOMEM\n"
            "/r: not read, Input/output error; EIO\n/s: not read; \n");
  for (size_t i = 0; i < Omissions::MAX_LISTED; ++i) {
    omissions.add("/" + std::to_string(i), Cause::changed, 0);
  }
  for (int run = 0; run < 2; ++run) {  // the second sees the same entries again
    OmissionWatch::note_failed_open("/missing/x", O_NONBLOCK | O_NOFOLLOW, EIO);
    watch.see_again();
  }
  EXPECT_EQ(omissions.list().size(), Omissions::MAX_LISTED);
  EXPECT_EQ(omissions.counts(), (std::array<uint64_t, CAUSES>{1, 2, 0, 3, 0, 10000}));
}

TEST(Omissions, IncludeADirectoryThatCannotBeReadToItsEnd) {
  const temporary_tree tree("file=x");
  Omissions omissions;
  const EntryFilter none;
  const OmissionWatch watch(omissions, none, {}, 1);
  DIR *const stream = opendir(tree.path("").c_str());
  const int fd = open(tree.path("file").c_str(), O_RDONLY);
  for (errno = EAGAIN; readdir(stream) != nullptr;) {}
  EXPECT_EQ(errno, EAGAIN);
  dup2(fd, dirfd(stream));
  EXPECT_EQ(readdir(stream), nullptr);
  EXPECT_EQ(errno, ENOTDIR);
  closedir(stream);
  close(fd);
  ASSERT_EQ(omissions.list().size(), 1U);
  EXPECT_EQ(describe(omissions.list()[0]),
            tree.path("file") + ": directory not read, Not a directory");
}

TEST(Collector, NamesFilesBelowTheRootDirectoryWithOneSlash) {
  const timespec time = {};
  velmarin::sis_report record = {};
  record.path = "//a";
  record.mtime = &time;
  record.stage = velmarin::REPORT_GROUP;
  Collector collector;
  Collector::receive(reinterpret_cast<uintptr_t>(&collector), &record);
  EXPECT_EQ(collector.findings.groups[0].files[0].path, "/a");
}

// Each word is "TEXT=VALUE", with '-' for a text that is refused.
template <typename Parse>
void expect_values(const std::string &words, Parse parse) {
  for (const std::string &word : words_of(words)) {
    const size_t equals = word.find('=');
    const auto value = parse(word.substr(0, equals));
    EXPECT_EQ(value ? std::to_string(*value) : "-", word.substr(equals + 1)) << word;
  }
}

// The text of each number.
template <typename Number, typename Format>
std::string texts_of(std::initializer_list<Number> numbers, Format format) {
  std::string texts;
  for (const Number number : numbers) {
    texts += format(number) + ", ";
  }
  return texts;
}

TEST(SizeText, ReadsAndWritesSizesDurationsAndCounts) {
  expect_values(
      "0=0 1023=1023 1k=1024 1K=1024 3m=3145728 2G=2147483648 1t=1099511627776 1.5k=1536 "
      "16777215T=18446742974197923840 64KiB=65536 64kIB=65536 1.25mib=1310720 0.0014648M=1535 "
      "16777215.999T=18446744072610039988 18446744073709551615=18446744073709551615 "
      "18446744073709551616=- 16777216T=- 1P=- 1KB=- K=- -1=- 1.5=- .5K=- 1.K=- 1KiBs=- 1.5KB=- "
      "1.000000001K=1024 00000000000000000000000000001=1 000000000000000000000000000001=- "
      "0x1=- 1.0000000001K=- 99999999999999999999999999999999999999=- =-",
      parse_size);
  expect_values(
      "0=0 5m=300 1h30m=5400 1d2h3m4s=93784 365d=31536000 366d=- 31536001=- 364d25h=- "
      "31536000=31536000 5m1h=- 1h1h=- 1h30=- m=- 1.5h=- 1x=- -1=- 4294967296s=- =-",
      parse_duration);
  EXPECT_EQ(texts_of({0UL, 1023UL, 1024UL, 1075UL, 1076UL, 1048524UL, 1048525UL, 3UL << 19,
                      1UL << 30, 5UL << 40, 1UL << 50, UINT64_MAX},
                     format_size),
            "0 B, 1023 B, 1 KiB, 1 KiB, 1.1 KiB, 1023.9 KiB, 1 MiB, 1.5 MiB, 1 GiB, 5 TiB, 1 PiB, "
            "16 EiB, ");
  EXPECT_EQ(texts_of({0U, 1U, 2U}, [](auto count) { return format_count(count, "file"); }),
            "0 files, 1 file, 2 files, ");
  using ms = std::chrono::milliseconds;
  EXPECT_EQ(texts_of({ms(0), ms(99), ms(59'999), ms(60'000), ms(70'999), ms(3'599'999),
                      ms(3'600'000), ms(4'200'000), ms(36'540'000)},
                     format_duration),
            "0.0 s, 0.0 s, 59.9 s, 1 min 00 s, 1 min 10 s, 59 min 59 s, 1 h 00 min, 1 h 10 min, "
            "10 h 09 min, ");
  EXPECT_EQ(texts_of({ms(1), ms(5'000), ms(5'001), ms(55'000), ms(55'001), ms(60'001),
                      ms(3'540'000), ms(3'540'001), ms(3'600'001), ms(7'200'000)},
                     rough_duration),
            "5 s, 5 s, 10 s, 55 s, 1 min, 2 min, 59 min, 1 h 00 min, 1 h 10 min, 2 h 00 min, ");
}

using FileRun = std::tuple<size_t, uint64_t, double>;  // how many; MiB and seconds for each

// "SECOND:LEFT" when an estimate is first shown, and once in each later fifth of the time.
std::string estimates_of(const std::vector<FileRun> &runs) {
  Estimate::Work all = {}, done = {};
  double end = 0;
  for (const auto &[files, mebibytes, seconds] : runs) {
    all = {all.bytes + (files * mebibytes << 20), all.files + files};
    end += static_cast<double>(files) * seconds;
  }
  Estimate estimate(all);
  std::string shown;
  double now = 0, file_end = 0, asked = 0;
  for (const auto &[files, mebibytes, seconds] : runs) {
    for (size_t i = 0; i < files; i++) {
      for (file_end += seconds; now < std::min(file_end, end - 0.1); now += 0.2) {
        estimate.note(std::chrono::milliseconds(std::lround(now * 1000)), done, mebibytes << 20);
        if (estimate.left() && now >= asked) {
          const auto left = std::chrono::round<std::chrono::seconds>(*estimate.left()).count();
          shown += std::to_string(std::lround(now)) + ":" + std::to_string(left) + " ";
          asked = (std::floor(now * 5 / end) + 1) * end / 5;
        }
      }
      done = {done.bytes + (mebibytes << 20), done.files + 1};
    }
  }
  return shown;
}

TEST(Estimate, StartsOnceThereIsEnoughToGoOnAndNeverJumps) {
  const std::tuple<const char *, std::vector<FileRun>, const char *> works[] = {
      {"even", {{600, 10, 0.1}}, "3:59 12:48 24:36 36:24 48:12 "},
      {"small", {{20000, 0, 0.004}}, "3:77 16:64 32:48 48:32 64:16 "},
      {"small, then large", {{4000, 1, 0.015}, {4, 2000, 20}}, "3:138 28:112 56:84 84:56 112:28 "},
      {"large, then small", {{4, 2000, 20}, {4000, 1, 0.015}}, "20:121 28:113 56:84 84:56 112:28 "},
      {"a tenth", {{50, 100, 5}}, "25:226 50:199 100:150 150:100 200:50 "},
      {"enough, but only in the first second", {{10, 100, 0.05}, {1, 3000, 30}}, ""},
      {"the first second tells", {{5, 100, 0.2}, {2, 400, 6}}, "3:1 5:1 8:1 11:1 "},
      {"a slower disk", {{200, 10, 0.05}, {400, 10, 0.2}}, "3:27 18:31 36:39 54:32 72:17 "},
      {"a faster disk", {{10, 10, 0.5}, {590, 10, 0.05}}, "5:294 7:196 14:45 21:16 28:7 "},
      {"slower from a large file on",
       {{600, 10, 0.05}, {1, 2000, 100}, {200, 10, 0.5}},
       "3:46 46:14 92:61 138:95 184:47 "}};
  for (const auto &[name, runs, expected] : works) {
    EXPECT_EQ(estimates_of(runs), expected) << name;
  }
}

// Groups of five files of 1 MiB each: a source, two that can be merged onto it, one that cannot
// change and one that shares the source's data.
TEST(MergeText, TellsWhatIsDoneOfWhatIsToBeMergedAndHowFast) {
  FoundGroup group = {std::vector<FoundFile>(5), std::vector<Share>(1)};
  group.shares[0].files = {0, 1, 2, 3, 4};
  for (size_t i = 0; i < group.files.size(); i++) {
    group.files[i].state = {.allocated_bytes = 1 << 20, .copy = static_cast<uint32_t>(i % 4)};
  }
  group.files[3].state.obstacle = EROFS;
  FoundGroup without_source = group;
  without_source.files[0].state.source_obstacle = EROFS;
  FoundGroup without_gain = group;
  without_gain.shares[0].can_share = true;
  MergeProgress progress;
  Findings findings;
  findings.groups = {without_source, group, without_gain};
  plan_merge(findings.groups, progress);
  MergeText text(std::chrono::seconds(10), progress);
  EXPECT_EQ(text.describe(std::chrono::milliseconds(10'900)),
            "10.9 s  merging  0 of 2 files, 0 B of 2 MiB, 0 B freed");
  progress.files_done = 1;
  progress.bytes_done = 1 << 20;
  progress.freed_bytes = 1000;
  EXPECT_EQ(text.describe(std::chrono::seconds(14)),
            "14.0 s, about 5 s left  merging  1 of 2 files, 1 MiB of 2 MiB, 264.5 KiB/s, 1000 B "
            "freed");
}

TEST(CopyPermissions, GoOnlyToTheFileThatWasCreated) {
  const temporary_tree tree("source=x linked=x open=x");
  const auto result_for = [&](const char *source, const char *copy) {
    return copy_permissions(tree.path(source), tree.path(copy));
  };
  fs::create_hard_link(tree.path("linked"), tree.path("twin"));
  fs::permissions(tree.path("linked"), fs::perms(0600));
  fs::permissions(tree.path("open"), fs::perms(0644));
  EXPECT_EQ((std::vector{result_for("source", "linked"), result_for("source", "open"),
                         result_for("missing", "source"), result_for("source", "missing")}),
            (std::vector{ESTALE, ESTALE, ENOENT, ENOENT}));
}

TEST(DigestFile, HoldsAnyNumberOfDigestsIsLockedAndReportsWhatFails) {
  const temporary_tree tree;
  const std::string path = tree.path("file");
  const int fd = lock_digest_file(path, true);
  EXPECT_EQ(flock(open(path.c_str(), O_RDONLY), LOCK_SH | LOCK_NB), -1);
  EXPECT_EQ(append_digests(fd, SavedDigests(4096)), 0);
  EXPECT_EQ(read_locked_digests(fd).value_or(SavedDigests()).size(), 4096U);
  EXPECT_EQ(append_digests(fd, SavedDigests(4097)), 0);
  EXPECT_EQ(read_locked_digests(fd).value_or(SavedDigests()).size(), 8193U);
  EXPECT_EQ(replace_digests(fd, SavedDigests(1)), 0);
  EXPECT_EQ(read_locked_digests(fd).value_or(SavedDigests()).size(), 1U);
  EXPECT_EQ(replace_digests(open("/dev/full", O_RDWR), SavedDigests(1)), ENOSPC);
  EXPECT_NE(append_digests(open("/dev/null", O_RDWR), SavedDigests(1)), 0);  // cannot be synced
  EXPECT_FALSE(read_digests(tree.root()));
}

TEST(PrivateFiles, AreNeverWrittenThroughALink) {
  const temporary_tree tree("file=own");
  const PrivateFiles guard(tree.root());
  fs::create_symlink("file", tree.path("linked.hsh"));
  EXPECT_EQ(open(tree.path("linked.hsh").c_str(), O_RDWR | O_CREAT, 0600), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(lock_digest_file(tree.path("linked.hsh"), false), -1);
  EXPECT_EQ(tree.read("linked.hsh"), "own");
}

TEST(FileDigest, IsOfTheContentOfTheFileThatWasSeenOrTellsWhyThereIsNone) {
  const temporary_tree tree("file=abc");
  const auto result_for = [](const std::string &path, long nanoseconds) {
    struct stat status = {};
    stat(path.c_str(), &status);
    status.st_mtim.tv_nsec += nanoseconds;
    std::array<uint8_t, 32> digest = {};
    const int error = read_digest(path, status, digest);
    return std::array{error, int{digest.front()}, int{digest.back()}};
  };
  EXPECT_EQ((std::vector{result_for(tree.path("file"), 0), result_for(tree.path("file"), 1),
                         result_for(tree.path("none"), 0), result_for("/proc/self/mem", 0)}),
            (std::vector<std::array<int, 3>>{
                {0, 0xba, 0xad}, {ESTALE, 0, 0}, {ENOENT, 0, 0}, {EIO, 0, 0}}));
}

TEST(SpaceAccount, FreesWhatNoFileRefersToAnyMoreAndTellsWhatIsCertain) {
  SpaceAccount account([](uint64_t address) { return address >= 1000; });
  const struct {
    std::string_view step;  // '+' adds, '-' removes; what is true of the range
    uint64_t begin, end, bytes, certain, uncertain;
  } steps[] = {{"+", 0, 100, 100, 0, 0},           {"+", 20, 60, 40, 0, 0},
               {"-", 0, 100, 100, 60, 0},          {"+", 50, 70, 20, 50, 0},
               {"-", 20, 60, 40, 80, 0},           {"-", 50, 70, 20, 100, 0},
               {"+unknown", 200, 204, 10, 100, 0}, {"+unknown", 200, 204, 30, 100, 0},
               {"-", 200, 204, 0, 100, 0},         {"-", 200, 204, 0, 100, 30},
               {"+perhaps", 300, 301, 1, 100, 30}, {"-", 300, 301, 1, 100, 31},
               {"+", 300, 301, 1, 100, 30},        {"-", 300, 301, 1, 101, 30},
               {"+shared", 400, 402, 2, 101, 30},  {"-beyond", 400, 402, 2, 101, 30},
               {"-", 400, 402, 2, 103, 30},        {"+shared", 1000, 1004, 4, 103, 30},
               {"-", 1000, 1004, 4, 103, 34}};
  for (const auto &[step, begin, end, bytes, certain, uncertain] : steps) {
    ExtentMap map;
    map.held = {{begin, end, bytes, !step.ends_with("unknown"), step.ends_with("shared"),
                 step.ends_with("perhaps"), step.ends_with("beyond")}};
    if (step.starts_with('+')) {
      account.add(map);
    } else {
      account.remove(map);
    }
    EXPECT_EQ(std::pair(account.freed().certain, account.freed().uncertain),
              std::pair(certain, uncertain))
        << step << begin;
  }
}

TEST(LogLines, TellTheFirstErrorAndTheLastMessageWithoutPrefixAndNewline) {
  LogLines lines(false);
  for (const char *line : {"[INFO 1] a", "[ERRO 2] b\n", "[ERRO 3] c\n"}) {
    __android_log_buf_print(0, 0, nullptr, "%s", line);
  }
  EXPECT_EQ(std::to_string(lines.error_count()) + lines.first_error() + lines.last_message(),
            "2bc");
  lines.forget();
  EXPECT_EQ(lines.last_message(), "");
}

TEST(ScanText, TellsHowFastItReads) {
  EXPECT_TRUE(ScanText(LogLines(false)).describe(std::chrono::seconds(2)).ends_with(" B/s"));
}

TEST(TimeLimit, GivesHalfOfWhatIsLeftToTheSurveyAndAllOfItToTheScan) {
  const TimeLimit limit(100), none(0);
  const std::chrono::duration<double> half = limit.halfway() - TimeLimit::Clock::now();
  EXPECT_NEAR(half.count(), 50, 9);
  EXPECT_NEAR(limit.seconds_left(), 100, 9);
  EXPECT_EQ(none.seconds_left(), 0U);
}

TEST(ScanPaths, AreResolvedOnceAndTheStateDirectoryHasAPathOfAtMost4026Characters) {
  const temporary_tree tree("d/ s/");
  fs::create_directory_symlink("d", tree.path("link"));
  const std::string d = tree.path("d");
  std::vector<std::string> roots;
  EXPECT_TRUE(resolve_roots({d, d + "/.", tree.path("link"), tree.path("s")}, roots));
  EXPECT_EQ(roots, (std::vector<std::string>{d, tree.path("s")}));
  for (const size_t length : {4026U, 4027U}) {
    std::string state = tree.path("s");
    state.resize(length, '/');
    EXPECT_EQ(prepare_state_directory(state), length == 4026) << length;
  }
  setenv("HOME", "/home", 1);
  for (const auto &[variable, expected] :
       {std::pair("/state", "/state/velmarin"), {"state", "/home/.local/state/velmarin"}}) {
    setenv("XDG_STATE_HOME", variable, 1);
    EXPECT_EQ(state_directory(""), expected);
  }
}

TEST(Mounts, AreReadFromTheLinesOfTheKernel) {
  for (const auto &[line, expected] :
       {std::pair("36 35 98:0 /a /mnt rw,noatime master:1 shared:2 - btrfs /dev/sdb1 rw",
                  "36 btrfs /dev/sdb1 /mnt"),
        {R"(8 1 0:5 / /a\040b\134\011c\x\04 rw - fuse.x \073 rw)", "8 fuse.x ; /a b\\\tc\\x\\04"},
        {"9 1 0:5 / / rw master:1 tmpfs none rw", "0"},
        {"x 1 0:5 / / rw - tmpfs none rw", "0"}}) {
    Mount mount;
    const uint64_t number = read_mount_line(line, mount);
    const std::string read = " " + mount.type + " " + mount.source + " " + mount.point;
    EXPECT_EQ(std::to_string(number) + (number != 0 ? read : ""), expected);
  }
}

const char STOPPING[] = "^velmarin: stopping [^\n]*\n$";

// In a separate process: raises a signal when the scan has come this far, and again.
[[noreturn]] void ask_twice(int number, bool before_scan) {
  int in_time = 1;
  {
    const StopSignals signals;
    *const_cast<StopSignals &>(signals).handle_slot() = &in_time;
    before_scan ? raise(number) : 0;
    publish_stop_handle();
    before_scan ? 0 : raise(number);
    if (!stop_requested() || in_time != 0) {
      _exit(1);
    }
    withdraw_stop_handle();
    raise(number);
  }
  _exit(2);
}

// The same, as a shell runs it in the background. Blocked signals come later.
[[noreturn]] void ask_in_background() {
  signal(SIGINT, SIG_IGN);
  {
    const StopSignals signals;
    const StopSignalsBlocked blocked;
    raise(SIGINT);
    raise(SIGTERM);
    stop_requested() ? _exit(1) : void();
  }
  raise(SIGINT);
  raise(stop_requested() ? SIGHUP : SIGKILL);
  _exit(2);
}

TEST(StopSignal, RequestsAStopOnceAndEndsTheProcessTheSecondTime) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    for (const bool before_scan : {false, true}) {
      EXPECT_EXIT(ask_twice(number, before_scan), testing::KilledBySignal(number), STOPPING);
    }
  }
  EXPECT_EXIT(ask_in_background(), testing::KilledBySignal(SIGHUP), STOPPING);
}

}  // namespace
