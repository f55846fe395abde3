#include "storage/inventory.h"

#include <cstring>

#include "common/diagnostics.h"
#include "profiles/drive_sizes.h"
#include "raid/marvell_devices.h"
#include "raid/marvell_library.h"
#include "raid/storelib_devices.h"
#include "raid/storelib_library.h"
#include "storage/drive_paths.h"
#include "transport/host_scan.h"

namespace mirvok {

namespace {

// Both tables start the process zero-filled: the first build need not touch memory that it may never use.
void clear_tables() {
    static bool used = false;
    if (used) {
        std::memset(ctrllist, 0, sizeof(ctrllist));
        std::memset(pdlist, 0, sizeof(pdlist));
    }
    used = true;
}

void append_pseudo_controller(_storage_lib* lib, uint32_t vendor, ctrl_type_t type) {
    if (lib->ctrl_count >= lib->max_ctrl_count) {
        TRACE_PRINT("no room for the controller, vendor:%d", static_cast<int>(vendor));
        return;
    }
    _ctrl_info* ctrl = &lib->ctrl_list[lib->ctrl_count];
    *ctrl = {};
    ctrl->vendor = vendor;
    ctrl->ctrl_num = lib->ctrl_count;
    ctrl->type = type;
    ++lib->ctrl_count;
}

int list_drives(_storage_lib* lib, _ctrl_info* ctrl) {
    const drive_path& path = path_of(ctrl);
    const uint32_t free = lib->max_pd_count - lib->pd_count;
    const int rc = path.list(ctrl, lib->pd_list + lib->pd_count, free < path.cap ? free : path.cap);
    lib->pd_count += ctrl->pd_count;
    TRACE_PRINT("ctrl id: %d, vendor:%d, type:%d, pd_count:%d, storage_pd_count:%d",
                static_cast<int>(ctrl->ctrl_num), static_cast<int>(ctrl->vendor),
                static_cast<int>(ctrl->type), ctrl->pd_count, static_cast<int>(lib->pd_count));
    return rc;
}

}  // namespace

void init_storage_lib(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    lib->ctrl_list = ctrllist;
    lib->pd_list = pdlist;
    lib->max_pd_count = max_drives;
    lib->max_ctrl_count = max_controllers;
    lib->pd_count = 0;
    lib->ctrl_count = 0;
    clear_tables();
    if (load_drive_sizes("sizes.bin") != 0) {
        TRACE_PRINT("load the drive sizes profile file fail");
    }
    init_avago(lib_info_avago);
    get_ctrl_lists_avago(lib);
    if (init_mv() == 0) {
        get_ctrl_lists_mv(lib);
    }
    init_host_csmi(lib);
    init_host(lib);
    init_nvme(lib);
    get_pd_list(lib);
    report_unopened_nodes();
    TRACE_PRINT("Exiting %s", __func__);
}

void un_init_storage_lib(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    un_init_avago(lib_info_avago);
    un_init_mv();
    lib->ctrl_list = nullptr;
    lib->pd_list = nullptr;
    TRACE_PRINT("Exiting %s", __func__);
}

int get_ctrl_lists_avago(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    uint32_t count = 0;
    for (lib_info_entry& entry : lib_info_avago) {
        if (entry.loaded != 0) {
            count = 0;
            rc = get_ctrl_list_avago(entry.type, &count, lib->ctrl_list + lib->ctrl_count,
                                     lib->max_ctrl_count - lib->ctrl_count, lib->ctrl_count);
            if (rc == 0) {
                entry.ctrl_count = count;
                lib->ctrl_count += count;
                TRACE_PRINT("add %d", static_cast<int>(count));
            }
        }
        TRACE_PRINT("ctrl count: %d", static_cast<int>(count));
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_ctrl_lists_mv(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t count = 0;
    const int rc = get_ctrl_count_mv(&count);
    for (uint32_t i = 0; rc == 0 && i < count && lib->ctrl_count < lib->max_ctrl_count; ++i) {
        _ctrl_info ctrl = {};
        ctrl.vendor = VENDOR_MV;
        ctrl.ctrl_id = i;
        ctrl.ctrl_num = lib->ctrl_count;
        ctrl.type = CTRL_TYPE_MARVELL;
        if (get_ctrl_info_mv(&ctrl) != 0) {
            lib->ctrl_list[lib->ctrl_count] = ctrl;
            ++lib->ctrl_count;
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

void init_host_csmi(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    append_pseudo_controller(lib, VENDOR_CSMI, CTRL_TYPE_RSTE);
    TRACE_PRINT("Exiting %s", __func__);
}

void init_host(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    append_pseudo_controller(lib, VENDOR_HOST, CTRL_TYPE_HOST);
    TRACE_PRINT("Exiting %s", __func__);
}

void init_nvme(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    append_pseudo_controller(lib, VENDOR_NVME, CTRL_TYPE_NVME);
    TRACE_PRINT("Exiting %s", __func__);
}

int get_pd_list(_storage_lib* lib) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    for (uint32_t i = 0; i < lib->ctrl_count; ++i) {
        rc = list_drives(lib, &lib->ctrl_list[i]);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
