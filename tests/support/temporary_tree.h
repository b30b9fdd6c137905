// A private directory for a test, removed with everything below it by the destructor.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

namespace velmarin_test {

class temporary_tree {
 public:
  // Builds the tree from words separated by blanks: "a/b=text" is a file with that content,
  // "a/b=x*70000" a file with the text repeated, "a/c/" a directory.
  explicit temporary_tree(const std::string &description = "");
  ~temporary_tree();
  temporary_tree(const temporary_tree &) = delete;
  temporary_tree &operator=(const temporary_tree &) = delete;

  const std::string &root() const { return root_; }
  // Paths are absolute and free of symbolic links.
  std::string path(const std::string &name) const { return root_ + "/" + name; }

  // Creates or replaces the file, and creates its parent directories.
  void write(const std::string &name, const std::string &content) const;
  std::string read(const std::string &name) const;
  struct stat status(const std::string &name) const;
  void set_mtime(const std::string &name, long seconds, long nanoseconds) const;

 private:
  std::string root_;
};

// How many entries the directory has.
std::ptrdiff_t count_in(const char *directory);

}  // namespace velmarin_test
