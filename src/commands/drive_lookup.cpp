#include "commands/drive_lookup.h"

#include "common/diagnostics.h"
#include "common/text.h"
#include "storage/vendor_checks.h"

namespace mirvok {

int lookup_drive(profile* prof, drive* slot) {
    TRACE_PRINT("Entering %s", __func__);
    _pd_info* pd = slot->pd;
    slot->match = MATCH_PART_NUMBER;
    int rc = find_profile_record(pd->part_number, prof, &slot->record, 0);
    if (rc != 0) {
        slot->match = MATCH_PART_NUMBER_8S;
        rc = find_profile_record(pd->part_number_8s, prof, &slot->record, 0);
        if (rc != 0 && is_veltra_disk(pd) == 0) {
            slot->match = MATCH_PRODUCT_ID;
            rc = find_profile_record(pd->product_id, prof, &slot->record, 1);
        }
        if (rc == 0) {
            copy_text(pd->part_number, slot->record->part_number);
        } else {
            slot->match = MATCH_NONE;
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
