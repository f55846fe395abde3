// The two Marvell libraries: loading, their entry points, and release. A machine without them has no Marvell
// path.
#pragma once

#include <cstdint>

namespace mirvok {

// Entry points, in the order in which they are resolved.
enum marvell_entry_t : uint32_t {
    ENTRY_API_INITIALIZE,
    ENTRY_API_FINALIZE,
    ENTRY_API_VERSION,
    ENTRY_ADAPTER_GET_COUNT,
    ENTRY_ADAPTER_GET_INFO,
    ENTRY_PD_GET_HD_INFO,
    ENTRY_PD_GET_HD_INFO_EXT,
    ENTRY_PASS_THROUGH_SCSI,
    ENTRY_PASS_THROUGH_ATA,
    ENTRY_FLASH_BIN,
    ENTRY_DOWNLOAD_DISK_FW,
    ENTRY_GET_DOWNLOAD_DISK_STATUS,
    marvell_entry_count,
};

// The types of the entry points that are called; every result is 8 bits wide.
extern "C" {
using mv_api_initialize_t = uint8_t();
using mv_api_finalize_t = uint8_t();
using mv_adapter_get_count_t = uint8_t();
using mv_adapter_get_info_t = uint8_t(uint8_t adapter, uint8_t* found, uint8_t* info);
using mv_pd_get_hd_info_ext_t = uint8_t(uint8_t adapter, uint8_t* request);
using mv_pass_through_scsi_t = uint8_t(uint8_t adapter, uint8_t device, uint8_t* request);
using mv_download_disk_fw_t = uint8_t(uint8_t adapter, uint8_t device, const char* path);
using mv_get_download_disk_status_t = uint8_t(uint8_t adapter, uint8_t device, uint8_t* percentage,
                                              uint8_t* status);
}

// The resolved addresses: all of them after init_mv returned 0, none after un_init_mv.
extern void* marvell_entries[marvell_entry_count];

// An entry point as the function that it is.
template <class Function>
Function* get_marvell_entry(marvell_entry_t entry) {
    return reinterpret_cast<Function*>(marvell_entries[entry]);
}

// Loads both libraries; on any failure unloads what was opened. Returns what load_dlls_mv returns.
int init_mv();
void un_init_mv();

// Returns 0, 1 when libmvraid.so cannot be loaded, 2 when liblddf.so cannot, 3 when the library's own
// initialisation failed, 4 when an entry point is missing.
int load_dlls_mv();

// Releases what is open; nothing the second time.
void unload_dlls_mv();

}  // namespace mirvok
