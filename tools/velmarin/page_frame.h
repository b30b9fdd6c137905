// The page of `scan --html` before its data is put in. Its parts lie in page/ and come here as
// text.
#pragma once

#include <string>
#include <string_view>

namespace tool {

extern const std::string_view PAGE_HTML;
extern const std::string_view PAGE_STYLE;
extern const std::string_view PAGE_SCRIPT;

inline constexpr std::string_view PLACE_OF_DATA = "@REPORT_DATA@";

// The page with its style and script, which its policy names by their digests, so that a browser
// takes no other. `PLACE_OF_DATA` stands in it once.
std::string page_frame();

}  // namespace tool
