// Detects files on an overlay. The first change to such a file copies it up.
#pragma once

#include <string>

namespace tool {

bool is_on_overlay(int fd);
bool is_on_overlay(const std::string &path);  // also false on failure

}  // namespace tool
