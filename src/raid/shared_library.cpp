#include "raid/shared_library.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mirvok {

namespace {

constexpr int open_mode = RTLD_LAZY | RTLD_NODELETE;

// Why what stands there must not run as this user; null when it may.
const char* find_distrust(const struct stat* status) {
    const bool others_group = status->st_gid != 0 && status->st_gid != getegid();
    if ((status->st_mode & S_IWOTH) != 0 || ((status->st_mode & S_IWGRP) != 0 && others_group)) {
        return "is writable by others";
    }
    return status->st_uid != 0 && status->st_uid != geteuid() ? "belongs to another user" : nullptr;
}

// The same of the directory in which the file of a link lies.
const char* find_target_distrust(const char* link) {
    char path[PATH_MAX];
    struct stat status = {};
    if (realpath(link, path) == nullptr) {
        return "cannot be found";
    }
    *(std::strrchr(path, '/') + 1) = '\0';
    return stat(path, &status) == 0 ? find_distrust(&status) : "cannot be examined";
}

// Whether "./NAME" may be opened; says so for a library that is there and may not. The directory comes first:
// once it is known to be root's or the user's, nobody else can exchange the file behind the next look.
bool is_trusted(const char* path) {
    struct stat directory = {};
    struct stat entry = {};
    struct stat file = {};
    const char* subject = "the working directory";
    const char* reason = stat(".", &directory) == 0 ? find_distrust(&directory) : "cannot be examined";
    if (lstat(path, &entry) != 0) {
        return reason == nullptr;
    }
    if (reason == nullptr) {
        subject = "it";
        reason =
            stat(path, &file) == 0 && S_ISREG(file.st_mode) ? find_distrust(&file) : "is no regular file";
    }
    if (reason == nullptr && S_ISLNK(entry.st_mode)) {
        subject = "the directory that it leads to";
        reason = find_target_distrust(path);
    }
    if (reason != nullptr) {
        std::fprintf(stderr, "mirvok: %s is not loaded: %s %s\n", path, subject, reason);
    }
    return reason == nullptr;
}

// Whether the loader looks for bare names in the working directory or below it: an element of LD_LIBRARY_PATH
// that is empty or relative has it do so, an empty variable does not.
bool is_search_relative() {
    const char* element = std::getenv("LD_LIBRARY_PATH");
    if (element == nullptr || *element == '\0') {
        return false;
    }
    while (*element == '/') {
        element += std::strcspn(element, ":;");
        if (*element == '\0') {
            return false;
        }
        ++element;
    }
    return true;
}

}  // namespace

void* open_library(const char* name) {
    char local_name[64];
    std::snprintf(local_name, sizeof(local_name), "./%s", name);
    const bool relative = is_search_relative();
    if (relative && !is_trusted(local_name)) {
        return nullptr;
    }
    void* handle = dlopen(name, open_mode);
    if (handle == nullptr && (relative || is_trusted(local_name))) {
        handle = dlopen(local_name, open_mode);
    }
    return handle;
}

}  // namespace mirvok
