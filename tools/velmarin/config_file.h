// Reads scan options from a file.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Replaces each `--config FILE` in the arguments with the options in FILE: `NAME = VALUE` or `NAME`
// for an option, `root = DIRECTORY` for a root. Ignores blanks around names and values, and lines
// that begin with '#'. Returns an error message, or an empty string.
std::string expand_config(std::vector<std::string> &arguments);

}  // namespace tool
