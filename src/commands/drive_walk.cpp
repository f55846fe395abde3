#include "commands/drive_walk.h"

#include "commands/drive_match.h"
#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/run_lock.h"
#include "common/signals.h"
#include "storage/identification.h"
#include "storage/inventory.h"
#include "storage/vendor_checks.h"

namespace mirvok {

namespace {

bool is_selected(const drive_operation& operation, const void* program, const _pd_info* pd) {
    return operation.is_selected == nullptr || operation.is_selected(program, pd);
}

void leave_out_unselected(left_out_list* left_out, const _pd_info* pd) {
    TRACE_PRINT("not selected: A:%d S:%d", static_cast<int>(pd->ctrl->ctrl_num), pd->device_id);
    leave_out(left_out, pd, LEFT_OUT_NOT_SELECTED);
}

// What an identified drive becomes. `result` is its identification's; the drives come in the table's order.
void admit(const drive_operation& operation, void* program, _pd_info* pd, int result,
           left_out_list* left_out) {
    if (result == RESULT_IDENTIFY_FAILED && !operation.keeps_unidentified) {
        TRACE_PRINT("Get SATA Identify Fail.");
        leave_out(left_out, pd, LEFT_OUT_IDENTIFY_FAILED);
        return;
    }
    if (check_serial_number(pd) != 0) {
        if (operation.traces_duplicates) {
            TRACE_PRINT("duplicate");
        }
        leave_out(left_out, pd, LEFT_OUT_DUPLICATE);
        return;
    }
    if (!is_meant(pd)) {
        leave_out_unselected(left_out, pd);
        return;
    }
    if (!operation.look_up(program, pd)) {
        leave_out(left_out, pd, LEFT_OUT_NOT_IN_PROFILE);
        return;
    }
    operation.take(program, pd);
}

}  // namespace

void leave_out(left_out_list* list, const _pd_info* pd, left_out_t reason) {
    list->drives[list->count] = {pd, reason, reason == LEFT_OUT_DUPLICATE ? duplicate_of() : nullptr};
    ++list->count;
}

uint32_t count_selected(const drive_operation& operation, const void* program, const _storage_lib* lib) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < lib->pd_count; ++i) {
        count += is_selected(operation, program, &lib->pd_list[i]) ? 1 : 0;
    }
    return count;
}

void walk_drives(const drive_operation& operation, void* program, const _storage_lib* lib,
                 left_out_list* left_out) {
    const uint32_t selected = count_selected(operation, program, lib);
    uint32_t in_work = 0;
    for (uint32_t i = 0; i < lib->pd_count && held_signal() == 0; ++i) {
        _pd_info* pd = &lib->pd_list[i];
        if (!is_selected(operation, program, pd)) {
            leave_out_unselected(left_out, pd);
            continue;
        }
        progress_drive(++in_work, selected);
        progress_step("identifying");
        const int result = get_pd_information(pd);
        admit(operation, program, pd, result, left_out);
    }
    progress_clear();
}

void open_inventory(_storage_lib* lib, bool exclusive) {
    lock_drives(exclusive);
    init_storage_lib(lib);
}

void close_inventory(_storage_lib* lib) {
    flush_output();
    un_init_storage_lib(lib);
    unlock_drives();
}

}  // namespace mirvok
