#include "raid/marvell_library.h"

#include <dlfcn.h>

#include <csignal>
#include <cstddef>
#include <iterator>

#include "common/descriptors.h"
#include "common/diagnostics.h"
#include "common/signals.h"
#include "raid/shared_library.h"

namespace mirvok {

void* marvell_entries[marvell_entry_count];

namespace {

struct library_row {
    const char* file;
    const char* label;
    int load_failure;
};
constexpr library_row libraries[] = {
    {"libmvraid.so", "mv_api", 1},
    {"liblddf.so", "lddf", 2},
};

constexpr int initialize_failure = 3;
constexpr int entry_missing = 4;
constexpr uint8_t api_failure = 1;  // of MV_API_Initialize; any other result is success

struct entry_row {
    const char* name;
    size_t library;
};
constexpr entry_row entry_points[] = {
    {"MV_API_Initialize", 0},   {"MV_API_Finalize", 0},     {"MV_API_Version", 0},
    {"MV_Adapter_GetCount", 0}, {"MV_Adapter_GetInfo", 0},  {"MV_PD_GetHDInfo", 0},
    {"MV_PD_GetHDInfo_Ext", 0}, {"MV_PassThrough_SCSI", 0}, {"MV_PassThrough_ATA", 0},
    {"MV_Flash_Bin", 0},        {"MV_Download_Disk_FW", 1}, {"MV_Get_Download_Disk_Status", 1},
};
static_assert(std::size(entry_points) == marvell_entry_count);

void* handles[std::size(libraries)];
bool initialised = false;

int load_and_initialise() {
    for (size_t i = 0; i < std::size(libraries); ++i) {
        handles[i] = open_library(libraries[i].file);
        if (handles[i] == nullptr) {
            TRACE_PRINT("load %s fail", libraries[i].file);
            return libraries[i].load_failure;
        }
    }
    for (size_t i = 0; i < std::size(entry_points); ++i) {
        marvell_entries[i] = dlsym(handles[entry_points[i].library], entry_points[i].name);
        if (marvell_entries[i] == nullptr) {
            return entry_missing;
        }
    }
    if (get_marvell_entry<mv_api_initialize_t>(ENTRY_API_INITIALIZE)() == api_failure) {
        return initialize_failure;
    }
    initialised = true;
    return 0;
}

}  // namespace

int load_dlls_mv() {
    TRACE_PRINT("Entering %s", __func__);
    begin_unbroken_sequence();  // threads that a library starts inherit the mask
    const int rc = load_and_initialise();
    end_unbroken_sequence();
    occupy_standard_descriptors();  // whatever a library closed
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

void unload_dlls_mv() {
    TRACE_PRINT("Entering, %s", __func__);
    if (initialised) {
        initialised = false;
        get_marvell_entry<mv_api_finalize_t>(ENTRY_API_FINALIZE)();
    }
    for (void*& entry : marvell_entries) {
        entry = nullptr;
    }
    for (size_t i = 0; i < std::size(libraries); ++i) {
        if (handles[i] != nullptr) {
            TRACE_PRINT("unload %s", libraries[i].label);
            dlclose(handles[i]);
            handles[i] = nullptr;
        }
    }
    TRACE_PRINT("Exiting %s", __func__);
}

int init_mv() {
    TRACE_PRINT("Entering %s", __func__);
    const int rc = load_dlls_mv();
    if (rc != 0) {
        unload_dlls_mv();
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

void un_init_mv() {
    TRACE_PRINT("Entering %s", __func__);
    unload_dlls_mv();
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
