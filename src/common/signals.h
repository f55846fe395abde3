// Signals, downloads and threads: from the first download of a run on, none ends the run before the drive's
// line is printed, and none has a command sent twice.
#pragma once

#include <csignal>

namespace mirvok {

// The signals upon which the report's temporary file is removed.
constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU};

// Blocks in this thread every signal that can be held but the synchronous ones; `before`, unless it is null,
// receives the mask.
void hold_all_signals(sigset_t* before);

// Before a download: holds every signal that can be held but the synchronous ones. What the process ignores
// stays ignored. From the first call on, the signals that would end the process stay held.
void hold_signals();

// After the drive's line: what was held and does not end the process, as SIGTSTP, has its usual effect again.
void release_signals();

// Between two pieces of a download: notes the first signal that came, so that of two it is known, and holds
// them all again, whatever a library did to the mask meanwhile.
void note_stop_signal();

// The first signal that came since the first download began and ends the run, 0 when none did. Notes it too.
int held_signal();

// Sleeps whole seconds, or until a signal is held that ends the run.
void sleep_until_stopped(unsigned int seconds);

// Signals wait between these two calls: what was switched on must be switched off again, and the threads that
// a library starts meanwhile inherit the mask, so that none of them takes a signal of the program's.
void begin_unbroken_sequence();
void end_unbroken_sequence();

// While several threads are at work, the signals that would end the process wait for the unbroken sequences
// of all of them. begin_watch blocks them, and returns false where it cannot; the threads have all signals
// blocked. One more thread calls watch_signals, which returns after dismiss_watch; end_watch follows when all
// are gone.
bool begin_watch();
void watch_signals(void* nothing);
void dismiss_watch();
void end_watch();

extern bool watching;  // between begin_watch and end_watch
void end_at_pending_signal();

// Before each command: ends the process by the signal that came since begin_watch, when no sequence is under
// way any more. Within a sequence, and without a watch, it does nothing.
inline void end_at_signal() {
    if (watching) {
        end_at_pending_signal();
    }
}

}  // namespace mirvok
