// Between the command files: the answer of a drive with the faults laid over it, and the firmware store.
#pragma once

#include <functional>
#include <string>

#include "commands.h"

namespace mirvok::lab {

// The answer to `command`, or what a due fault makes of it. `length` is what the caller asked for, in bytes.
reply run_with_faults(drive& d, const std::string& node, const std::string& command, uint32_t length,
                      const std::function<reply()>& answer);

}  // namespace mirvok::lab
