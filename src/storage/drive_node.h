// The nodes of drives: opened by name into the drive's record for a sequence of commands, and closed after
// it.
#pragma once

#include "storage/drive_paths.h"

namespace mirvok {

// Opens the drive's node; false when that fails. close_node closes it, and ignores a drive without a handle.
bool open_node(_pd_info* pd);
void close_node(_pd_info* pd);

// Runs `sequence`, which returns an int, with the drive's node open. Returns its result, or `unopened`.
template <class Sequence>
int with_open_node(_pd_info* pd, int unopened, Sequence sequence) {
    if (!open_node(pd)) {
        return unopened;
    }
    const int rc = sequence();
    close_node(pd);
    return rc;
}

// The same on paths where commands need the node; elsewhere the sequence runs without.
template <class Sequence>
int with_node(_pd_info* pd, int unopened, Sequence sequence) {
    return path_of(pd->ctrl).has_node ? with_open_node(pd, unopened, sequence) : sequence();
}

}  // namespace mirvok
