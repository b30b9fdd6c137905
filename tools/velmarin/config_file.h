// Options of a scan that a file holds.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Puts in place of each `--config FILE` of the arguments what the lines of FILE stand for:
// `NAME = VALUE` or `NAME` for the option of that name, and `root = DIRECTORY` for a root. Blanks
// around names and values do not count; nor do lines that begin with '#'. Returns what is wrong, or
// nothing.
std::string expand_config(std::vector<std::string> &arguments);

}  // namespace tool
