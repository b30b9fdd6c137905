// The shared library as a host on a device uses it. Needs only the public headers and no platform
// layer, so the platform build file builds it for a device too, where it also runs on a file system
// without control codes.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "support/temporary_tree.h"
#include "support/test_scan.h"
#include "velmarin/files.h"
#include "velmarin/primitives.h"

namespace {

using namespace velmarin_test;

TEST(Device, FindsIdenticalFilesAndMergesThemOrIsRefused) {
  setenv("TMPDIR", testing::TempDir().c_str(), 0);  // a device has no /tmp
  const temporary_tree tree("t/a=x*100000 t/d/b=x*100000 t/c=y*120000 s/");
  std::filesystem::current_path(tree.root());
  for (const uint64_t expected_reads : {2U, 0U}) {  // the second time digests are loaded
    scan s = {.min_size = 65536, .time_budget = 300};
    EXPECT_EQ(s.run().found, (groups{{"t/a", "t/d/b"}}));
    EXPECT_EQ(s.counters[4], expected_reads);
  }
  const int result = sisFileTaskImpl("t/a", "t/d/b");
  EXPECT_GE(result, 0);
  EXPECT_EQ(getSISFileInfoImpl("t/d/b") > 0, result == 0);
  EXPECT_TRUE(result != 0 || recoverFileImpl("t/d/b") == 0);
  EXPECT_EQ(tree.read("t/a") + tree.read("t/d/b"), std::string(200000, 'x'));
}

TEST(Device, ChecksumsMatchThePublishedOnesEvenInTwoCalls) {
  const char digits[] = "123456789";
  for (size_t split = 0; split <= 9; split++) {
    const uint64_t begun = crc64_rocksoft_generic(0, digits, split);
    EXPECT_EQ(crc64_rocksoft_generic(begun, digits + split, 9 - split), 0xae8b14860a799888U);
    EXPECT_EQ(crc64_be(crc64_be(0, digits, split), digits + split, 9 - split), 0x6c40df5f0b497347U);
  }
}

}  // namespace
