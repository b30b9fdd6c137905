// Reads a report of `velmarin scan --json` back. Whoever holds the file may have changed it, so
// nothing in it is believed that is not checked here; what the files are now is not looked at.
#pragma once

#include <stdexcept>
#include <string>

#include "report.h"

namespace tool {

// Why a report is not used: one line that names the place, such as "group 2, file 1: ...".
class ReportFault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The text of the file, or of standard input for "-". Throws a ReportFault.
std::string read_report_text(const std::string &file);

// The roots and groups of a report in its own order; the other parts are not read. Throws a
// ReportFault unless all of it can be used.
Report parse_report(std::string text);

}  // namespace tool
