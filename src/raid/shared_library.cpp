#include "raid/shared_library.h"

#include <dlfcn.h>

#include <cstdio>

namespace mirvok {

void* open_library(const char* name) {
    void* handle = dlopen(name, RTLD_LAZY);
    if (handle == nullptr) {
        char local_name[64];
        std::snprintf(local_name, sizeof(local_name), "./%s", name);
        handle = dlopen(local_name, RTLD_LAZY);
    }
    return handle;
}

}  // namespace mirvok
