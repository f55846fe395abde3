#include "commands/flash_decision.h"

#include <cstdio>
#include <cstring>
#include <span>

#include "common/diagnostics.h"
#include "common/text.h"
#include "storage/drive_paths.h"
#include "storage/drive_use.h"

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

// "mount /srv, swap sda2", with "..." where it is cut. Characters that would break the line become '?'.
template <size_t Capacity>
void describe_users(const drive_users& users, char (&text)[Capacity]) {
    char all[max_drive_users * (sizeof(drive_user::name) + 16)];
    size_t length = 0;
    for (uint32_t i = 0; i < users.count; ++i) {
        length +=
            static_cast<size_t>(std::snprintf(all + length, sizeof(all) - length, "%s%s %s",
                                              i > 0 ? ", " : "", users.list[i].kind, users.list[i].name));
    }
    for (char& character : std::span(all, length)) {
        character = static_cast<unsigned char>(character) < 0x20 || character == 0x7F ? '?' : character;
    }
    copy_text(text, all);
    if (length >= Capacity) {
        std::memcpy(text + Capacity - sizeof("..."), "...", sizeof("..."));
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

void check_is_idle(drive* slot) {
    drive_users users;
    find_drive_users(slot->pd, &users);
    if (users.known && users.count == 0) {
        return;
    }
    slot->update = 0;
    slot->result = RESULT_DRIVE_IN_USE;
    if (users.known) {
        describe_users(users, slot->users);
    } else {
        copy_text(slot->users, "unknown");
    }
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
