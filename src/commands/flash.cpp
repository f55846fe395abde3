#include "commands/flash.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commands/banner.h"
#include "commands/flash_report.h"
#include "commands/json_report.h"
#include "commands/run_files.h"
#include "common/diagnostics.h"
#include "common/options.h"
#include "common/progress.h"
#include "common/run_lock.h"
#include "common/signals.h"
#include "common/text.h"
#include "storage/firmware_download.h"
#include "storage/identification.h"
#include "storage/inventory.h"
#include "storage/vendor_checks.h"

namespace mirvok {

namespace {

constexpr char short_options[] = "a:s:b:f:l:hdc";

constexpr uint32_t message_unpaired = 4;
constexpr uint32_t message_no_profile = 5;

// Drives with these identification texts report a level of the series S that counts as series G.
constexpr char series_s_drives[][8] = {"47Q8841", "47Q8842", "47Q8843"};

// Takes an option's decimal number whole, its 32 bits as they are; anything else is refused by name.
int take_number(const char* option_name, int32_t* number) {
    const size_t digits = std::strspn(optarg, "0123456789");
    const unsigned long value = std::strtoul(optarg, nullptr, 10);
    if (digits == 0 || optarg[digits] != '\0' || value > UINT32_MAX) {
        complain("option `%s' takes a decimal number of 32 bits", option_name);
        return FLASH_STATUS_BAD_OPTIONS;
    }
    *number = static_cast<int32_t>(value);
    return 0;
}

// Copies an option's text whole; one that does not fit is refused by name.
template <size_t Capacity>
int take_text(const char* option_name, char (&field)[Capacity]) {
    if (std::strlen(optarg) >= Capacity) {
        complain("option `%s' takes at most %zu characters", option_name, Capacity - 1);
        return FLASH_STATUS_BAD_OPTIONS;
    }
    copy_text(field, optarg);
    return 0;
}

int take_option(int character, flash* program) {
    switch (character) {
        case 'a':
            program->adapter_set = 1;
            return take_number("--adapter", &program->adapter);
        case 's':
            program->slot_set = 1;
            return take_number("--slot", &program->slot);
        case 'b':
            return take_text("--profile", program->profile_file);
        case 'f':
            return take_text("-f", program->fw_file);
        case 'l':
            program->log_on = 1;
            return take_text("--log", program->log_file);
        default:
            return 0;
    }
}

// What stands behind a scan that stopped at a word, as POSIXLY_CORRECT has it, is not read, which is said.
// `global` is the flag of the options that main has read. Returns FLASH_STATUS_BAD_OPTIONS where drives were
// to be selected: all of them are not what was meant.
int look_at_unread(int argc, char** argv, const option* options, int* global) {
    bool unread = false;
    bool selection = false;
    opterr = 0;
    for (int word = optind; word < argc && std::strcmp(argv[word - 1], "--") != 0;
         word = optind > word ? optind : word + 1) {
        optind = word + 1;
        *global = 0;
        for (int character = 0; (character = getopt_long(argc, argv, short_options, options, nullptr)) != -1;
             *global = 0) {
            unread = unread || *global == 0;
            selection = selection || character == 'a' || character == 's';
        }
    }
    opterr = 1;
    if (unread) {
        complain(
            "options behind `%s' are not read, as POSIXLY_CORRECT has it, but for --check, --debug, "
            "--json, --os and --verbose",
            argv[1]);
    }
    return selection ? static_cast<int>(FLASH_STATUS_BAD_OPTIONS) : 0;
}

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

bool is_selected(const flash* program, const _pd_info* pd) {
    return program->adapter_set == 0 || (static_cast<uint32_t>(program->adapter) == pd->ctrl->ctrl_num &&
                                         static_cast<uint32_t>(program->slot) == pd->device_id);
}

uint32_t count_selected(const flash* program, const _storage_lib* lib) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < lib->pd_count; ++i) {
        count += is_selected(program, &lib->pd_list[i]) ? 1 : 0;
    }
    return count;
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
    if (pd->protocol == PD_PROTOCOL_NVME) {
        copy_text(pd->code_level, level);
        return;
    }
    progress_step("verifying");
    _pd_info answer = *pd;
    copy_text(answer.code_level, "");
    get_pd_information(&answer);
    const bool answers = answer.code_level[0] != '\0' && is_same_drive(answer, *pd);
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

// A download that did not begin, since a signal came, is waited for by nobody.
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

// Both halves of a listed drive's line, and its update between them.
void handle_drive(flash* program, drive* slot, bool matched) {
    const int index = static_cast<int>(program->drive_count) + 1;
    slot->check = program->check;
    if (matched && slot->pd->size == 0) {
        slot->pd->size = slot->record->size;
    }
    progress_clear();
    const size_t column = print_drive_info(slot, 0, index);
    flush_output();
    progress_continue(column);
    if (matched) {
        slot->found = 1;
        if (program->force != 0) {
            slot->update = 1;
        } else {
            check_is_update(slot);
        }
    }
    copy_text(slot->level_before, slot->pd->code_level);
    if (slot->update == 1 && program->check != 0) {
        check_drive(slot);
    } else if (slot->update == 1) {
        hold_signals();
        update_drive(slot);
    }
    progress_clear();
    print_drive_info(slot, 1, index);
    flush_output();
    release_signals();
    ++program->drive_count;
}

void flash_drive(flash* program, _pd_info* pd) {
    drive* slot = &program->drives[program->drive_count];
    *slot = {};
    progress_step("identifying");
    if (get_pd_information(pd) == RESULT_IDENTIFY_FAILED) {
        TRACE_PRINT("Get SATA Identify Fail.");
        report_left_out(pd, LEFT_OUT_IDENTIFY_FAILED, nullptr);
        return;
    }
    flush_output();
    if (check_serial_number(pd) != 0) {
        TRACE_PRINT("duplicate");
        report_left_out(pd, LEFT_OUT_DUPLICATE, duplicate_of());
        return;
    }
    slot->pd = pd;
    const bool matched = lookup_drive(program->profile, slot) == 0;
    handle_drive(program, slot, matched);
}

int flash_drives(flash* program, _storage_lib* lib) {
    const uint32_t selected = count_selected(program, lib);
    if (selected == 0) {
        for (uint32_t i = 0; i < lib->pd_count; ++i) {
            report_left_out(&lib->pd_list[i], LEFT_OUT_NOT_SELECTED, nullptr);
        }
        TRACE_PRINT("pd count == 0");
        std::printf("No Physical Disk found\n\n");
        return FLASH_STATUS_NO_DRIVE;
    }
    program->ctrl_list = lib->ctrl_list;
    program->ctrl_count = lib->ctrl_count;
    uint32_t in_work = 0;
    for (uint32_t i = 0; i < lib->pd_count && held_signal() == 0; ++i) {
        _pd_info* pd = &lib->pd_list[i];
        if (is_selected(program, pd)) {
            progress_drive(++in_work, selected);
            flash_drive(program, pd);
        } else {
            TRACE_PRINT("not selected: A:%d S:%d", static_cast<int>(pd->ctrl->ctrl_num), pd->device_id);
            report_left_out(pd, LEFT_OUT_NOT_SELECTED, nullptr);
        }
    }
    const bool due =
        program->check != 0 ? print_check_result(program) != 0 : print_update_result(program) != 0;
    if (held_signal() != 0) {
        return 128 + held_signal();
    }
    if (program->error_count != 0) {
        return FLASH_STATUS_FAILED;
    }
    return due ? FLASH_STATUS_DUE : FLASH_STATUS_OK;
}

int flash_by_profile(flash* program, _storage_lib* lib) {
    const int load_result = load_profile(program->profile_file, &program->profile);
    report_profile(program->profile_file, load_result,
                   program->profile != nullptr ? program->profile->count : 0);
    if (load_result != 0) {
        print_error_msg(message_no_profile);
        return FLASH_STATUS_NO_PROFILE;
    }
    lock_drives(program->check == 0);
    init_storage_lib(lib);
    const int rc = flash_drives(program, lib);
    // Out before the libraries go, which may take the process along.
    write_report(program, lib, rc);
    flush_output();
    un_init_storage_lib(lib);
    unlock_drives();
    return rc;
}

// Opens the log. One that would overwrite what a run needs is refused.
int open_log(const flash* program) {
    if (is_run_file(program->log_file, program->profile_file)) {
        complain("the log `%s' would overwrite a data file or an image", program->log_file);
        return FLASH_STATUS_BAD_OPTIONS;
    }
    if (init_log(program->log_file) == 0) {
        complain("the log `%s' cannot be opened: %s", program->log_file, std::strerror(errno));
    }
    return 0;
}

int run(int argc, char** argv, bool check) {
    mirvok::flash program;
    init_program(&program);
    int rc = parse_command_line(argc, argv, &program);
    program.check = check ? 1 : 0;
    if (program.log_on != 0 && rc == 0) {
        rc = open_log(&program);
    }
    const int message = check_params(&program);
    print_banner("FLASH");
    if (message != 0) {
        print_error_msg(static_cast<uint32_t>(message));
        rc = FLASH_STATUS_BAD_OPTIONS;
    }
    _storage_lib lib = {};
    if (rc == 0) {
        rc = flash_by_profile(&program, &lib);
    }
    write_report(&program, &lib, rc);
    un_init_program(&program);
    return rc;
}

}  // namespace

int run_flash_drives(int argc, char** argv) {
    TRACE_PRINT("Entering %s", __func__);
    const int rc = run(argc, argv, false);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int run_check_drives(int argc, char** argv) {
    TRACE_PRINT("Entering %s", "run_flash_drives");
    const int rc = run(argc, argv, true);
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
    TRACE_PRINT("Exiting %s", __func__);
}

int parse_command_line(int argc, char** argv, flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    // Options that main has read set `global`.
    static int global = 0;
    static int force = 0;
    static int all = 0;
    static const option options[] = {
        {"help", OPTION_NO_ARGUMENT, nullptr, 'h'},       {"usage", OPTION_NO_ARGUMENT, nullptr, 'h'},
        {"debug", OPTION_NO_ARGUMENT, &global, 1},        {"adapter", OPTION_REQUIRED_ARGUMENT, nullptr, 'a'},
        {"slot", OPTION_REQUIRED_ARGUMENT, nullptr, 's'}, {"profile", OPTION_REQUIRED_ARGUMENT, nullptr, 'b'},
        {"force", OPTION_NO_ARGUMENT, &force, 1},         {"all", OPTION_NO_ARGUMENT, &all, 1},
        {"log", OPTION_REQUIRED_ARGUMENT, nullptr, 'l'},  {"os", OPTION_NO_ARGUMENT, &global, 1},
        {"verbose", OPTION_NO_ARGUMENT, &global, 1},      {"check", OPTION_NO_ARGUMENT, &global, 1},
        {"json", OPTION_REQUIRED_ARGUMENT, &global, 1},   {nullptr, OPTION_NO_ARGUMENT, nullptr, 0},
    };
    TRACE_PRINT("debug:%d,force:%d,program->force:%d", global, force, program->force);
    int rc = 0;
    int character = 0;
    while ((character = getopt_long(argc, argv, short_options, options, nullptr)) != -1) {
        TRACE_PRINT("ch=%Xh,optarg=%s\n", static_cast<unsigned int>(character),
                    optarg != nullptr ? optarg : "(null)");
        if (take_option(character, program) != 0) {
            rc = FLASH_STATUS_BAD_OPTIONS;
        }
    }
    program->force = static_cast<uint16_t>(force);
    program->all = static_cast<uint16_t>(all);
    const int unread = look_at_unread(argc, argv, options, &global);
    rc = unread != 0 ? unread : rc;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int check_params(flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    if (program->profile_file[0] == '\0') {
        copy_text(program->profile_file, "flashdrv.bin");
    }
    if (program->adapter_set != program->slot_set) {
        program->param_error = 1;
        program->param_message = message_unpaired;
        rc = message_unpaired;
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
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

void check_is_update(drive* slot) {
    TRACE_PRINT("Entering %s", __func__);
    _pd_info* pd = slot->pd;
    const char* level = slot->record->fw_level;
    slot->update = 0;
    if (pd->ctrl->vendor == VENDOR_AVAGO && !is_updated_state(pd->status)) {
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
        const bool refused =
            slot->result == RESULT_UPDATE_NOT_ALLOWED || slot->result == RESULT_STATE_NOT_SUPPORTED;
        return refused ? OUTCOME_REFUSED : OUTCOME_LATEST;
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

void print_error_msg(uint32_t code) {
    TRACE_PRINT("Entering %s", __func__);
    if (code == message_unpaired) {
        std::printf("Bad Command: parameters A and S should be exists at the same time\n");
    } else if (code == message_no_profile) {
        std::printf("Flash Fail: Profile is lost\n");
    }
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
