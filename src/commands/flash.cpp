#include "commands/flash.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commands/banner.h"
#include "commands/drive_match.h"
#include "commands/drive_walk.h"
#include "commands/flash_decision.h"
#include "commands/flash_options.h"
#include "commands/flash_report.h"
#include "commands/json_report.h"
#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/signals.h"
#include "common/text.h"
#include "storage/firmware_download.h"
#include "storage/identification.h"

namespace mirvok {

namespace {

bool is_selected(const void* run, const _pd_info* pd) {
    const auto* program = static_cast<const flash*>(run);
    return program->adapter_set == 0 || (static_cast<uint32_t>(program->adapter) == pd->ctrl->ctrl_num &&
                                         static_cast<uint32_t>(program->slot) == pd->device_id);
}

// Whether the drive that answers is the one that was listed, as far as both say which they are.
bool is_same_drive(const _pd_info& answer, const _pd_info& listed) {
    return answer.device_serial[0] == '\0' || listed.device_serial[0] == '\0' ||
           std::strcmp(answer.device_serial, listed.device_serial) == 0;
}

// The drive is asked for its level again, except an NVMe drive, which runs it only after the next reset. What
// it is listed under stays; only its level and its size are taken anew. A drive that says nothing any more
// has not got the level, whatever it had before.
void verify_level(drive* slot) {
    _pd_info* pd = slot->pd;
    const char* level = slot->record->fw_level;
    if (drive_kind(pd->protocol) == DRIVE_NVME) {
        copy_text(pd->code_level, level);
        return;
    }
    progress_step("verifying");
    _pd_info answer = *pd;
    copy_text(answer.code_level, "");
    get_pd_information(&answer);
    const bool answers = answer.code_level[0] != '\0' && is_same_drive(answer, *pd);
    slot->silent = answers ? 0 : 1;
    if (answers) {
        copy_text(pd->code_level, answer.code_level);
        pd->size = answer.size;
    }
    if (!answers || compare_code_level(pd->code_level, static_cast<uint32_t>(std::strlen(pd->code_level)),
                                       level, static_cast<uint32_t>(std::strlen(level))) != 0) {
        slot->failed = 1;
        slot->result = RESULT_LEVEL_MISMATCH;
    }
}

// There is nothing to wait for after a download that a signal kept from beginning.
void update_drive(drive* slot) {
    slot->result = static_cast<uint32_t>(flash_pd_fw(slot->pd, slot->record));
    note_stop_signal();
    if (slot->result != 0) {
        slot->failed = 1;
    } else {
        verify_level(slot);
    }
    if (slot->result != RESULT_CONTROLLER_REFUSES || held_signal() == 0) {
        progress_wait(slot->record->wait_time);
    }
    note_stop_signal();
}

// A download that is due is not made: its image is examined instead.
void check_drive(drive* slot) {
    slot->result = static_cast<uint32_t>(check_pd_fw(slot->pd, slot->record));
    slot->failed = slot->result != 0 ? 1 : 0;
    slot->due = slot->result == 0 ? 1 : 0;
}

void* look_up(void* run, _pd_info* pd) {
    auto* program = static_cast<flash*>(run);
    drive* slot = &program->drives[program->drive_count++];
    *slot = {};
    slot->pd = pd;
    slot->check = program->check;
    slot->found = lookup_drive(program->profile, slot) == 0 ? 1 : 0;
    return slot;
}

// Both halves of a listed drive's line, and its update between them.
void take(void* run, void* listed) {
    const auto* program = static_cast<flash*>(run);
    auto* slot = static_cast<drive*>(listed);
    _pd_info* pd = slot->pd;
    const int index = static_cast<int>(slot - program->drives) + 1;
    if (slot->found == 1 && pd->size == 0) {
        pd->size = slot->record->size;
    }
    progress_clear();
    const size_t column = print_drive_info(slot, 0, index);
    flush_output();
    progress_continue(column);
    if (slot->found == 1 && program->force != 0) {
        slot->update = 1;
    } else if (slot->found == 1) {
        check_is_update(slot);
    }
    if (slot->update == 1 && program->idle != 0) {
        check_is_idle(slot);
    }
    copy_text(slot->level_before, pd->code_level);
    if (slot->update == 1 && program->check != 0) {
        check_drive(slot);
    } else if (slot->update == 1) {
        hold_signals();
        update_drive(slot);
    }
    slot->outcome = outcome_of(slot);
    progress_clear();
    print_drive_info(slot, 1, index);
    flush_output();
    release_signals();
}

constexpr drive_operation operation = {false, true, is_selected, look_up, nullptr, nullptr, take};

int flash_drives(flash* program, _storage_lib* lib, left_out_list* left_out) {
    if (count_selected(operation, program, lib) == 0) {
        for (uint32_t i = 0; i < lib->pd_count; ++i) {
            leave_out(left_out, &lib->pd_list[i], LEFT_OUT_NOT_SELECTED);
        }
        TRACE_PRINT("pd count == 0");
        std::printf("No Physical Disk found\n\n");
        return complain_of_no_match() ? FLASH_STATUS_BAD_OPTIONS : FLASH_STATUS_NO_DRIVE;
    }
    program->ctrl_list = lib->ctrl_list;
    program->ctrl_count = lib->ctrl_count;
    walk_drives(operation, program, lib, left_out);
    const bool due =
        program->check != 0 ? print_check_result(program) != 0 : print_update_result(program) != 0;
    if (held_signal() != 0) {
        return 128 + held_signal();
    }
    if (complain_of_no_match()) {
        return FLASH_STATUS_BAD_OPTIONS;
    }
    if (program->error_count != 0) {
        return FLASH_STATUS_FAILED;
    }
    return due ? FLASH_STATUS_DUE : FLASH_STATUS_OK;
}

// Loads the profile. Returns 0 or FLASH_STATUS_NO_PROFILE.
int load_flash_profile(flash* program, run_record* record) {
    const bool loaded = load_profile(program->profile_file, &program->profile) == 0;
    note_profile(record, program->profile_file, loaded,
                 program->profile != nullptr ? program->profile->count : 0);
    if (!loaded) {
        print_error_msg(message_no_profile);
    }
    return loaded ? 0 : static_cast<int>(FLASH_STATUS_NO_PROFILE);
}

int run(int argc, char** argv, bool check, bool idle) {
    run_record record;
    begin_record(&record);
    mirvok::flash program;
    init_program(&program);
    int rc = matches_are_read() ? parse_command_line(argc, argv, &program) : FLASH_STATUS_BAD_OPTIONS;
    program.check = check ? 1 : 0;
    program.idle = idle ? 1 : 0;
    if (program.log_on != 0 && rc == 0) {
        rc = open_log(&program);
    }
    const int message = check_params(&program);
    print_banner("FLASH");
    if (message != 0) {
        print_error_msg(static_cast<uint32_t>(message));
        rc = FLASH_STATUS_BAD_OPTIONS;
    }
    if (rc == 0) {
        rc = load_flash_profile(&program, &record);
    }
    _storage_lib lib = {};
    const bool runs = rc == 0;
    if (runs) {
        open_inventory(&lib, !check);
        rc = flash_drives(&program, &lib, &record.left_out);
    }
    write_report(&program, &lib, record, rc);
    if (runs) {
        close_inventory(&lib);
    }
    un_init_program(&program);
    return rc;
}

}  // namespace

int run_flash_drives(int argc, char** argv, bool idle) {
    TRACE_PRINT("Entering %s", __func__);
    const int rc = run(argc, argv, false, idle);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int run_check_drives(int argc, char** argv, bool idle) {
    TRACE_PRINT("Entering %s", "run_flash_drives");
    const int rc = run(argc, argv, true, idle);
    TRACE_PRINT("Exiting %s, rc = %d", "run_flash_drives", rc);
    return rc;
}

void init_program(flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    // Each slot of `drives` is cleared when its drive is examined.
    copy_text(program->profile_file, "");
    program->profile = nullptr;
    program->ctrl_list = nullptr;
    program->ctrl_count = 0;
    program->drive_count = 0;
    program->error_count = 0;
    program->param_error = 0;
    program->param_message = 0;
    program->adapter = 0;
    program->adapter_set = 0;
    program->slot = 0;
    program->slot_set = 0;
    copy_text(program->fw_file, "");
    copy_text(program->log_file, "");
    program->log_on = 0;
    program->force = 0;
    program->all = 0;
    program->check = 0;
    program->idle = 0;
    TRACE_PRINT("Exiting %s", __func__);
}

void un_init_program(flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    for (uint32_t i = 0; i < program->drive_count; ++i) {
        program->drives[i] = {};
    }
    program->drive_count = 0;
    std::free(program->profile);
    program->profile = nullptr;
    if (program->log_on != 0) {
        uninit_log();
    }
    TRACE_PRINT("Exiting %s", __func__);
}

void print_error_msg(uint32_t code) {
    TRACE_PRINT("Entering %s", __func__);
    if (static_cast<int>(code) == message_unpaired) {
        std::printf("Bad Command: parameters A and S should be exists at the same time\n");
    } else if (static_cast<int>(code) == message_no_profile) {
        std::printf("Flash Fail: Profile is lost\n");
    }
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
