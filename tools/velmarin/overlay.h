// Detects files of an overlay, which their first change copies up.
#pragma once

#include <string>

namespace tool {

bool is_on_overlay(int fd);
bool is_on_overlay(const std::string &path);  // also false on failure

}  // namespace tool
