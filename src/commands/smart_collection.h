// Reads one drive's SMART data by its protocol and along its path, and has them decoded and evaluated.
#pragma once

#include "commands/smart_decoders.h"

namespace mirvok {

// Reads, decodes and evaluates the SMART data of drive->pd into drive->info, by the limits of
// drive->matched_record. Returns 0 when the data were read (a SATA read counts whatever its transfer
// reported) or when the protocol has none, RESULT_NO_HANDLE, or a builder's or transport's result; nothing is
// decoded then.
int get_drive_smart(_smart_drive* drive);

// Asks a SATA drive whether a SMART threshold is exceeded and sets drive->info.pfa_trip. Returns 0,
// RESULT_NO_HANDLE, or a builder's or transport's result.
int get_sata_smart_return_status(_smart_drive* drive);

}  // namespace mirvok
