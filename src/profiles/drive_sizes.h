// The drive size table: the marketed size in GB of every capacity that the maker's drives report.
#pragma once

#include <cstdint>

namespace mirvok {

constexpr uint32_t max_drive_sizes = 256;

struct drive_size {
    uint32_t capacity_high;
    uint32_t capacity_low;
    uint16_t size;  // GB
};

extern drive_size drive_sizes[max_drive_sizes];
extern int drive_sizes_result;     // what the last load returned; 1 before any
extern uint16_t drive_sizes_size;  // entries loaded; 0 until a load succeeds

// Loads the table from a file. Returns 0, 1 when the file cannot be opened, 2 for a bad trailer signature, 3
// for a bad table signature; on failure the loaded table is left as it was. Of more than 256 entries the
// first 256 are used.
int load_drive_sizes(const char* name);

// Looks up the exact value that a drive reports: the last logical block address (SCSI), the sector count
// (ATA) or the namespace size in blocks (NVMe). Returns 1 and sets *size, or 0 and leaves it.
uint16_t find_drive_size1(uint32_t low, uint32_t high, uint16_t* size);

}  // namespace mirvok
