#include "display_name.h"

#include <cstdint>

namespace tool {
namespace {

struct Character {
  uint32_t code;
  size_t length;  // in bytes; 0 when the text does not start with a valid character
};

// The shape of a UTF-8 sequence by its first byte, and the smallest code that needs its length.
struct Shape {
  size_t length;
  uint32_t smallest;
  unsigned char mask, bits;
};
constexpr Shape SHAPES[] = {
    {1, 0, 0x80, 0x00}, {2, 0x80, 0xe0, 0xc0}, {3, 0x800, 0xf0, 0xe0}, {4, 0x10000, 0xf8, 0xf0}};

Character decode(const Shape &shape, std::string_view text) {
  uint32_t code = static_cast<unsigned char>(text[0]) & static_cast<unsigned char>(~shape.mask);
  for (size_t i = 1; i < shape.length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xc0) != 0x80) {
      return {0, 0};
    }
    code = code << 6 | (byte & 0x3f);
  }
  const bool is_surrogate = code >= 0xd800 && code < 0xe000;
  const bool valid = code >= shape.smallest && code <= 0x10ffff && !is_surrogate;
  return {code, valid ? shape.length : 0};
}

Character first_character(std::string_view text) {
  const auto byte = static_cast<unsigned char>(text[0]);
  for (const Shape &shape : SHAPES) {
    if ((byte & shape.mask) == shape.bits && text.size() >= shape.length) {
      return decode(shape, text);
    }
  }
  return {0, 0};
}

// Control characters, line separators and everything that changes the direction of writing.
bool is_unsafe(uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x61c ||
         (code >= 0x200e && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069) || code == 0xfeff;
}

std::string escaped_bytes(std::string_view bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    text += "\\x" + hex_text(bytes.substr(i, 1));
  }
  return text;
}

std::string escaped_character(std::string_view bytes, const Character &character) {
  if (character.length == 0) {
    return escaped_bytes(bytes.substr(0, 1));
  }
  switch (character.code) {
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      break;
  }
  const std::string_view own = bytes.substr(0, character.length);
  return is_unsafe(character.code) ? escaped_bytes(own) : std::string(own);
}

// Builds a text from what `convert` makes of each character, or of each byte that is part of none.
template <typename Convert>
std::string converted(std::string_view name, Convert convert) {
  std::string text;
  while (!name.empty()) {
    const Character character = first_character(name);
    text += convert(name, character);
    name.remove_prefix(character.length == 0 ? 1 : character.length);
  }
  return text;
}

}  // namespace

std::string escaped_name(std::string_view name) {
  return converted(name, escaped_character);
}

std::string utf8_name(std::string_view name) {
  return converted(name, [](std::string_view rest, const Character &character) {
    return character.length == 0 ? std::string("\xef\xbf\xbd")
                                 : std::string(rest.substr(0, character.length));
  });
}

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = first_character(text).length;
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

std::string hex_text(std::string_view bytes) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += DIGITS[byte >> 4];
    text += DIGITS[byte & 0xf];
  }
  return text;
}

}  // namespace tool
