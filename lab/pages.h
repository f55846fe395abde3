// What a drive says of itself, made from its description: INQUIRY and vital product data, IDENTIFY DEVICE and
// SMART data, log pages, the NVMe data structures.
#pragma once

#include <string>

#include "machine.h"

namespace mirvok::lab {

// The page of a name, with the description's "bytes" laid over it; empty when the drive has no such page or
// its description refuses it. `length` is what was asked for (the size of the NVMe log pages).
//   SCSI  inquiry c4 capacity10 capacity16 log34
//   ATA   identify b0 smart-data
//   NVMe  controller namespace log02 log03 logE0
bytes page_of(const drive& d, const std::string& name, size_t length);

// Whether the description's "refuses" lists the command.
bool refuses(const drive& d, const std::string& command);

}  // namespace mirvok::lab
