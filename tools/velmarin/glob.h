// Patterns for file names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// A pattern for paths below a root:
// - `*` matches any characters but '/', `?` one of them, `[a-z]` one from a set and `[!a-z]` one
//   that is not in it; a backslash makes the next character literal;
// - `**` matches any characters, '/' included; as a whole component it matches any number of
//   directories, including none.
// A pattern with a '/' at its start or inside applies to the whole path, any other to the name
// alone. With a '/' at its end, it applies only to directories.
class Glob {
 public:
  explicit Glob(std::string_view text);

  // `path` is relative to the root and does not begin with '/'. Thread-safe; does not allocate.
  bool matches(std::string_view path, bool is_directory) const;

 private:
  enum class Kind { character, any_character, set, star, deep_star, directories, end };
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
  // A star's position in the pattern, and the end of the text that it matches.
  struct Star {
    bool is_active = false;
    size_t token = 0;
    size_t end = 0;
  };

  void add_token(std::string_view &rest, bool starts_component);
  bool add_set(std::string_view &rest);
  bool matches_text(std::string_view text) const;
  static bool accepts(const Token &token, char32_t character);
  static bool extend(Star &star, Kind kind, std::string_view text);

  std::vector<Token> tokens_;
  bool is_for_path_ = false;
  bool is_for_directories_ = false;
};

}  // namespace tool
