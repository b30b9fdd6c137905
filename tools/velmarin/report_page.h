// The page of `--html` before its data is put in; report_page.cpp is made of report.html.
#pragma once

#include <string_view>

namespace tool {

extern const std::string_view REPORT_PAGE;

}  // namespace tool
