// Threads for the time of one piece of work: as many drives are in work at once as --jobs allows.
#pragma once

#include <cstdint>
#include <thread>

namespace mirvok {

constexpr uint32_t max_jobs = 64;

// Drives that may be in work at once; until it is set, and below 2, one after the other.
void set_jobs(uint32_t number);
uint32_t get_jobs();

struct crew {
    std::thread watch;  // over the signals
    std::thread threads[max_jobs];
    uint32_t count;
};

// Starts threads that each call work(context): at most one for each of `tasks`, no more than there may be
// jobs, than descriptors are free, or than the system gives. Returns how many; with none, which is all
// without jobs, the caller does the work itself. Signals are held from then on: watch_signals in
// common/signals.h.
uint32_t start_crew(crew* threads, uint32_t tasks, void (*work)(void* context), void* context);

// Waits until all threads have returned, and lets go of the signals.
void join_crew(crew* threads);

}  // namespace mirvok
