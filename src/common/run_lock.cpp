#include "common/run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "common/diagnostics.h"

namespace mirvok {

namespace {

constexpr char lock_file[] = "/run/mirvok.lock";

int descriptor = -1;

bool is_busy(int operation) {
    return flock(descriptor, operation | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

}  // namespace

void lock_drives(bool exclusive) {
    descriptor = open(lock_file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return;
    }
    // Out of the way: drives keep the numbers that they have without a lock.
    const int high = fcntl(descriptor, F_DUPFD_CLOEXEC, 100);
    if (high >= 0) {
        close(descriptor);
        descriptor = high;
    }
    const int operation = exclusive ? LOCK_EX : LOCK_SH;
    if (!is_busy(operation)) {
        return;
    }
    sleep_wait(1);
    if (is_busy(operation)) {
        complain("another run is at work on the drives, waiting for its end");
        while (flock(descriptor, operation) != 0 && errno == EINTR) {
        }
    }
}

void unlock_drives() {
    if (descriptor >= 0) {
        flock(descriptor, LOCK_UN);  // also where a library's child still has a copy
        close(descriptor);
        descriptor = -1;
    }
}

}  // namespace mirvok
