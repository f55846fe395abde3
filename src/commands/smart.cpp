#include "commands/smart.h"

#include <cstdio>
#include <cstdlib>

#include "commands/drive_match.h"
#include "commands/drive_walk.h"
#include "commands/json_report.h"
#include "commands/smart_collection.h"
#include "commands/smart_report.h"
#include "common/diagnostics.h"
#include "common/options.h"
#include "common/progress.h"

namespace mirvok {

namespace {

enum exit_status_t : int {
    STATUS_OK = 0,
    STATUS_NO_PROFILE = 2,
    STATUS_NO_CONTROLLER = 4,
    STATUS_BAD_MATCH = 4,
    STATUS_NO_DRIVE = 5,
};

// Values of the options that have no letter.
enum long_option_t : int {
    OPTION_DEBUG = 0x100,
    OPTION_ALL,
    OPTION_OS,
    OPTION_JSON,
    OPTION_JOBS,
    OPTION_MATCH
};

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
    {"match", OPTION_REQUIRED_ARGUMENT, nullptr, OPTION_MATCH},
    {"j", OPTION_REQUIRED_ARGUMENT, nullptr, OPTION_JSON},  // not ambiguous
    {"jobs", OPTION_REQUIRED_ARGUMENT, nullptr, OPTION_JOBS},
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

void count_drive(_smart_program* program, uint32_t protocol) {
    switch (drive_kind(protocol)) {
        case DRIVE_SAS:
            ++program->sas_count;
            break;
        case DRIVE_SATA:
            ++program->sata_count;
            break;
        case DRIVE_NVME:
            ++program->nvme_count;
            break;
        default:
            break;
    }
    ++program->total_count;
}

void* look_up(void* run, _pd_info* pd) {
    auto* program = static_cast<_smart_program*>(run);
    _smart_drive* drive = &program->drives[program->total_count];
    *drive = {};
    drive->pd = pd;
    drive->match = find_drive(pd, &drive->matched_record,
                              [program](const char* key, _smart_profile_record** record, uint16_t by_pid) {
                                  return find_profile(key, &program->profile, record, by_pid);
                              });
    if (drive->match == MATCH_NONE) {
        return nullptr;
    }
    count_drive(program, pd->protocol);
    return drive;
}

void read(void* slot) {
    get_drive_smart(static_cast<_smart_drive*>(slot));
}

void take(void* run, void* slot) {
    const auto* program = static_cast<_smart_program*>(run);
    const auto* drive = static_cast<_smart_drive*>(slot);
    progress_clear();
    print_smart_info(drive, static_cast<uint16_t>(drive - program->drives + 1));
}

constexpr drive_operation operation = {true, false, nullptr, look_up, read, "reading SMART data", take};

int report_inventory(_smart_program* program, const _storage_lib& lib, left_out_list* left_out) {
    if (lib.ctrl_count == 0) {
        TRACE_PRINT("ctrl count == 0");
        return STATUS_NO_CONTROLLER;
    }
    if (lib.pd_count == 0) {
        TRACE_PRINT("pd count == 0");
        return complain_of_no_match() ? STATUS_BAD_MATCH : STATUS_NO_DRIVE;
    }
    TRACE_PRINT("pd count:%u", lib.pd_count);
    walk_drives(operation, program, &lib, left_out);
    print_smart_result(program);
    return complain_of_no_match() ? STATUS_BAD_MATCH : STATUS_OK;
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
    run_record record;
    begin_record(&record);
    const bool read = matches_are_read();
    bool loaded = false;
    if (read) {
        parse_command_line(argc, argv, &program);
        check_params(&program);
        loaded = load_profiles(&program) == 0;
        note_profile(&record, program.profile_path, loaded, loaded ? program.profile.count : 0);
    }
    int rc = read ? STATUS_NO_PROFILE : STATUS_BAD_MATCH;
    if (loaded) {
        open_inventory(&lib, false);
        rc = report_inventory(&program, lib, &record.left_out);
    }
    write_report(&program, &lib, record, rc);
    if (loaded) {
        close_inventory(&lib);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
