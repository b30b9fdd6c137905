// The tool's messages on standard error.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// "velmarin: TEXT"
void print_error(std::string_view text);

// "velmarin: WHAT NAME" and "velmarin: WHAT NAME: REASON", with the name escaped.
void print_error(std::string_view what, std::string_view name);
void print_error(std::string_view what, std::string_view name, std::string_view reason);

}  // namespace tool
