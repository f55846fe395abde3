// The walk over the inventory that every operation makes: each drive is selected, identified, dropped when
// that failed or when it was seen before, looked up in the operation's profile, and handed to the operation.
#pragma once

#include <cstdint>

#include "storage/device_model.h"

namespace mirvok {

// Why a drive is not among the listed ones.
enum left_out_t {
    LEFT_OUT_DUPLICATE,
    LEFT_OUT_IDENTIFY_FAILED,
    LEFT_OUT_NOT_IN_PROFILE,
    LEFT_OUT_NOT_SELECTED,
};

struct left_out_drive {
    const _pd_info* pd;
    left_out_t reason;
    const _pd_info* duplicate_of;  // of a duplicate, else null
};

// Filled by the walk; it points into the inventory's tables.
struct left_out_list {
    uint32_t count;
    left_out_drive drives[max_drives];  // so many of them are written
};

void leave_out(left_out_list* list, const _pd_info* pd, left_out_t reason);

// What an operation has of its own. `program` is the run's state record, a slot the record of a listed drive.
struct drive_operation {
    bool keeps_unidentified;  // a drive whose identification failed goes on, with what is known of it
    bool traces_duplicates;
    bool (*is_selected)(const void* program, const _pd_info* pd);  // null: every drive is
    // Gives a listed drive the next slot; null: it is not listed.
    void* (*look_up)(void* program, _pd_info* pd);
    // What else the drive is asked; null: nothing. It touches the drive's own records alone, since it may run
    // in any thread.
    void (*read)(void* slot);
    const char* reading;                      // what that is called
    void (*take)(void* program, void* slot);  // has its turn in the order of the slots
};

uint32_t count_selected(const drive_operation& operation, const void* program, const _storage_lib* lib);

// Walks until the last drive, or until a signal is held that ends the run. With jobs, several drives that
// have nodes of their own are identified and read at once, beside those behind libraries; what is decided and
// printed, and what is sent to each drive, is the same.
void walk_drives(const drive_operation& operation, void* program, const _storage_lib* lib,
                 left_out_list* left_out);

// Locks the machine's drives (exclusive: for downloads) and builds the inventory; flushes standard output,
// which a library may not take along when it goes, and does away with both.
void open_inventory(_storage_lib* lib, bool exclusive);
void close_inventory(_storage_lib* lib);

}  // namespace mirvok
