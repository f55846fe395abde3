#include "common/signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iterator>
#include <mutex>

namespace mirvok {

bool watching = false;

namespace {

constexpr int synchronous_signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS};
constexpr int harmless_signals[] = {SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGTSTP, SIGTTIN, SIGTTOU};

bool holding = false;      // a download was begun in this run
bool downloading = false;  // everything is held
sigset_t ending;           // what would end the process, and is held from the first download on
sigset_t mask_released;
int first_signal = 0;

thread_local sigset_t mask_before_sequence;
thread_local bool in_sequence = false;

// The watch of threads: what is constant while they run, and what is not.
sigset_t mask_before_watch;
int arrivals = -1;   // readable while a signal that ends the process is pending
int dismissal = -1;  // readable once the watch is over
std::atomic<bool> stopping = false;
std::mutex sequence_lock;
std::condition_variable sequence_ended;
uint32_t sequences = 0;  // under way, in all threads

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

void choose_ending_signals() {
    sigemptyset(&ending);
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (ends_process(number)) {
            sigaddset(&ending, number);
        }
    }
}

// The lowest of the signals that are held, wait for this thread or the process, and end it; 0 when none does.
int pending_signal() {
    const sigset_t none = {};
    sigset_t pending = none;
    if (sigpending(&pending) != 0) {
        return 0;
    }
    sigandset(&pending, &pending, &ending);
    // Between most commands nothing is; sigisemptyset overlooks real-time signals.
    const bool any = std::memcmp(&pending, &none, sizeof(none)) != 0;
    for (int number = 1; any && number <= SIGRTMAX; ++number) {
        if (sigismember(&pending, number) == 1) {
            return number;
        }
    }
    return 0;
}

// Ends the process by the signal that came, once no thread is in an unbroken sequence. A thread whose signal
// it is not waits for that one's end.
[[noreturn]] void end_by_signal() {
    {
        std::unique_lock held(sequence_lock);
        stopping = true;
        sequence_ended.wait(held, [] { return sequences == 0; });
        const int number = pending_signal();
        pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
        if (number != 0) {  // a handler of a library's has come back
            std::signal(number, SIG_DFL);
            std::raise(number);
        }
    }
    while (true) {
        pause();
    }
}

}  // namespace

void hold_all_signals(sigset_t* before) {
    static const sigset_t all = make_set_of_all();
    pthread_sigmask(SIG_BLOCK, &all, before);
}

void hold_signals() {
    // Blocked, not caught: a signal that interrupts SG_IO makes the kernel issue the command again.
    sigset_t before;
    hold_all_signals(&before);
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
        hold_all_signals(nullptr);
    }
    if (holding && first_signal == 0) {
        first_signal = pending_signal();
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
    if (watching) {
        end_at_signal();
        std::unique_lock held(sequence_lock);
        if (stopping) {
            held.unlock();
            end_by_signal();
        }
        ++sequences;
        in_sequence = true;
    }
    hold_all_signals(&mask_before_sequence);
}

void end_unbroken_sequence() {
    pthread_sigmask(SIG_SETMASK, &mask_before_sequence, nullptr);
    if (watching) {
        const std::lock_guard held(sequence_lock);
        --sequences;
        in_sequence = false;
        sequence_ended.notify_all();
    }
}

bool begin_watch() {
    choose_ending_signals();
    pthread_sigmask(SIG_BLOCK, nullptr, &mask_before_watch);
    // What was held before stays held; a stop of the process would meet drives in the middle of a sequence.
    sigset_t held = ending;
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (sigismember(&mask_before_watch, number) == 1) {
            sigdelset(&ending, number);
        }
    }
    for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU}) {
        sigaddset(&held, number);
    }
    arrivals = signalfd(-1, &ending, SFD_CLOEXEC);
    dismissal = eventfd(0, EFD_CLOEXEC);
    pthread_sigmask(SIG_BLOCK, &held, nullptr);
    watching = true;
    if (arrivals >= 0 && dismissal >= 0) {
        return true;
    }
    end_watch();
    return false;
}

void watch_signals(void* /*nothing*/) {
    struct pollfd events[] = {{arrivals, POLLIN, 0}, {dismissal, POLLIN, 0}};
    while (events[1].revents == 0) {
        poll(events, std::size(events), -1);
        end_at_signal();
    }
}

void dismiss_watch() {
    const uint64_t once = 1;
    (void)!write(dismissal, &once, sizeof(once));
}

void end_watch() {
    for (const int descriptor : {arrivals, dismissal}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
    watching = false;
    pthread_sigmask(SIG_SETMASK, &mask_before_watch, nullptr);
}

void end_at_pending_signal() {
    if (in_sequence) {
        return;
    }
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);  // whatever a library did to the mask
    if (stopping || pending_signal() != 0) {
        end_by_signal();
    }
}

}  // namespace mirvok
