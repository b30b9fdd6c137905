// Reads scan options from files.
#pragma once

#include <vector>

#include "arguments.h"

namespace tool {

constexpr const char *CONFIG = "--config";

// Replaces each `--config FILE` with the options and roots in FILE: `NAME` for a flag,
// `NAME = VALUE` for another option, `root = DIRECTORY` for a root. Ignores blanks around names and
// values, and lines that begin with '#'. An option that takes one value keeps that of the command
// line. Throws `UsageError`, which names the line, if a file is wrong.
std::vector<Argument> expand_config(const std::vector<Argument> &arguments,
                                    const OptionKinds &kind_of);

}  // namespace tool
