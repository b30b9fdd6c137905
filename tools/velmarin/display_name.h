// File names are bytes. These functions turn them into text that cannot break the output around it.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// One line of printable UTF-8 for a terminal. A backslash becomes \\, newline \n, tab \t, carriage
// return \r. Each byte of any other control character, of a character that separates lines or
// changes the writing direction, or of invalid UTF-8 becomes \x and two hexadecimal digits. The
// shell's `printf %b` restores the name.
std::string escaped_name(std::string_view name);

// Valid UTF-8, with U+FFFD for each invalid byte.
std::string utf8_name(std::string_view name);

bool is_utf8(std::string_view text);

// Two lower-case hexadecimal digits per byte.
std::string hex_text(std::string_view bytes);

}  // namespace tool
