// One download at a time on a machine: two runs must not send to one drive, nor one ask it between the pieces
// of another's image.
#pragma once

namespace mirvok {

// Locks the machine's drives, `exclusive` for a run that may download. While another run is in the way it
// waits, which a line on standard error says after a second. Where no lock can be had the run goes on
// without: there is no /run, or the user may not write there.
void lock_drives(bool exclusive);
void unlock_drives();

}  // namespace mirvok
