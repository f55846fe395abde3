#include "commands/flash_decision.h"

#include <cstring>

#include "common/diagnostics.h"
#include "storage/drive_paths.h"

namespace mirvok {

namespace {

// Drives with these identification texts report a level of the series S that counts as series G.
constexpr char series_s_drives[][8] = {"47Q8841", "47Q8842", "47Q8843"};

bool is_updated_state(uint16_t status) {
    return status == PD_STATUS_UNCONFIGURED_GOOD || status == PD_STATUS_ONLINE || status == PD_STATUS_JBOD;
}

void normalise_series(_pd_info* pd) {
    for (const char* text : series_s_drives) {
        if (std::strncmp(pd->dummy, text, 7) == 0 && pd->code_level[0] == 'S') {
            pd->code_level[0] = 'G';
        }
    }
}

}  // namespace

void check_is_update(drive* slot) {
    TRACE_PRINT("Entering %s", __func__);
    _pd_info* pd = slot->pd;
    const char* level = slot->record->fw_level;
    slot->update = 0;
    if (path_of(pd->ctrl).reports_state && !is_updated_state(pd->status)) {
        slot->result = RESULT_STATE_NOT_SUPPORTED;
    } else {
        TRACE_PRINT("profile level:%s,len:%zu,drive level:%s,len:%zu", level, std::strlen(level),
                    pd->code_level, std::strlen(pd->code_level));
        normalise_series(pd);
        if (std::strncmp(level, pd->code_level, std::strlen(level)) <= 0) {
            slot->result = 0;
        } else if (pd->fw_download_not_allowed == 1) {
            TRACE_PRINT("drive fw download is not allowed");
            slot->result = RESULT_UPDATE_NOT_ALLOWED;
        } else {
            slot->update = 1;
        }
    }
    TRACE_PRINT("Exiting %s, flash=%d, rc = %d", __func__, slot->update, static_cast<int>(slot->result));
}

outcome_t outcome_of(const drive* slot) {
    if (slot->found == 0) {
        return OUTCOME_NOT_IN_PROFILE;
    }
    if (slot->update == 0) {
        return slot->result != 0 ? OUTCOME_REFUSED : OUTCOME_LATEST;
    }
    if (slot->failed == 1) {
        return OUTCOME_FAILED;
    }
    return slot->due == 1 ? OUTCOME_DUE : OUTCOME_UPDATED;
}

int compare_code_level(const char* current, uint32_t current_length, const char* expected,
                       uint32_t expected_length) {
    TRACE_PRINT("Entering %s", __func__);
    const int rc = current_length != expected_length ? 2 : std::memcmp(current, expected, current_length);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
