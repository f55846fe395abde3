#include "common/signals.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace mirvok;

namespace {

// How a process ends that runs `body`: 128 and the number of a signal, or the body's result.
template <typename Body>
int end_of(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

TEST(Signals, EndTheRunOnceADownloadBeganAndNotBefore) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU, SIGALRM, SIGUSR1,
                             SIGUSR2, SIGVTALRM, SIGPROF, SIGIO, SIGPWR, SIGRTMIN, SIGRTMAX}) {
        const auto run = [&] {
            hold_signals();
            raise(number);
            note_stop_signal();
            raise(SIGINT);  // the first one counts
            release_signals();
            return held_signal();
        };
        EXPECT_EQ(end_of([&] { return held_signal() != 0 ? 1 : raise(number); }), 128 + number);
        EXPECT_EQ(end_of(run), number);
        EXPECT_EQ(end_of([&] {
                      std::signal(number, SIG_IGN);
                      return run();
                  }),
                  number == SIGINT ? 0 : SIGINT);
    }
}

TEST(Signals, ThatEndNothingWaitForTheLine) {
    static volatile sig_atomic_t handled = 0;
    const auto count = [](int /*number*/) { handled = handled + 1; };
    for (const int number : {SIGALRM, SIGCHLD, SIGTTIN, SIGCONT}) {
        EXPECT_EQ(end_of([&] {
                      std::signal(number, count);
                      hold_signals();
                      raise(number);
                      const bool waits = handled == 0 && held_signal() == 0;
                      release_signals();
                      return waits && handled == 1 && held_signal() == 0 ? 0 : 1;
                  }),
                  0);
    }
    EXPECT_EQ(end_of([] {
                  hold_signals();
                  std::signal(SIGSEGV, SIG_DFL);  // a sanitizer handles it
                  return raise(SIGSEGV);
              }),
              128 + SIGSEGV);
}

}  // namespace
