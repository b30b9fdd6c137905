#include "glob.h"

#include <algorithm>

namespace tool {
namespace {

// The length in bytes of the text's first UTF-8 character. A byte that starts none counts as one.
size_t character_length(std::string_view text) {
  size_t length = 1;
  while (static_cast<unsigned char>(text[0]) >= 0xc0 && length < text.size() && length < 4 &&
         (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) {
    ++length;
  }
  return length;
}

// The first character's bytes as one number, which sorts like its code point.
char32_t character_at(std::string_view text) {
  char32_t character = 0;
  for (const char byte : text.substr(0, character_length(text))) {
    character = character << 8 | static_cast<unsigned char>(byte);
  }
  return character;
}

char32_t take_character(std::string_view &text) {
  const char32_t character = character_at(text);
  text.remove_prefix(character_length(text));
  return character;
}

char32_t take_escaped(std::string_view &text) {
  if (text.starts_with('\\') && text.size() > 1) {
    text.remove_prefix(1);
  }
  return take_character(text);
}

}  // namespace

Glob::Glob(std::string_view text) {
  if (text.ends_with('/')) {
    is_for_directories_ = true;
    text.remove_suffix(1);
  }
  is_for_path_ = text.find('/') != std::string_view::npos;
  if (text.starts_with('/')) {
    text.remove_prefix(1);
  }
  bool starts_component = true;
  while (!text.empty()) {
    add_token(text, starts_component);
    starts_component = tokens_.back().kind == Kind::directories || tokens_.back().character == '/';
  }
  tokens_.push_back({Kind::end});
}

// Turns the start of the remaining pattern into a token.
void Glob::add_token(std::string_view &rest, bool starts_component) {
  const bool is_deep = rest.starts_with("**");
  if (starts_component && rest.starts_with("**/")) {
    tokens_.push_back({Kind::directories});
    rest.remove_prefix(3);
  } else if (rest.front() == '*') {
    tokens_.push_back({is_deep ? Kind::deep_star : Kind::star});
    rest.remove_prefix(is_deep ? 2 : 1);
  } else if (rest.front() == '?') {
    tokens_.push_back({Kind::any_character});
    rest.remove_prefix(1);
  } else if (rest.front() != '[' || !add_set(rest)) {
    tokens_.push_back({Kind::character, take_escaped(rest)});
  }
}

// Returns false if no set begins here, because the bracket is not closed.
bool Glob::add_set(std::string_view &rest) {
  std::string_view text = rest.substr(1);
  Token set = {Kind::set};
  set.is_negated = text.starts_with('!') || text.starts_with('^');
  text.remove_prefix(set.is_negated ? 1 : 0);
  do {
    if (text.empty()) {
      return false;
    }
    const char32_t first = take_escaped(text);
    const bool is_range = text.size() > 1 && text[0] == '-' && text[1] != ']';
    text.remove_prefix(is_range ? 1 : 0);
    set.ranges.push_back({first, is_range ? take_escaped(text) : first});
  } while (!text.starts_with(']'));
  tokens_.push_back(std::move(set));
  rest = text.substr(1);
  return true;
}

bool Glob::matches(std::string_view path, bool is_directory) const {
  if (is_for_directories_ && !is_directory) {
    return false;
  }
  return matches_text(is_for_path_ ? path : path.substr(path.rfind('/') + 1));
}

bool Glob::accepts(const Token &token, char32_t character) {
  if (token.kind == Kind::character) {
    return character == token.character;
  }
  const bool is_in_set = std::any_of(
      token.ranges.begin(), token.ranges.end(),
      [=](const Range &range) { return range.first <= character && character <= range.last; });
  return character != '/' && (token.kind == Kind::any_character || is_in_set != token.is_negated);
}

// Lets the star match more of the text. Returns false if it cannot.
bool Glob::extend(Star &star, Kind kind, std::string_view text) {
  if (!star.is_active || star.end == text.size() || (kind == Kind::star && text[star.end] == '/')) {
    return false;
  }
  if (kind != Kind::directories) {
    star.end += character_length(text.substr(star.end));
    return true;
  }
  const size_t slash = text.find('/', star.end);
  star.end = slash + 1;
  return slash != std::string_view::npos;
}

// Extends only the last star of each kind: what an earlier one could still match, the last one can
// match as well.
bool Glob::matches_text(std::string_view text) const {
  Star star;
  Star deep;
  size_t token = 0;
  size_t position = 0;
  while (tokens_[token].kind != Kind::end || position < text.size()) {
    const Kind kind = tokens_[token].kind;
    if (kind == Kind::star) {
      star = {true, token++, position};
    } else if (kind == Kind::deep_star || kind == Kind::directories) {
      deep = {true, token++, position};
      star = {};
    } else if (position < text.size() &&
               accepts(tokens_[token], character_at(text.substr(position)))) {
      ++token;
      position += character_length(text.substr(position));
    } else if (extend(star, Kind::star, text)) {
      token = star.token + 1;
      position = star.end;
    } else if (deep.is_active && extend(deep, tokens_[deep.token].kind, text)) {
      star = {};
      token = deep.token + 1;
      position = deep.end;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace tool
