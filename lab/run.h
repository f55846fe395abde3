// Shared by the files that answer commands: the answer of a drive with the faults laid over it, and the
// firmware store.
#pragma once

#include <functional>
#include <string>

#include "commands.h"

namespace mirvok::lab {

// Lets the real time pass that a command to the drive takes; not for a thread that holds the machine.
void take_time(const drive& d);

// The answer to `command`, or what a due fault makes of it. `length` is what the caller asked for, in bytes.
reply run_with_faults(drive& d, const std::string& node, const std::string& command, uint32_t length,
                      const std::function<reply()>& answer);

// Makes other content of `data`, which has room for `length` bytes, when `kind` is "zeros", "ones", "random"
// or "half".
void spoil(bytes& data, const std::string& kind, size_t length);

// Raises the signal that a fault's answer names ("signal:INT"), if it names one.
void raise_as(const std::string& answer);

// Adds a piece of an image at its byte offset; offset 0 begins anew. Returns whether it continues the image.
bool take_piece(drive& d, uint64_t offset, const bytes& piece);

// Makes the image received the drive's firmware: its level becomes `lasting_key`. Returns whether it is one
// that the description lists, byte for byte.
bool activate(drive& d, const char* lasting_key);

}  // namespace mirvok::lab
