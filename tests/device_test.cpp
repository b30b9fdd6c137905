// The shared library as a device's host finds it. Needs the public headers and nothing of a
// platform, so it is built for a device from the platform build file, too; there it also runs where
// the file system has no control codes.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <utility>

#include "support/temporary_tree.h"
#include "velmarin/files.h"
#include "velmarin/primitives.h"
#include "velmarin/scan.h"

namespace {

using namespace velmarin;
using velmarin_test::temporary_tree;

std::set<std::string> grouped;  // the names of the files reported
uint64_t read_files = 0;

int receive(uint64_t, sis_report *record) {
  if (record->stage == REPORT_GROUP || record->stage == REPORT_FILE) {
    grouped.insert(std::filesystem::path(record->path).filename());
  } else if (record->stage == REPORT_END) {
    read_files = record->size;
  }
  return 0;
}

TEST(Device, FindsIdenticalFilesAndMergesThemOrIsRefused) {
  setenv("TMPDIR", testing::TempDir().c_str(), 0);  // a device has no /tmp
  const temporary_tree tree("t/a=x*100000 t/d/b=x*100000 t/c=y*120000 state/");
  const std::string root = tree.path("t");
  const std::string a = tree.path("t/a");
  const std::string b = tree.path("t/d/b");
  const char *roots[] = {root.c_str()};
  const sis_ops ops = {nullptr, nullptr, nullptr, nullptr, receive};
  for (const uint64_t expected_reads : {2U, 0U}) {  // the second time the digests are there
    EXPECT_EQ(single_instance_storage(roots, 1, nullptr, 0, tree.path("state").c_str(), 65536, 0, 0,
                                      300, &ops, 0, nullptr),
              0);
    EXPECT_EQ(std::exchange(grouped, {}), (std::set<std::string>{"a", "b"}));
    EXPECT_EQ(read_files, expected_reads);
  }
  const int result = sisFileTaskImpl(a.c_str(), b.c_str());
  EXPECT_GE(result, 0);
  EXPECT_EQ(getSISFileInfoImpl(b.c_str()) > 0, result == 0);
  EXPECT_TRUE(result != 0 || recoverFileImpl(b.c_str()) == 0);
  EXPECT_EQ(tree.read("t/a") + tree.read("t/d/b"), std::string(200000, 'x'));
}

TEST(Device, ChecksumsAreThePublishedOnesAlsoInTwoCalls) {
  const char digits[] = "123456789";
  for (size_t split = 0; split <= 9; split++) {
    const uint64_t begun = crc64_rocksoft_generic(0, digits, split);
    EXPECT_EQ(crc64_rocksoft_generic(begun, digits + split, 9 - split), 0xae8b14860a799888U);
    EXPECT_EQ(crc64_be(crc64_be(0, digits, split), digits + split, 9 - split), 0x6c40df5f0b497347U);
  }
}

}  // namespace
