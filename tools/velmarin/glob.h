// Patterns for the names of files.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// A pattern for paths below a root:
// - `*` stands for any characters but '/', `?` for one of them, `[a-z]` for one of a set and
// `[!a-z]`
//   for one that is not in it; a backslash takes the meaning from the character behind it;
// - `**` stands for any characters, '/' included; as a whole component it stands for any number of
//   directories, also none.
// With a '/' at its start or inside, a pattern is for the whole path, otherwise for the name alone.
// With a '/' at its end, it is for directories only.
class Glob {
 public:
  explicit Glob(std::string_view text);

  // `path` lies below the root and does not begin with '/'. For any thread; allocates nothing.
  bool matches(std::string_view path, bool is_directory) const;

 private:
  enum class Kind { character, any_character, set, star, deep_star, directories };
  struct Range {
    char32_t first;
    char32_t last;
  };
  struct Token {
    Kind kind;
    char32_t character = 0;
    bool is_negated = false;
    std::vector<Range> ranges = {};
  };
  // Where a star stands in the pattern, and the end of the text that it takes.
  struct Star {
    bool is_met = false;
    size_t token = 0;
    size_t end = 0;
  };

  void add_token(std::string_view &rest, bool starts_component);
  bool add_set(std::string_view &rest);
  bool matches_text(std::string_view text) const;
  static bool takes(const Token &token, char32_t character);
  static bool extend(Star &star, Kind kind, std::string_view text);

  std::vector<Token> tokens_;
  bool is_for_path_ = false;
  bool is_for_directories_ = false;
};

}  // namespace tool
