// The page of `scan --html`.
#pragma once

#include <string>

#include "page_context.h"
#include "report.h"

namespace tool {

std::string html_report(const Report &report, const PageContext &context);

}  // namespace tool
