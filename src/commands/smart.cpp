#include "commands/smart.h"

#include <cstdio>
#include <cstdlib>

#include "commands/json_report.h"
#include "commands/smart_collection.h"
#include "commands/smart_report.h"
#include "common/diagnostics.h"
#include "common/options.h"
#include "common/progress.h"
#include "common/run_lock.h"
#include "common/text.h"
#include "storage/identification.h"
#include "storage/inventory.h"
#include "storage/vendor_checks.h"

namespace mirvok {

namespace {

enum exit_status_t : int {
    STATUS_OK = 0,
    STATUS_NO_PROFILE = 2,
    STATUS_NO_CONTROLLER = 4,
    STATUS_NO_DRIVE = 5,
};

// Values of the options that have no letter.
enum long_option_t : int { OPTION_DEBUG = 0x100, OPTION_ALL, OPTION_OS, OPTION_JSON };

constexpr char short_options[] = "p:v:h";
constexpr option long_options[] = {
    {"profile", OPTION_REQUIRED_ARGUMENT, nullptr, 'p'},
    {"verbose", OPTION_REQUIRED_ARGUMENT, nullptr, 'v'},
    {"help", OPTION_NO_ARGUMENT, nullptr, 'h'},
    {"usage", OPTION_NO_ARGUMENT, nullptr, 'h'},
    {"debug", OPTION_NO_ARGUMENT, nullptr, OPTION_DEBUG},
    {"all", OPTION_NO_ARGUMENT, nullptr, OPTION_ALL},
    {"os", OPTION_NO_ARGUMENT, nullptr, OPTION_OS},
    {"json", OPTION_REQUIRED_ARGUMENT, nullptr, OPTION_JSON},
    {nullptr, 0, nullptr, 0},
};

void print_smart_banner() {
    std::printf("\nTALVEX -- %s\t\t\t\tv:7.4.4[Mon Jul 30 14:18:10 2018]\n", "Display SMART Info");
    for (int i = 0; i < 73; ++i) {
        std::printf("-");
    }
    std::printf("\n");
}

void take_option(int character, _smart_program* program) {
    switch (character) {
        case 'p':
            program->profile_path = optarg;
            break;
        case 'v':
            program->verbose_level = static_cast<uint32_t>(std::strtol(optarg, nullptr, 10));
            break;
        case OPTION_ALL:
            program->all_flag = 1;
            break;
        default:
            break;
    }
}

// Finds the drive's profile record: by part number, by 8S part number, and, for the maker's own drives, by
// product identification. A drive found in one of the latter two ways takes the record's part number. Returns
// 0 when found.
int find_drive_record(_smart_program* program, _smart_drive* drive) {
    _pd_info* pd = drive->pd;
    _smart_profile* profile = &program->profile;
    drive->match = MATCH_PART_NUMBER;
    int rc = find_profile(pd->part_number, profile, &drive->matched_record, 0);
    if (rc == 0) {
        return 0;
    }
    drive->match = MATCH_PART_NUMBER_8S;
    rc = find_profile(pd->part_number_8s, profile, &drive->matched_record, 0);
    if (rc != 0 && is_veltra_disk(pd) == 0) {
        drive->match = MATCH_PRODUCT_ID;
        rc = find_profile(pd->product_id, profile, &drive->matched_record, 1);
    }
    if (rc == 0) {
        copy_text(pd->part_number, drive->matched_record->part_number);
    }
    return rc;
}

void count_drive(_smart_program* program, uint32_t protocol) {
    if (protocol == PD_PROTOCOL_SAS) {
        ++program->sas_count;
    } else if (is_sata_family(protocol)) {
        ++program->sata_count;
    } else if (protocol == PD_PROTOCOL_NVME) {
        ++program->nvme_count;
    }
    ++program->total_count;
}

void report_drive(_smart_program* program, _pd_info* pd) {
    _smart_drive* drive = &program->drives[program->total_count];
    *drive = {};
    drive->pd = pd;
    progress_step("identifying");
    get_pd_information(pd);
    if (check_serial_number(pd) != 0) {
        report_left_out(pd, LEFT_OUT_DUPLICATE, duplicate_of());
        return;
    }
    if (find_drive_record(program, drive) != 0) {
        report_left_out(pd, LEFT_OUT_NOT_IN_PROFILE, nullptr);
        return;
    }
    progress_step("reading SMART data");
    get_drive_smart(drive);
    progress_clear();
    count_drive(program, pd->protocol);
    print_smart_info(drive, program->total_count);
}

int report_inventory(_smart_program* program, const _storage_lib& lib) {
    if (lib.ctrl_count == 0) {
        TRACE_PRINT("ctrl count == 0");
        return STATUS_NO_CONTROLLER;
    }
    if (lib.pd_count == 0) {
        TRACE_PRINT("pd count == 0");
        return STATUS_NO_DRIVE;
    }
    TRACE_PRINT("pd count:%u", lib.pd_count);
    for (uint32_t i = 0; i < lib.pd_count; ++i) {
        progress_drive(i + 1, lib.pd_count);
        report_drive(program, &lib.pd_list[i]);
    }
    progress_clear();
    print_smart_result(program);
    return STATUS_OK;
}

}  // namespace

void init_program(_smart_program* program) {
    TRACE_PRINT("Entering %s", __func__);
    program->profile_path = "talvex.bin";
    program->total_count = 0;
    program->sas_count = 0;
    program->sata_count = 0;
    program->nvme_count = 0;
    program->all_flag = 0;
    program->verbose_level = 0;
    TRACE_PRINT("Exiting %s", __func__);
}

int parse_command_line(int argc, char** argv, _smart_program* program) {
    TRACE_PRINT("Entering %s", __func__);
    int character = 0;
    while ((character = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
        TRACE_PRINT("ch=%Xh,optarg=%s\n", static_cast<unsigned int>(character),
                    optarg != nullptr ? optarg : "(null)");
        take_option(character, program);
    }
    if (get_verbose() > 2) {
        TRACE_PRINT("profile bin:%s", program->profile_path);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

int check_params([[maybe_unused]] _smart_program* program) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

int load_profiles(_smart_program* program) {
    return load_profiles(program->profile_path, &program->profile);
}

void print_smart_result(const _smart_program* program) {
    TRACE_PRINT("Entering %s", __func__);
    std::printf("\n    %d Device(s) Found(SATA:%d  SAS:%d  NVME:%d)\n", program->total_count,
                program->sata_count, program->sas_count, program->nvme_count);
    TRACE_PRINT("Exiting %s", __func__);
}

int run_smart_drives(int argc, char** argv) {
    TRACE_PRINT("Entering %s", __func__);
    print_smart_banner();
    _storage_lib lib = {};
    _smart_program program;
    init_program(&program);
    parse_command_line(argc, argv, &program);
    check_params(&program);
    int rc = STATUS_NO_PROFILE;
    const int load_result = load_profiles(&program);
    report_profile(program.profile_path, load_result, load_result == 0 ? program.profile.count : 0);
    if (load_result == 0) {
        lock_drives(false);
        init_storage_lib(&lib);
        rc = report_inventory(&program, lib);
        // Out before the libraries go, which may take the process along.
        write_report(&program, &lib, rc);
        flush_output();
        un_init_storage_lib(&lib);
        unlock_drives();
    } else {
        write_report(&program, &lib, rc);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
