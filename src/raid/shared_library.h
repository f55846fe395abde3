// Closed libraries are found where the loader looks, or else in the working directory.
#pragma once

namespace mirvok {

// Opens `name` with lazy binding, else "./" and `name`; the second only where nobody but root and the
// effective user can have put it there, and the first not either while LD_LIBRARY_PATH leads to the working
// directory. Returns the handle, which the caller gives to dlclose, or null; dlerror then tells why the last
// name failed. The library's code stays in memory until the process ends: it may have threads.
void* open_library(const char* name);

}  // namespace mirvok
