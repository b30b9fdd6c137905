// Gives a new file, made for its user alone, the permissions of the file that it is a copy of.
#pragma once

#include <string>

namespace tool {

// Copies permission bits and access control list. The set-id bits stay only where the owner stays.
// Nobody may read the copy who may not read the source: where the copy cannot have the source's
// group, its group may do what everybody may. Returns 0 or an errno.
int copy_permissions(const std::string &source, const std::string &copy);

}  // namespace tool
