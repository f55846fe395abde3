// Signals that would end the run: held back, so that none cuts a firmware download or has a command sent
// twice.
#pragma once

namespace mirvok {

// Holds SIGINT, SIGTERM, SIGHUP, SIGQUIT and SIGPIPE from now on, except those that the process ignores.
void hold_signals();

// The first signal that came since hold_signals, 0 when none did. Called between the steps of a download too,
// so that of two signals the first one is known.
int held_signal();

// Holds SIGTSTP through a download; released, it has its usual effect.
void hold_stop_signal();
void release_stop_signal();

}  // namespace mirvok
