// Judges a drive's SMART results against its profile record and prints the drive's block of the report.
#pragma once

#include "commands/smart_decoders.h"

namespace mirvok {

// Adds the exceeded limits to info->exceeded and, when the host-writes counter was found, fills written_text.
// The counter is judged against the warranty only once it amounts to GB. Powers of 1024 throughout.
void calculate_smart(_smart_info* info, const _smart_profile_record* record);

// What the host-writes counter of a drive type counts; without a name where nothing is known of it.
struct written_unit {
    const char* name;
    uint64_t bytes;
    bool drop_fraction;  // an odd half kilobyte of sectors
};
written_unit written_unit_of(uint16_t drive_type);

// The counter in bytes, at most 2^64-1.
uint64_t bytes_written(uint64_t counter, const written_unit& unit);

// The temperature in degrees Celsius. An NVMe drive may be below 0, for which the record has no room.
int32_t temperature_of(const _smart_drive& drive);

// Prints the drive's block. number: display number, from 1.
void print_smart_info(const _smart_drive* drive, unsigned short number);

}  // namespace mirvok
