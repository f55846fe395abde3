#include "common/signals.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iterator>

namespace mirvok {

namespace {

constexpr int synchronous_signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS};
constexpr int harmless_signals[] = {SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGTSTP, SIGTTIN, SIGTTOU};

bool holding = false;      // a download was begun in this run
bool downloading = false;  // everything is held
sigset_t ending;           // what would end the process, and is held from the first download on
sigset_t mask_released;
int first_signal = 0;

sigset_t mask_before_sequence;

template <size_t Count>
bool is_among(const int (&signals)[Count], int number) {
    return std::find(std::begin(signals), std::end(signals), number) != std::end(signals);
}

// A signal with a handler that is not ours, say a library's for its timer, does not end the run.
bool ends_process(int number) {
    struct sigaction action = {};
    if (is_among(harmless_signals, number) || is_among(synchronous_signals, number) ||
        sigaction(number, nullptr, &action) != 0) {
        return false;
    }
    return action.sa_handler == SIG_DFL || (action.sa_handler != SIG_IGN && is_among(ending_signals, number));
}

sigset_t make_set_of_all() {
    sigset_t set;
    sigfillset(&set);
    for (const int number : synchronous_signals) {
        sigdelset(&set, number);
    }
    return set;
}

// Everything but the synchronous signals; KILL and STOP can't be held.
void hold_all(sigset_t* before) {
    static const sigset_t all = make_set_of_all();
    sigprocmask(SIG_BLOCK, &all, before);
}

void choose_ending_signals() {
    sigemptyset(&ending);
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (ends_process(number)) {
            sigaddset(&ending, number);
        }
    }
}

}  // namespace

void hold_signals() {
    // Blocked, not caught: a signal that interrupts SG_IO makes the kernel issue the command again.
    sigset_t before;
    hold_all(&before);
    if (!holding) {
        choose_ending_signals();
        sigorset(&mask_released, &before, &ending);
    }
    holding = true;
    downloading = true;
}

void release_signals() {
    if (downloading) {
        sigprocmask(SIG_SETMASK, &mask_released, nullptr);
        downloading = false;
    }
}

void note_stop_signal() {
    if (downloading) {
        hold_all(nullptr);
    }
    const sigset_t none = {};
    sigset_t pending = none;
    if (!holding || first_signal != 0 || sigpending(&pending) != 0) {
        return;
    }
    sigandset(&pending, &pending, &ending);
    // Between most pieces nothing is; sigisemptyset overlooks real-time signals.
    const bool any = std::memcmp(&pending, &none, sizeof(none)) != 0;
    for (int number = 1; any && number <= SIGRTMAX; ++number) {
        if (sigismember(&pending, number) == 1) {
            first_signal = number;
            return;
        }
    }
}

int held_signal() {
    note_stop_signal();
    return first_signal;
}

void sleep_until_stopped(unsigned int seconds) {
    if (held_signal() == 0) {
        const struct timespec time = {static_cast<time_t>(seconds), 0};
        first_signal = std::max(sigtimedwait(&ending, nullptr, &time), 0);
    }
}

void begin_unbroken_sequence() {
    hold_all(&mask_before_sequence);
}

void end_unbroken_sequence() {
    sigprocmask(SIG_SETMASK, &mask_before_sequence, nullptr);
}

}  // namespace mirvok
