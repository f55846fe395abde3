// The per-drive record of find and flash, and the lookup of a drive in the flash profile that both share.
#pragma once

#include <cstdint>

#include "profiles/flash_profile.h"
#include "storage/device_model.h"

namespace mirvok {

// What a drive was matched by.
enum match_t : uint16_t { MATCH_NONE, MATCH_PART_NUMBER, MATCH_PART_NUMBER_8S, MATCH_PRODUCT_ID };

struct drive {
    _pd_info* pd;
    profile_record* record;  // the matched record, or null
    uint16_t found;          // 1 when a record matched
    match_t match;
    // The flash command's alone.
    uint16_t update;        // 1 when a download was due, and was attempted
    uint16_t failed;        // 1 when the download or its verification failed
    uint32_t result;        // 0, or the code of a refusal or failure
    uint16_t due;           // check: 1 when the download is due and its image is in order
    uint16_t check;         // 1 in a check
    char level_before[32];  // the level that the decision saw
};

// Looks the drive up by part number, then by 8S part number, then, for the maker's own drives, by product
// identification. Returns 0 with the record in slot->record, or 1. A match by the second or third key
// replaces the drive's part number with the record's.
int lookup_drive(profile* prof, drive* slot);

}  // namespace mirvok
