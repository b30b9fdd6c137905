// Gives a copy, created private to its owner, the permissions of its source.
#pragma once

#include <string>

namespace tool {

// Copies the permission bits and the access control list. Keeps the set-id bits only if the owner
// is the same. Lets nobody read the copy who may not read the source: if the copy cannot have the
// source's group, its group gets no more rights than others have. Returns 0 or an errno.
int copy_permissions(const std::string &source, const std::string &copy);

}  // namespace tool
