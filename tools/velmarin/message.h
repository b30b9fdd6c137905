// The tool's messages on standard error.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// A name as messages show it: escaped, and visible even if it is empty.
std::string named(const std::string &name);

// "velmarin: TEXT"
void print_error(std::string_view text);

// "velmarin: WHAT NAME" and "velmarin: WHAT NAME: REASON", with the name as above.
void print_error(std::string_view what, std::string_view name);
void print_error(std::string_view what, std::string_view name, std::string_view reason);

}  // namespace tool
