// The small modules of the command-line tool: names and sizes as text, paths, output files, the
// report as it comes in, signals.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "display_name.h"
#include "estimate.h"
#include "findings.h"
#include "glob.h"
#include "mounts.h"
#include "omissions.h"
#include "output_file.h"
#include "scan_paths.h"
#include "size_text.h"
#include "stop_signal.h"
#include "support/temporary_tree.h"

namespace {

using namespace tool;
using namespace velmarin_test;
namespace fs = std::filesystem;

// The bytes of a code in the shortest form, even if it is not a character.
std::string bytes_of(uint32_t code) {
  const unsigned length = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
  std::string bytes;
  for (unsigned i = 1; i < length; i++, code >>= 6) {
    bytes.insert(0, 1, static_cast<char>(0x80 | (code & 0x3f)));
  }
  constexpr unsigned MARKS[] = {0, 0xc0, 0xe0, 0xf0};
  return static_cast<char>(MARKS[length - 1] | code) + bytes;
}

std::vector<std::string> words_of(const std::string &text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// Every byte as \xNN.
std::string hex_escaped(const std::string &bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += "\\x" + hex_text(std::string_view(&byte, 1));
  }
  return text;
}

// How the bytes are shown within a name.
std::string treatment_of(const std::string &bytes) {
  const std::string name = "a" + bytes + "b";
  std::string replaced = "a";
  for (size_t i = 0; i < bytes.size(); i++) {
    replaced += "\xef\xbf\xbd";
  }
  const bool is_kept = utf8_name(name) == name && is_utf8(name);
  const bool is_replaced = utf8_name(name) == replaced + "b" && !is_utf8(name);
  const std::string kind = is_kept ? "" : is_replaced ? "in" : "un";
  const std::string shown = escaped_name(name);
  return kind + (shown == name                             ? "valid"
                 : shown == "a" + hex_escaped(bytes) + "b" ? "valid:hex"
                                                           : "valid:" + shown);
}

TEST(DisplayName, KeepsWhatIsPrintableEscapesWhatIsNotAndTreatsInvalidBytesOneByOne) {
  std::ostringstream changes;  // each code from which on the treatment differs
  std::string before;
  for (uint32_t code = 1; code <= 0x110000; code += code == 0x10001 ? 0xffffe : 1) {
    const std::string now = treatment_of(bytes_of(code));
    now != before ? void(changes << std::hex << code << " " << now << ", ") : void();
    before = now;
  }
  EXPECT_EQ(
      changes.str(),
      "1 valid:hex, 9 valid:a\\tb, a valid:a\\nb, b valid:hex, d valid:a\\rb, e valid:hex, "
      "20 valid, 5c valid:a\\\\b, 5d valid, 7f valid:hex, a0 valid, 61c valid:hex, 61d valid, "
      "200e valid:hex, 2010 valid, 2028 valid:hex, 202f valid, 2066 valid:hex, 206a valid, "
      "d800 invalid:hex, e000 valid, feff valid:hex, ff00 valid, 110000 invalid:hex, ");
  for (const std::string &bytes :
       words_of("\xc0\x80 \xc1\xbf \xe0\x9f\xbf \xf0\x8f\xbf\xbf \xf8\x88\x80\x80\x80 \x80 \xc3 "
                "\xe2\x82 \xf0\x9f\x98 \xff\xfe")) {
    EXPECT_EQ(treatment_of(bytes), "invalid:hex") << hex_text(bytes);
    EXPECT_EQ(escaped_name("a" + bytes), "a" + hex_escaped(bytes)) << "at the end";
  }
}

TEST(Glob, MatchesNamesPathsAndDirectories) {
  // The paths that each matches of all paths; those that end in '/' are directories.
  const std::string paths =
      "a.txt build/ build/out.o build/deep/ build/deep/out.o src/build [odd] ünt back\\slash "
      "src/x/main.c a]b a-b aXb/aYb \xff!";
  std::istringstream rows(
      "* " + paths + ";** " + paths +
      ";a.txt a.txt;?.[t-z][!y-z]t a.txt;/* a.txt build/ [odd] ünt back\\slash a]b a-b \xff!;"
      "*/ build/ build/deep/;build build/ src/build;/build build/;src/build/;"
      "*/out.o build/out.o;**/out.o build/out.o build/deep/out.o;"
      "build/** build/out.o build/deep/ build/deep/out.o;"
      "build/**/**/out.o build/out.o build/deep/out.o;build**.o;"
      "/build**.o build/out.o build/deep/out.o;build/**p/*t.o build/deep/out.o;"
      "s*c/*/m*n*c src/x/main.c;s*n.c;s**/c;[[]odd] [odd];[odd];[odd;\\[odd] [odd];[od;"
      "back[\\\\]slash back\\slash;back\\\\* back\\slash;*\\;?nt ünt;*??nt;[à-ý]nt ünt;"
      "[^a-z]nt ünt;a[]-]b a]b a-b;a[+-]b a-b;a[^/]b a]b a-b;aXb[!a]aYb;aXb?aYb;aXb[/]aYb;"
      "/a?b/* aXb/aYb;?! \xff!;/;");
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
  const std::string denied = std::strerror(EACCES);
  Omissions omissions;
  for (const std::string &line : std::vector<std::string>{
           "cannot open /a returned b returned " + denied,
           "cannot open /a returned b returned " + denied,
           "failed to open //dir as directory returned " + std::string(std::strerror(ENOMEM)),
           "failed to read [7]/r returned " + std::string(std::strerror(EIO)),
           "failed to get stat of [12]/s returned no such error",
           "failed to get stat of /s2 returned ",
           "failed to allocate hash for /h returned " + std::string(std::strerror(ENOMEM)),
           "call prep for /p returned " + denied, "fail to open /pattern returned " + denied,
           "Cannot open /digests returned " + denied,
           "cannot open /stopped returned Operation canceled", "cannot open /cut"}) {
    omissions.read_log_message(line);
  }
  std::vector<std::string> listed;
  for (const Omission &omission : omissions.list()) {
    listed.push_back(describe(omission) + "; " + errno_name(omission.error));
  }
  EXPECT_EQ(listed,
            (std::vector<std::string>{"/a returned b: not opened, Permission denied; EACCES",
                                      "/dir: directory not read, Cannot allocate memory; ENOMEM",
                                      "/h: not read, Cannot allocate memory; ENOMEM",
                                      "/r: not read, Input/output error; EIO", "/s: not read; ",
                                      "/s2: not read; "}));
  for (size_t i = 0; i < Omissions::MAX_LISTED; ++i) {
    omissions.add("/" + std::to_string(i), Cause::changed, 0);
  }
  EXPECT_EQ(omissions.list().size(), Omissions::MAX_LISTED);
  EXPECT_EQ(omissions.counts(), (std::array<uint64_t, CAUSES>{1, 1, 0, 4, 0, 10000}));
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
      "16777215T=18446742974197923840 64KiB=65536 1.25mib=1310720 0.0014648M=1535 "
      "16777215.999T=18446744072610039988 18446744073709551615=18446744073709551615 "
      "18446744073709551616=- 16777216T=- 1P=- 1KB=- K=- -1=- 1.5=- .5K=- 1.K=- 1KiBs=- 1.5KB=- "
      "0x1=- 1.0000000001K=- 99999999999999999999999999999999999999=- =-",
      parse_size);
  expect_values(
      "0=0 90=90 5m=300 1h30m=5400 1d2h3m4s=93784 365d=31536000 366d=- 31536001=- 364d25h=- "
      "5m1h=- 1h1h=- 1h30=- m=- 1.5h=- 1x=- -1=- 4294967296s=- =-",
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

struct FileRun {
  size_t files;
  uint64_t mebibytes;  // of each file
  double seconds;      // for each file
};

// "SECOND:LEFT" when an estimate is first shown, and once in each later fifth of the time.
std::string estimates_of(const std::vector<FileRun> &runs) {
  std::vector<std::pair<double, Estimate::Work>> done = {{0, {}}};  // by the end of each file
  for (const FileRun &run : runs) {
    for (size_t i = 0; i < run.files; i++) {
      const auto [time, work] = done.back();
      done.push_back({time + run.seconds, {work.bytes + (run.mebibytes << 20), work.files + 1}});
    }
  }
  const auto [end, all] = done.back();
  Estimate estimate(all);
  std::string shown;
  double asked = 0;
  for (double now = 0; now < end; now += 0.2) {
    const auto next = std::ranges::find_if(done, [&](auto &file) { return file.first > now; });
    const Estimate::Work work = std::prev(next)->second;
    estimate.note(std::chrono::milliseconds(std::lround(now * 1000)), work,
                  next->second.bytes - work.bytes);
    if (estimate.left() && now >= asked) {
      const auto left = std::chrono::round<std::chrono::seconds>(*estimate.left()).count();
      shown += std::to_string(std::lround(now)) + ":" + std::to_string(left) + " ";
      asked = (std::floor(now * 5 / end) + 1) * end / 5;
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
      {"only one", {{1, 3000, 30}}, ""},
      {"a slower disk", {{200, 10, 0.05}, {400, 10, 0.2}}, "3:27 18:31 36:39 54:32 72:17 "},
      {"a faster disk", {{10, 10, 0.5}, {590, 10, 0.05}}, "5:294 7:196 14:45 21:16 28:7 "},
      {"slower from a large file on",
       {{600, 10, 0.05}, {1, 2000, 100}, {200, 10, 0.5}},
       "3:46 46:14 92:61 138:95 184:47 "}};
  for (const auto &[name, runs, expected] : works) {
    EXPECT_EQ(estimates_of(runs), expected) << name;
  }
}

TEST(OutputFile, KeepsItsContentUntilAllOfItIsReplaced) {
  const temporary_tree tree("page=a_longer_old_page");
  OutputFile page;
  ASSERT_TRUE(page.open(tree.path("page")));
  EXPECT_EQ(tree.read("page"), "a_longer_old_page");
  EXPECT_TRUE(page.write("new"));
  EXPECT_EQ(tree.read("page"), "new");
  OutputFile full, missing, pipe;
  EXPECT_TRUE(full.open("/dev/full") && !full.write("x"));
  EXPECT_FALSE(missing.open(tree.path("missing/page")));
  ASSERT_EQ(mkfifo(tree.path("pipe").c_str(), 0600), 0);
  const int reader = open(tree.path("pipe").c_str(), O_RDONLY | O_NONBLOCK);
  char text[8] = "";
  EXPECT_TRUE(pipe.open(tree.path("pipe")) && pipe.write("new"));
  EXPECT_EQ(read(reader, text, sizeof(text)), 3);
  close(reader);
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
  const std::tuple<const char *, uint64_t, const char *> lines[] = {
      {"36 35 98:0 /a /mnt rw,noatime master:1 shared:2 - btrfs /dev/sdb1 rw", 36,
       "btrfs /dev/sdb1 /mnt"},
      {"7 1 0:5 / / rw - tmpfs none rw", 7, "tmpfs none /"},
      {R"(8 1 0:5 / /a\040b\134\011c\x\04 rw - fuse.x \043 rw)", 8, "fuse.x # /a b\\\tc\\x\\04"},
      {"9 1 0:5 / / rw master:1 tmpfs none rw", 0, ""},
      {"9 1 0:5 / / rw -", 0, ""},
      {"x 1 0:5 / / rw - tmpfs none rw", 0, ""},
      {"", 0, ""}};
  for (const auto &[line, number, text] : lines) {
    Mount mount;
    EXPECT_EQ(read_mount_line(line, mount), number) << line;
    if (number != 0) {
      EXPECT_EQ(mount.type + " " + mount.source + " " + mount.point, text);
    }
  }
}

TEST(Findings, KeepPathsStatusesAndCompressedFilesAsReported) {
  using namespace velmarin;
  Collector collector;
  const timespec time = {7, 8};
  const auto report = [&](sis_report_stage stage, const char *path, int64_t status) {
    sis_report record = {nullptr, 0, path, status, 0, 0, &time, nullptr, stage};
    EXPECT_EQ(Collector::receive(reinterpret_cast<uint64_t>(&collector), &record), 0);
  };
  report(REPORT_GROUP, "//root", 1);
  report(REPORT_FILE, "/x//y", -5);
  report(REPORT_GROUP_END, "/x//y", 2);
  report(REPORT_GROUP, "/z", 3);
  report(REPORT_COMPRESSED, "/z", 3);
  report(REPORT_FILE, "relative", 4);
  report(REPORT_END, reinterpret_cast<const char *>(70), 80);
  std::string found;
  for (const FoundGroup &group : collector.findings.groups) {
    for (const FoundFile &file : group.files) {
      found += file.path + " " + std::to_string(file.status) + ", ";
    }
  }
  EXPECT_EQ(found, "/root 1, /x//y -5, /z 3, ");
  EXPECT_EQ(collector.findings.compressed.at(0).path, "relative");
  EXPECT_EQ(collector.findings.counters.nr_scan_file, 80U);
}

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

TEST(StopSignal, RequestsAStopOnceAndEndsTheProcessTheSecondTime) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    EXPECT_EXIT(ask_twice(number, false), testing::KilledBySignal(number),
                "^velmarin: stopping .*\n$");
    EXPECT_EXIT(ask_twice(number, true), testing::KilledBySignal(number),
                "^velmarin: stopping .*\n$");
  }
  const auto state_of = [](int number) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return std::pair(action.sa_handler, sigismember(&mask, number));
  };
  const std::pair ignored(SIG_IGN, 0), usual(SIG_DFL, 0);
  signal(SIGINT, SIG_IGN);  // as a shell does for what runs in the background
  {
    const StopSignals signals;
    EXPECT_TRUE(state_of(SIGINT) == ignored && state_of(SIGTERM) != usual);
    const StopSignalsBlocked blocked;
    EXPECT_TRUE(state_of(SIGINT).second == 1 && state_of(SIGTERM).second == 1);
  }
  EXPECT_TRUE(state_of(SIGINT) == ignored && state_of(SIGTERM) == usual);
  signal(SIGINT, SIG_DFL);
}

}  // namespace
