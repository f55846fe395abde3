// Turns at a drive: with jobs, one that has two nodes may be in work through both. What switches its SMART
// operations on and off again, and what would answer otherwise meanwhile, is done in turns.
#pragma once

#include "storage/device_model.h"

namespace mirvok {

struct drive_turn {
    char device_serial[32];
    char product_id[32];
    bool taken;
    bool smart_was_off;  // the last turn switched SMART on, and off again; the turn's holder may say so
};

// Waits for the turn at an identified drive, known by its own serial number and its product. Null, with
// nothing to wait for, without jobs. Drives without a number share the turn of their product. The turn ends
// with end_turn.
drive_turn* begin_turn(const _pd_info* pd);
void end_turn(drive_turn* turn);

}  // namespace mirvok
