// The page of `scan --html` without its data. Its parts are files in page/, compiled in as text.
#pragma once

#include <string>
#include <string_view>

namespace tool {

extern const std::string_view PAGE_HTML;
extern const std::string_view PAGE_STYLE;
extern const std::string_view PAGE_SCRIPT;

inline constexpr std::string_view DATA_PLACEHOLDER = "@REPORT_DATA@";

// The page with its style and script. Its policy names them by digest, so that a browser accepts no
// others. Contains `DATA_PLACEHOLDER` once.
std::string page_frame();

}  // namespace tool
