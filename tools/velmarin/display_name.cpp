#include "display_name.h"

#include <utf8.h>

#include <cstdint>

namespace tool {
namespace {

// Control characters, line separators and characters that change the writing direction.
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

std::string escaped_character(uint32_t code, std::string_view bytes) {
  switch (code) {
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      return is_unsafe(code) ? escaped_bytes(bytes) : std::string(bytes);
  }
}

std::string escaped_characters(std::string_view valid) {
  std::string text;
  for (auto at = valid.begin(); at != valid.end();) {
    const auto start = at;
    const uint32_t code = utf8::unchecked::next(at);
    text += escaped_character(code, {start, at});
  }
  return text;
}

// Splits a name into runs of valid UTF-8 and the single bytes between them. Joins the results of
// `convert_valid` for each run and `convert_byte` for each byte.
template <typename ConvertValid, typename ConvertByte>
std::string converted(std::string_view name, ConvertValid convert_valid, ConvertByte convert_byte) {
  std::string text;
  for (;;) {
    const size_t valid = utf8::find_invalid(name);
    text += convert_valid(name.substr(0, valid));
    if (valid == std::string_view::npos) {
      return text;
    }
    text += convert_byte(name.substr(valid, 1));
    name.remove_prefix(valid + 1);
  }
}

}  // namespace

std::string escaped_name(std::string_view name) {
  return converted(name, escaped_characters, escaped_bytes);
}

std::string utf8_name(std::string_view name) {
  return converted(
      name, [](std::string_view valid) { return valid; },
      [](std::string_view) { return "\xef\xbf\xbd"; });
}

bool is_utf8(std::string_view text) {
  return utf8::is_valid(text);
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
