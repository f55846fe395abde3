#include "raid/shared_library.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdio>

namespace mirvok {

namespace {

bool is_writable_by_others(const char* path) {
    struct stat status = {};
    return stat(path, &status) == 0 && (status.st_mode & S_IWOTH) != 0;
}

// What others can write must not run as root. Says so for a library that is there.
bool is_trusted(const char* path) {
    struct stat status = {};
    if (stat(path, &status) != 0) {
        return true;
    }
    const bool file = is_writable_by_others(path);
    if (file || is_writable_by_others(".")) {
        std::fprintf(stderr, "mirvok: %s is not loaded: %s is writable by others\n", path,
                     file ? "it" : "the working directory");
        return false;
    }
    return true;
}

}  // namespace

void* open_library(const char* name) {
    void* handle = dlopen(name, RTLD_LAZY);
    if (handle == nullptr) {
        char local_name[64];
        std::snprintf(local_name, sizeof(local_name), "./%s", name);
        if (is_trusted(local_name)) {
            handle = dlopen(local_name, RTLD_LAZY);
        }
    }
    return handle;
}

}  // namespace mirvok
