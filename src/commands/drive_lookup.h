// The per-drive record of find and flash, and the lookup of a drive in a profile.
#pragma once

#include <cstdint>

#include "common/text.h"
#include "profiles/flash_profile.h"
#include "storage/device_model.h"
#include "storage/vendor_checks.h"

namespace mirvok {

// What a drive was matched by.
enum match_t : uint16_t { MATCH_NONE, MATCH_PART_NUMBER, MATCH_PART_NUMBER_8S, MATCH_PRODUCT_ID };

// What became of a listed drive.
enum outcome_t {
    OUTCOME_LATEST,
    OUTCOME_NOT_IN_PROFILE,
    OUTCOME_REFUSED,
    OUTCOME_DUE,
    OUTCOME_UPDATED,
    OUTCOME_FAILED,
    outcome_count,
};

struct drive {
    _pd_info* pd;
    profile_record* record;  // the matched record, or null
    uint16_t found;          // 1 when a record matched
    match_t match;
    // The flash command's alone.
    uint16_t update;        // 1 when a download was due, and was attempted
    uint16_t failed;        // 1 when the download or its verification failed
    uint16_t silent;        // 1 when the drive did not tell its level after the download
    uint32_t result;        // 0, or the code of a refusal or failure
    uint16_t due;           // check: 1 when the download is due and its image is in order
    uint16_t check;         // 1 in a check
    outcome_t outcome;      // derived from the above once the drive has been dealt with
    char level_before[32];  // the level that the decision saw
    char users[128];        // whom a drive was refused for that is in use
};

// Looks the drive up by part number, then by 8S part number, then, for the maker's own drives, by product
// identification. find(key, record, by_pid) finds a key in the profile: 0 with the record in *record. A match
// by the second or third key replaces the drive's part number with the record's.
template <typename Record, typename Find>
match_t find_drive(_pd_info* pd, Record** record, Find find) {
    if (find(pd->part_number, record, 0) == 0) {
        return MATCH_PART_NUMBER;
    }
    match_t match = MATCH_NONE;
    if (find(pd->part_number_8s, record, 0) == 0) {
        match = MATCH_PART_NUMBER_8S;
    } else if (is_veltra_disk(pd) == 0 && find(pd->product_id, record, 1) == 0) {
        match = MATCH_PRODUCT_ID;
    }
    if (match != MATCH_NONE) {
        copy_text(pd->part_number, (*record)->part_number);
    }
    return match;
}

// Fills a drive's slot from the flash profile. Returns 0 with the record in slot->record, or 1.
int lookup_drive(profile* prof, drive* slot);

}  // namespace mirvok
