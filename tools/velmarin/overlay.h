// Files of an overlay, whose first change copies them up.
#pragma once

#include <string>

namespace tool {

bool is_on_overlay(int fd);
bool is_on_overlay(const std::string &path);  // false also when it cannot be asked

}  // namespace tool
