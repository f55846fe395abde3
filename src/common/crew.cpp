#include "common/crew.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <exception>

#include "common/signals.h"

namespace mirvok {

namespace {

uint32_t jobs = 1;

// Left to the libraries, to images and users of a drive that are looked at, and to the watch over signals.
constexpr uint32_t spare_descriptors = 12;

// How many of `wanted` jobs can have a drive's node open at once.
uint32_t limit_to_descriptors(uint32_t wanted) {
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    uint32_t free = 0;
    for (rlim_t i = 0; i < limit.rlim_cur && free < wanted + spare_descriptors; ++i) {
        free += fcntl(static_cast<int>(i), F_GETFD) < 0 ? 1 : 0;
    }
    return free > spare_descriptors ? free - spare_descriptors : 0;
}

// Whether the system gives another thread.
bool start_thread(std::thread* thread, void (*work)(void*), void* context) {
    try {
        *thread = std::thread(work, context);
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

}  // namespace

void set_jobs(uint32_t number) {
    jobs = number;
}

uint32_t get_jobs() {
    return jobs;
}

uint32_t start_crew(crew* threads, uint32_t tasks, void (*work)(void* context), void* context) {
    threads->count = 0;
    if (jobs < 2 || tasks == 0) {
        return 0;
    }
    const uint32_t wanted = limit_to_descriptors(std::min(jobs, tasks));
    if (wanted == 0 || !begin_watch()) {
        return 0;
    }
    sigset_t before;
    hold_all_signals(&before);  // the threads inherit the mask
    const bool watched = start_thread(&threads->watch, watch_signals, nullptr);
    while (watched && threads->count < wanted &&
           start_thread(&threads->threads[threads->count], work, context)) {
        ++threads->count;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (watched && threads->count == 0) {
        join_crew(threads);
    } else if (!watched) {
        end_watch();
    }
    return threads->count;
}

void join_crew(crew* threads) {
    for (uint32_t i = 0; i < threads->count; ++i) {
        threads->threads[i].join();
    }
    dismiss_watch();
    threads->watch.join();
    end_watch();
}

}  // namespace mirvok
