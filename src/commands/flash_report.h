// What flash shows: each drive's line in two halves, and the table per controller. All of it goes to
// standard output and to the log.
#pragma once

#include <cstddef>

#include "commands/drive_lookup.h"
#include "commands/flash.h"

namespace mirvok {

// The display name of a controller type.
const char* label_of(ctrl_type_t type);

// The text of a drive's result code as its line on the screen has it. Returns `text`.
constexpr size_t text_of_result_size = 160;
const char* text_of_result(const drive* slot, char (&text)[text_of_result_size]);

// half 0: the first half of the drive's line, before it is worked on; half 1: the second half with the
// result.
// Returns the characters of the first half.
size_t print_drive_info(drive* slot, int half, int index);

// Prints the table and sets program->error_count. Returns 0.
int print_update_result(flash* program);

// Prints the line that stands in place of the table with --check, and sets program->error_count. Returns how
// many drives are due.
int print_check_result(flash* program);

}  // namespace mirvok
