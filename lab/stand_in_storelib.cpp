// One storelib library: LAB_ENTRY is its entry point, LAB_TYPE the controller type that it serves. What it
// answers comes from the preloaded library, where the drives are.
#include <cstdint>

extern "C" {

uint32_t mirvok_lab_storelib(uint32_t type, const void* parameter);

uint32_t LAB_ENTRY(const void* parameter) {
    return mirvok_lab_storelib(LAB_TYPE, parameter);
}

}  // extern "C"
