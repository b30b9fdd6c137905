// File names are bytes; these functions make text of them that cannot break the form it stands in.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// One line of printable UTF-8 for a terminal: a backslash becomes \\, newline \n, tab \t, carriage
// return \r; every other control character, character that turns the direction of writing or
// separates lines, and byte that is not part of valid UTF-8 becomes \x and two hexadecimal digits
// per byte. `printf %b` gives the name back.
std::string escaped_name(std::string_view name);

// Valid UTF-8: each byte that is not part of valid UTF-8 is replaced by U+FFFD.
std::string utf8_name(std::string_view name);

bool is_utf8(std::string_view text);

// Two lower-case hexadecimal digits per byte.
std::string hex_text(std::string_view bytes);

}  // namespace tool
