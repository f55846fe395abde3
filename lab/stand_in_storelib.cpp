// One storelib library: LAB_ENTRY is its entry point, LAB_TYPE the controller type that it serves. What it
// answers comes from the preloaded library, where the drives are.
#include <time.h>

#include <cstdint>

extern "C" {

uint32_t mirvok_lab_storelib(uint32_t type, const void* parameter, void* (*life)(void*));

// A thread of the library's own: it always comes back to this code.
static void* live(void* /*unused*/) {
    for (;;) {
        const timespec moment = {0, 100000};
        nanosleep(&moment, nullptr);
    }
}

uint32_t LAB_ENTRY(const void* parameter) {
    return mirvok_lab_storelib(LAB_TYPE, parameter, live);
}

}  // extern "C"
