#include "support/temporary_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace velmarin_test {

temporary_tree::temporary_tree(const std::string &description) {
  root_ = fs::canonical(fs::temp_directory_path()) / "velmarin.XXXXXX";
  EXPECT_TRUE(mkdtemp(root_.data())) << root_;
  std::istringstream words(description);
  for (std::string word; words >> word;) {
    const size_t equals = word.find('=');
    const size_t star = word.rfind('*');
    if (equals == word.npos) {
      fs::create_directories(path(word));
      continue;
    }
    std::string content;
    for (size_t i = star == word.npos ? 1 : std::stoul(word.substr(star + 1)); i > 0; i--) {
      content.append(word, equals + 1, star - equals - 1);
    }
    write(word.substr(0, equals), content);
  }
}

temporary_tree::~temporary_tree() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void temporary_tree::write(const std::string &name, const std::string &content) const {
  fs::create_directories(fs::path(path(name)).parent_path());
  EXPECT_TRUE(std::ofstream(path(name)) << content << std::flush) << path(name);
}

std::string temporary_tree::read(const std::string &name) const {
  std::ifstream file(path(name));
  EXPECT_TRUE(file) << path(name);
  return {std::istreambuf_iterator<char>(file), {}};
}

struct stat temporary_tree::status(const std::string &name) const {
  struct stat status = {};
  EXPECT_EQ(lstat(path(name).c_str(), &status), 0) << path(name);
  return status;
}

void temporary_tree::set_mtime(const std::string &name, long seconds, long nanoseconds) const {
  const timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
  EXPECT_EQ(utimensat(AT_FDCWD, path(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path(name);
}

std::ptrdiff_t count_in(const char *directory) {
  return std::distance(fs::directory_iterator(directory), {});
}

}  // namespace velmarin_test
