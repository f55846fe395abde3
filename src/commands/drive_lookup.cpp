#include "commands/drive_lookup.h"

#include "common/diagnostics.h"

namespace mirvok {

int lookup_drive(profile* prof, drive* slot) {
    TRACE_PRINT("Entering %s", __func__);
    slot->match =
        find_drive(slot->pd, &slot->record, [prof](const char* key, profile_record** record, int by_pid) {
            return find_profile_record(key, prof, record, by_pid);
        });
    const int rc = slot->match == MATCH_NONE ? 1 : 0;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
