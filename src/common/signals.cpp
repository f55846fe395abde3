#include "common/signals.h"

#include <csignal>

namespace mirvok {

namespace {

constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU};

sigset_t held;
int first_signal = 0;

sigset_t mask_before_stop;
sigset_t mask_before_sequence;
bool stop_held = false;

}  // namespace

void hold_signals() {
    // Blocked, not caught: a signal that interrupts SG_IO makes the kernel issue the command again.
    sigemptyset(&held);
    for (const int number : ending_signals) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&held, number);
        }
    }
    sigprocmask(SIG_BLOCK, &held, nullptr);
}

int held_signal() {
    sigset_t pending;
    if (first_signal == 0 && sigpending(&pending) == 0) {
        for (const int number : ending_signals) {
            if (sigismember(&held, number) == 1 && sigismember(&pending, number) == 1) {
                first_signal = number;
                break;
            }
        }
    }
    return first_signal;
}

void hold_stop_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTSTP);
    sigaddset(&set, SIGTTOU);
    sigprocmask(SIG_BLOCK, &set, &mask_before_stop);
    stop_held = true;
}

void release_stop_signal() {
    if (stop_held) {
        sigprocmask(SIG_SETMASK, &mask_before_stop, nullptr);
        stop_held = false;
    }
}

void begin_unbroken_sequence() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : ending_signals) {
        sigaddset(&set, number);
    }
    sigprocmask(SIG_BLOCK, &set, &mask_before_sequence);
}

void end_unbroken_sequence() {
    sigprocmask(SIG_SETMASK, &mask_before_sequence, nullptr);
}

}  // namespace mirvok
