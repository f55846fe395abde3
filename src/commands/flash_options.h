// The options of flash, and its log.
#pragma once

#include "commands/flash.h"

namespace mirvok {

// Message codes of print_error_msg.
constexpr int message_unpaired = 4;
constexpr int message_no_profile = 5;

// Takes the options. Returns 0, or FLASH_STATUS_BAD_OPTIONS for an option that is refused, or for a selection
// of drives that is not read.
int parse_command_line(int argc, char** argv, flash* program);

// Sets what no option gave. Returns 0, or a message code.
int check_params(flash* program);

// Opens the log that was asked for. Returns 0, or FLASH_STATUS_BAD_OPTIONS where it would overwrite what a
// run needs; one that cannot be opened is reported on standard error.
int open_log(const flash* program);

}  // namespace mirvok
