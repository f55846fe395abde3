#include "commands/report_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "commands/run_files.h"
#include "common/diagnostics.h"
#include "common/signals.h"

namespace mirvok {

namespace {

// Room set aside before the run begins: enough for the report of some hundred drives.
constexpr off_t room = 0x40000;
constexpr char suffix[] = ".XXXXXX";

char final_path[PATH_MAX];
char temporary_path[PATH_MAX + sizeof(suffix)];
std::FILE* file = nullptr;

void remove_and_end(int number) {
    unlink(temporary_path);
    std::signal(number, SIG_DFL);
    std::raise(number);
}

void clean_up_at_signals() {
    for (const int number : ending_signals) {
        if (std::signal(number, remove_and_end) == SIG_IGN) {
            std::signal(number, SIG_IGN);
        }
    }
}

mode_t mode_for_new_files() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// An existing file must be one that could be written, though it is replaced; its mode is kept.
int check_place(const char* path, mode_t* mode) {
    struct stat status = {};
    *mode = mode_for_new_files();
    if (stat(path, &status) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    *mode = status.st_mode & 0777;
    if (S_ISDIR(status.st_mode)) {
        return EISDIR;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    return access(path, W_OK) != 0 ? errno : 0;
}

int open_temporary(mode_t mode) {
    const int descriptor = mkstemp(temporary_path);
    if (descriptor < 0) {
        return errno;
    }
    fchmod(descriptor, mode);
    const int rc = posix_fallocate(descriptor, 0, room);
    file = rc == 0 ? fdopen(descriptor, "w") : nullptr;
    if (file == nullptr) {
        close(descriptor);
        unlink(temporary_path);
        return rc != 0 ? rc : ENOMEM;
    }
    return 0;
}

void sync_directory() {
    char* slash = std::strrchr(final_path, '/');
    if (slash != nullptr) {
        slash[slash == final_path ? 1 : 0] = '\0';
    }
    const int directory = open(slash != nullptr ? final_path : ".", O_RDONLY | O_DIRECTORY);
    if (directory >= 0) {
        fsync(directory);
        close(directory);
    }
}

void complain_of(const char* path, int number) {
    if (path[0] == '\0') {
        complain("option `--json' takes the name of a file, which is missing");
    } else {
        complain("the report `%s' cannot be written: %s", path, std::strerror(number));
    }
}

bool complain_of_place(const char* path, const char* profile) {
    const bool misplaced = is_run_file(path, profile);
    if (misplaced) {
        complain("the report `%s' would overwrite a data file or an image", path);
    }
    return misplaced;
}

int open_beside(const char* path) {
    const size_t length = std::strlen(path);
    if (length == 0 || length >= sizeof(final_path)) {
        return length == 0 ? ENOENT : ENAMETOOLONG;
    }
    mode_t mode = 0;
    const int rc = check_place(path, &mode);
    if (rc != 0) {
        return rc;
    }
    std::snprintf(final_path, sizeof(final_path), "%s", path);
    std::snprintf(temporary_path, sizeof(temporary_path), "%s%s", path, suffix);
    clean_up_at_signals();
    return open_temporary(mode);
}

}  // namespace

int open_report_file(const char* path) {
    if (complain_of_place(path, "flashdrv.bin")) {
        return 1;
    }
    const int rc = open_beside(path);
    if (rc != 0) {
        complain_of(path, rc);
    }
    return rc != 0 ? 1 : 0;
}

std::FILE* report_file() {
    return file;
}

void close_report_file(bool complete, const char* profile) {
    int rc = 0;
    const bool misplaced = profile != nullptr && complain_of_place(final_path, profile);
    if (!complete || std::fflush(file) != 0 || ftruncate(fileno(file), std::ftell(file)) != 0 ||
        fsync(fileno(file)) != 0) {
        rc = errno != 0 ? errno : EIO;
    }
    if (std::fclose(file) != 0 && rc == 0) {
        rc = errno;
    }
    file = nullptr;
    if (rc == 0 && !misplaced && std::rename(temporary_path, final_path) != 0) {
        rc = errno;
    }
    if (rc == 0 && !misplaced) {
        sync_directory();
        return;
    }
    unlink(temporary_path);
    if (!misplaced) {
        complain_of(final_path, rc);
    }
}

}  // namespace mirvok
