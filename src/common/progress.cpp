#include "common/progress.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/diagnostics.h"
#include "common/signals.h"

namespace mirvok {

namespace {

constexpr int64_t shortest_interval = 100'000'000;  // nanoseconds between two updates

// Below the line in work: make room without losing the cursor's column, go there, and come back.
constexpr char make_room[] = "\033D\033[A";
constexpr char go_below[] = "\0337\033[B\r";
constexpr char erase_rest[] = "\033[K";
constexpr char come_back[] = "\0338";

// A cursor that waits behind the last column goes where the next character will have it go.
constexpr char take_turn[] = " \b";

constexpr size_t usual_columns = 80;
constexpr size_t fewest_columns = 5;

bool enabled = false;
bool below = false;    // the line in work has begun: the progress stands below it, else in its place
bool visible = false;  // something of ours stands on the terminal
uint32_t drive_number = 0;
uint32_t drive_count = 0;
int64_t last_update = 0;

int64_t now() {
    struct timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

// Columns of the terminal, which may change its size at any time; 0 when it is gone. A terminal that does not
// know its size, as a serial line, tells 0.
size_t columns() {
    struct winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) {
        return 0;
    }
    return size.ws_col != 0 ? size.ws_col : usual_columns;
}

// Returns whether the terminal took the text.
bool write_terminal(const char* text) {
    // A terminal that is stopped, or went away in mid-run, is no reason to wait.
    struct pollfd terminal = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&terminal, 1, 0) != 1 || (terminal.revents & POLLOUT) == 0) {
        return false;
    }
    const size_t length = std::strlen(text);
    return write(STDERR_FILENO, text, length) == static_cast<ssize_t>(length);
}

void show(const char* text) {
    if (!enabled || drive_count == 0) {
        return;
    }
    const int64_t time = now();
    if (time - last_update < shortest_interval) {
        return;
    }
    const size_t width = columns();
    if (width < fewest_columns) {
        return;
    }
    char line[160];
    std::snprintf(line, sizeof(line), "drive %u of %u: %s", drive_number, drive_count, text);
    if (width < sizeof(line)) {
        line[width - 1] = '\0';  // the last column stays free: nothing may wrap
    }
    char output[sizeof(line) + 64];
    if (below) {
        std::snprintf(output, sizeof(output), "%s%s%s%s%s", make_room, go_below, line, erase_rest, come_back);
    } else {
        std::snprintf(output, sizeof(output), "\r%s%s", line, erase_rest);
    }
    write_terminal(output);
    visible = true;
    last_update = time;
}

void wait_with(void (*pass)(unsigned int), unsigned int seconds) {
    if (!enabled) {
        pass(seconds);
        return;
    }
    for (; seconds > 0; --seconds) {
        char text[48];
        std::snprintf(text, sizeof(text), "waiting, %u s left", seconds);
        show(text);
        pass(1);
    }
}

}  // namespace

void init_progress() {
    const char* terminal = std::getenv("TERM");
    enabled = isatty(STDERR_FILENO) == 1 && terminal != nullptr && terminal[0] != '\0' &&
              std::strcmp(terminal, "dumb") != 0 && get_debug() == 0 && get_verbose() == 0;
}

void progress_drive(uint32_t number, uint32_t count) {
    progress_clear();
    drive_number = number;
    drive_count = count;
    below = false;
}

void progress_continue(size_t column) {
    if (!enabled) {
        return;
    }
    below = true;
    const size_t width = columns();
    if (width == 0 || (column % width == 0 && !write_terminal(take_turn))) {
        drive_count = 0;  // the cursor would lose its place: below such a line nothing is shown
    }
}

void progress_step(const char* step) {
    show(step);
}

void progress_sent(uint64_t sent, uint64_t size) {
    if (!enabled || size == 0) {
        return;
    }
    constexpr size_t bar_width = 20;
    char bar[bar_width + 1] = {};
    const size_t filled = static_cast<size_t>(std::min(sent, size) * bar_width / size);
    std::memset(bar, '.', bar_width);
    std::memset(bar, '#', filled);
    char text[96];
    std::snprintf(text, sizeof(text), "sent %llu of %llu KiB [%s]",
                  static_cast<unsigned long long>(sent / 1024),
                  static_cast<unsigned long long>((size + 1023) / 1024), bar);
    show(text);
}

void progress_percentage(uint32_t percentage) {
    char text[32];
    std::snprintf(text, sizeof(text), "sent %u%%", percentage);
    show(text);
}

void progress_attempt(int attempt, int attempts) {
    char text[64];
    std::snprintf(text, sizeof(text), "asking the controller, attempt %d of %d", attempt, attempts);
    show(text);
}

void progress_wait(unsigned int seconds) {
    wait_with(sleep_wait, seconds);
}

void progress_wait_unless_stopped(unsigned int seconds) {
    wait_with(sleep_until_stopped, seconds);
}

void progress_clear() {
    if (!visible) {
        return;
    }
    char output[32];
    if (below) {
        std::snprintf(output, sizeof(output), "%s%s%s", go_below, erase_rest, come_back);
    } else {
        std::snprintf(output, sizeof(output), "\r%s", erase_rest);
    }
    write_terminal(output);
    visible = false;
}

}  // namespace mirvok
