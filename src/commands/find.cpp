#include "commands/find.h"

#include <cstdio>
#include <cstdlib>

#include "commands/banner.h"
#include "commands/json_report.h"
#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/run_lock.h"
#include "common/text.h"
#include "storage/identification.h"
#include "storage/inventory.h"
#include "storage/vendor_checks.h"

namespace mirvok {

namespace {

// Identifies one drive and lists it, unless it cannot be identified or was listed before.
void find_drive(_find_program* program, _pd_info* pd) {
    drive* slot = &program->drives[program->drive_count];
    *slot = {};
    progress_step("identifying");
    if (get_pd_information(pd) == RESULT_IDENTIFY_FAILED) {
        TRACE_PRINT("Get SATA Identify Fail.");
        report_left_out(pd, LEFT_OUT_IDENTIFY_FAILED, nullptr);
        return;
    }
    if (check_serial_number(pd) != 0) {
        TRACE_PRINT("duplicate");
        report_left_out(pd, LEFT_OUT_DUPLICATE, duplicate_of());
        return;
    }
    slot->pd = pd;
    if (lookup_drive(program->profile, slot) == 0) {
        if (pd->size == 0) {
            pd->size = slot->record->size;
        }
        slot->found = 1;
    }
    progress_clear();
    print_drive_info(slot, program->drive_count + 1);
    ++program->drive_count;
}

int find_drives(_find_program* program, _storage_lib* lib) {
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
    for (uint32_t i = 0; i < lib->pd_count; ++i) {
        progress_drive(i + 1, lib->pd_count);
        find_drive(program, &lib->pd_list[i]);
    }
    progress_clear();
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
    _storage_lib lib = {};
    const int load_result = load_profile(program.profile_file, &program.profile);
    report_profile(program.profile_file, load_result,
                   program.profile != nullptr ? program.profile->count : 0);
    int rc = 1;
    if (load_result == 0) {
        lock_drives(false);
        init_storage_lib(&lib);
        rc = find_drives(&program, &lib);
        // Out before the libraries go, which may take the process along.
        write_report(&program, &lib, 0);
        flush_output();
        un_init_storage_lib(&lib);
        unlock_drives();
    } else {
        complain("the profile `%s' cannot be read", program.profile_file);
        write_report(&program, &lib, 0);
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
    int sas = 0;
    int sata = 0;
    int m2 = 0;
    int nvme = 0;
    for (uint16_t i = 0; i < program->drive_count; ++i) {
        const uint32_t protocol = program->drives[i].pd->protocol;
        TRACE_PRINT("drive type:%d", static_cast<int>(protocol));
        sas += protocol == PD_PROTOCOL_SAS ? 1 : 0;
        sata += protocol == PD_PROTOCOL_SATA ? 1 : 0;
        m2 += protocol == PD_PROTOCOL_M2 ? 1 : 0;
        nvme += protocol == PD_PROTOCOL_NVME ? 1 : 0;
    }
    std::printf("\n find %d (SAS:%d SATA:%d M2:%d NVME:%d)\n\n", program->drive_count, sas, sata, m2, nvme);
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
