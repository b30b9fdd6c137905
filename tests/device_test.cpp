// The shared library as a device's host finds it. Needs the public headers and nothing of a
// platform, so it is built for a device from the platform build file, too; there it also runs where
// the file system has no control codes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/temporary_tree.h"
#include "velmarin/control_codes.h"
#include "velmarin/files.h"
#include "velmarin/primitives.h"
#include "velmarin/scan.h"

namespace {

using namespace velmarin;

constexpr size_t FILE_SIZE = 100000;

class Device : public testing::Test {
 protected:
  // A device has no /tmp.
  static void SetUpTestSuite() { setenv("TMPDIR", testing::TempDir().c_str(), 0); }
};

struct findings {
  std::vector<std::string> grouped;  // file names
  uint64_t read_files = 0;
  bool ended = false;
};

int receive(uint64_t caller_data, sis_report *record) {
  auto *found = reinterpret_cast<findings *>(caller_data);
  if (record->stage == REPORT_GROUP || record->stage == REPORT_FILE) {
    found->grouped.push_back(std::filesystem::path(record->path).filename());
  } else if (record->stage == REPORT_END) {
    found->read_files = record->size;
    found->ended = true;
  }
  return 0;
}

findings scan(const velmarin_test::temporary_tree &tree) {
  const std::string root = tree.path("tree");
  const std::string state = tree.path("state");
  const char *roots[] = {root.c_str()};
  const sis_ops ops = {nullptr, nullptr, nullptr, nullptr, receive};
  findings found;
  EXPECT_EQ(single_instance_storage(roots, 1, nullptr, 0, state.c_str(), 65536, 0, 0, 300, &ops,
                                    reinterpret_cast<uintptr_t>(&found), nullptr),
            0);
  std::sort(found.grouped.begin(), found.grouped.end());
  return found;
}

TEST_F(Device, AScanGroupsIdenticalFilesAndKeepsTheirDigests) {
  const velmarin_test::temporary_tree tree(
      "tree/a=x*100000 tree/d/b=x*100000 tree/c=y*120000 state/");
  const std::vector<std::string> identical = {"a", "b"};
  for (const uint64_t read_files : {2U, 0U}) {
    const findings found = scan(tree);
    EXPECT_TRUE(found.ended);
    EXPECT_EQ(found.grouped, identical);
    EXPECT_EQ(found.read_files, read_files);
  }
}

TEST_F(Device, MergingTwoFilesWorksOrIsRefusedAndKeepsTheirContent) {
  const velmarin_test::temporary_tree tree("a=x*100000 b=x*100000");
  const std::string a = tree.path("a");
  const std::string b = tree.path("b");
  const int result = sisFileTaskImpl(a.c_str(), b.c_str());
  if (result == 0) {
    EXPECT_GT(getSISFileInfoImpl(b.c_str()), 0);
    EXPECT_EQ(recoverFileImpl(b.c_str()), 0);
  } else {
    EXPECT_GT(result, 0);
    EXPECT_LE(getSISFileInfoImpl(b.c_str()), 0);
  }
  EXPECT_EQ(tree.read("a"), std::string(FILE_SIZE, 'x'));
  EXPECT_EQ(tree.read("b"), std::string(FILE_SIZE, 'x'));
}

TEST_F(Device, ChecksumsAndTimesAreThePublishedOnes) {
  EXPECT_EQ(crc64_be(0, "123456789", 9), 0x6c40df5f0b497347U);
  EXPECT_EQ(crc64_rocksoft_generic(0, "123456789", 9), 0xae8b14860a799888U);
  setenv("TZ", "UTC0", 1);
  const timespec time = {1, 5};
  char text[40];
  EXPECT_EQ(timespec2str(text, sizeof(text), &time), 0);
  EXPECT_STREQ(text, "1970-01-01 00:00:01.000000005");
}

}  // namespace
