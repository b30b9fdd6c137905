// Reads back a report of `velmarin scan --json`. It may have been edited, so nothing in it is
// trusted unchecked. Does not look at the files themselves.
#pragma once

#include <stdexcept>
#include <string>

#include "report.h"

namespace tool {

// Why a report is rejected: one line that names the location, such as "group 2, file 1: ...".
class ReportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The text of the file, or of standard input for "-". Throws ReportError.
std::string read_report_text(const std::string &file);

// The roots and groups of a report, in its order; ignores the other parts. Throws ReportError
// unless all of it is usable.
Report parse_report(std::string text);

}  // namespace tool
