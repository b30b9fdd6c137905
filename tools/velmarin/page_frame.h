// The page of `scan --html` without its data. Its parts are files in page/, compiled in as text.
#pragma once

#include <string>
#include <string_view>

namespace tool {

extern const std::string_view PAGE_HTML;
extern const std::string_view PAGE_STYLE;
extern const std::string_view PAGE_SCRIPT;

inline constexpr std::string_view PLACE_OF_DATA = "@REPORT_DATA@";

// The page with its style and script. Its policy names them by digest, so that a browser accepts no
// others. Contains `PLACE_OF_DATA` once.
std::string page_frame();

}  // namespace tool
