// Closed libraries are found where the loader looks, or else in the working directory.
#pragma once

namespace mirvok {

// Opens `name` with lazy binding, else "./" and `name`. Returns the handle, which the caller gives to
// dlclose, or null; dlerror then tells why the second name failed.
void* open_library(const char* name);

}  // namespace mirvok
