// Why a file was refused, in words.
#pragma once

#include <string>

namespace tool {

// What an errno of the platform means for a file: "this file system cannot mark files" instead of
// "Operation not supported". Other errors keep the system's own text.
std::string describe_error(int error);

// Why merging cannot change a file, by the errno of its state.
std::string describe_obstacle(int obstacle, bool is_one_written_in_place);

// Why `second` cannot share the data of `first`.
std::string describe_sharing_error(const std::string &first, const std::string &second, int error);

}  // namespace tool
