// The data files of the working directory.
#pragma once

#include <cstdio>

namespace mirvok {

// Opens a regular file for reading; null, with errno set, where it is none or cannot be opened. A pipe would
// be waited for.
std::FILE* open_data_file(const char* path);

}  // namespace mirvok
