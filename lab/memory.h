// The program's memory, touched as the kernel touches it: a bad address or length is an error, not a crash.
#pragma once

#include <cstddef>

namespace mirvok::lab {

// Both return whether all `length` bytes could be moved. In a program with AddressSanitizer, memory beyond an
// object counts as out of reach.
bool copy_in(void* to, const void* from, size_t length);
bool copy_out(void* to, const void* from, size_t length);

}  // namespace mirvok::lab
