#include "common/signals.h"

#include <csignal>

namespace mirvok {

namespace {

constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};

sigset_t held;
int first_signal = 0;

void change_stop_signal(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTSTP);
    sigprocmask(how, &set, nullptr);
}

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
    change_stop_signal(SIG_BLOCK);
}

void release_stop_signal() {
    change_stop_signal(SIG_UNBLOCK);
}

}  // namespace mirvok
