#include "commands/find.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "commands/banner.h"
#include "commands/drive_match.h"
#include "commands/drive_walk.h"
#include "commands/json_report.h"
#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/text.h"

namespace mirvok {

namespace {

void* look_up(void* run, _pd_info* pd) {
    auto* program = static_cast<_find_program*>(run);
    drive* slot = &program->drives[program->drive_count++];
    *slot = {};
    slot->pd = pd;
    slot->found = lookup_drive(program->profile, slot) == 0 ? 1 : 0;
    return slot;
}

void take(void* run, void* listed) {
    const auto* program = static_cast<_find_program*>(run);
    auto* slot = static_cast<drive*>(listed);
    if (slot->found == 1 && slot->pd->size == 0) {
        slot->pd->size = slot->record->size;
    }
    progress_clear();
    print_drive_info(slot, static_cast<int>(slot - program->drives) + 1);
}

constexpr drive_operation operation = {false, true, nullptr, look_up, nullptr, nullptr, take};

int find_drives(_find_program* program, const _storage_lib* lib, left_out_list* left_out) {
    if (lib->ctrl_count == 0) {
        TRACE_PRINT("ctrl count == 0");
        return 2;
    }
    if (lib->pd_count == 0) {
        TRACE_PRINT("pd count == 0");
        return 3;
    }
    TRACE_PRINT("storagelib ctrl_count:%d, pd_count:%d", static_cast<int>(lib->ctrl_count),
                static_cast<int>(lib->pd_count));
    walk_drives(operation, program, lib, left_out);
    TRACE_PRINT("drive count:%d", program->drive_count);
    dump_find_result(program);
    return 0;
}

}  // namespace

int run_find_drives(int argc, char** argv) {
    TRACE_PRINT("Entering %s", __func__);
    print_banner("FIND");
    _find_program program;
    init_program(&program);
    parse_command_line(argc, argv, &program);
    check_params(&program);
    run_record record;
    begin_record(&record);
    _storage_lib lib = {};
    const bool read = matches_are_read();
    const bool loaded = read && load_profile(program.profile_file, &program.profile) == 0;
    if (read) {
        note_profile(&record, program.profile_file, loaded,
                     program.profile != nullptr ? program.profile->count : 0);
    }
    int rc = 1;
    if (loaded) {
        open_inventory(&lib, false);
        rc = find_drives(&program, &lib, &record.left_out);
        complain_of_no_match();
    } else if (read) {
        complain("the profile `%s' cannot be read", program.profile_file);
    }
    write_report(&program, &lib, record, 0);
    if (loaded) {
        close_inventory(&lib);
    }
    std::free(program.profile);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

void init_program(_find_program* program) {
    TRACE_PRINT("Entering %s", __func__);
    // Each slot of `drives` is cleared when its drive is examined.
    program->profile = nullptr;
    copy_text(program->profile_file, "");
    program->drive_count = 0;
    TRACE_PRINT("Exiting %s", __func__);
}

int parse_command_line(int /*argc*/, char** /*argv*/, _find_program* /*program*/) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

int check_params(_find_program* program) {
    TRACE_PRINT("Entering %s", __func__);
    if (program->profile_file[0] == '\0') {
        copy_text(program->profile_file, "flashdrv.bin");
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

void print_drive_info(drive* slot, int index) {
    TRACE_PRINT("Entering %s", __func__);
    const _pd_info* pd = slot->pd;
    print_texts("%2d A:%d S:%2d PN:%s:%s-%s SNo:%s FW:%s size:%dGB S:%d", index,
                static_cast<int>(pd->ctrl->ctrl_num), pd->device_id, pd->part_number, pd->dummy, pd->fru,
                pd->serial_number, pd->code_level, pd->size, pd->status);
    if (slot->record != nullptr) {
        std::printf(" T:%d", static_cast<int>(slot->record->type));
    } else {
        std::printf(" NS");
    }
    std::printf("\n");
    TRACE_PRINT("Exiting %s", __func__);
}

void dump_find_result(_find_program* program) {
    TRACE_PRINT("Entering %s", __func__);
    int counts[PD_PROTOCOL_OTHER + 1] = {};
    for (uint16_t i = 0; i < program->drive_count; ++i) {
        const uint32_t protocol = program->drives[i].pd->protocol;
        TRACE_PRINT("drive type:%d", static_cast<int>(protocol));
        ++counts[std::min<uint32_t>(protocol, PD_PROTOCOL_OTHER)];
    }
    std::printf("\n find %d (SAS:%d SATA:%d M2:%d NVME:%d)\n\n", program->drive_count,
                counts[PD_PROTOCOL_SAS], counts[PD_PROTOCOL_SATA], counts[PD_PROTOCOL_M2],
                counts[PD_PROTOCOL_NVME]);
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
