// Judges a drive's SMART results against its profile record and prints the drive's block of the report.
#pragma once

#include "commands/smart_decoders.h"

namespace mirvok {

// Adds the exceeded limits to info->exceeded and, when the host-writes counter was found, fills written_text.
// The counter is judged against the warranty only once it amounts to GB. Powers of 1024 throughout.
void calculate_smart(_smart_info* info, const _smart_profile_record* record);

// Prints the drive's block. number: display number, from 1.
void print_smart_info(const _smart_drive* drive, unsigned short number);

}  // namespace mirvok
