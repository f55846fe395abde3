// Signals that would end the run: held back, so that none cuts a firmware download or has a command sent
// twice.
#pragma once

namespace mirvok {

// Holds SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ and SIGXCPU from now on, except those that the
// process ignores.
void hold_signals();

// The first signal that came since hold_signals, 0 when none did. Called between the steps of a download too,
// so that of two signals the first one is known.
int held_signal();

// Between these a signal that would end the run waits: what was switched on must be switched off again.
void begin_unbroken_sequence();
void end_unbroken_sequence();

// Holds SIGTSTP (and SIGTTOU) through a download; released, it has its usual effect.
void hold_stop_signal();
void release_stop_signal();

}  // namespace mirvok
