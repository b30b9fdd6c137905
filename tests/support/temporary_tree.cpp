#include "support/temporary_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace velmarin_test {
namespace {

namespace fs = std::filesystem;

std::string repeated(const std::string &content) {
  const size_t star = content.rfind('*');
  if (star == std::string::npos) {
    return content;
  }
  std::string text;
  for (size_t i = std::stoul(content.substr(star + 1)); i > 0; i--) {
    text.append(content, 0, star);
  }
  return text;
}

}  // namespace

temporary_tree::temporary_tree(const std::string &description) {
  std::string name = fs::canonical(fs::temp_directory_path()) / "velmarin.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    ADD_FAILURE() << "no directory could be made like " << name;
    std::abort();
  }
  root_ = name;
  std::istringstream words(description);
  for (std::string word; words >> word;) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
      fs::create_directories(path(word));
    } else {
      write(word.substr(0, equals), repeated(word.substr(equals + 1)));
    }
  }
}

temporary_tree::~temporary_tree() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void temporary_tree::write(const std::string &name, const std::string &content) const {
  fs::create_directories(fs::path(path(name)).parent_path());
  std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  EXPECT_TRUE(file) << "cannot write " << path(name);
}

std::string temporary_tree::read(const std::string &name) const {
  std::ifstream file(path(name), std::ios::binary);
  EXPECT_TRUE(file) << "cannot read " << path(name);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
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

}  // namespace velmarin_test
