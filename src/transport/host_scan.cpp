#include "transport/host_scan.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "common/crew.h"
#include "common/diagnostics.h"
#include "common/signals.h"
#include "common/text.h"
#include "transport/command_results.h"
#include "transport/host_device.h"
#include "transport/routing.h"
#include "transport/scsi_ata_data.h"

namespace mirvok {

namespace {

// The virtual disk that a boot adapter makes of its M.2 drives: the drives themselves are listed behind the
// adapter.
constexpr char virtual_disk_product[] = "Brackenfold M.2";

// So many nodes are probed at once; what a host adapter lists at most.
constexpr uint32_t max_host_nodes = 64;

// Nodes that are there and did not open, and the reason of the first one.
struct unopened_nodes {
    uint32_t count;
    int error;
};
unopened_nodes unopened = {};

// Opens a node for its listing; *error receives why it did not open.
uint32_t probe_node(const char* name, int* error) {
    const uint32_t handle = get_handle(name);
    *error = handle == 0 ? errno : 0;
    return handle;
}

// A node that is not there, or whose device is gone, is nothing to speak of.
void note_unopened(int error) {
    if (error != 0 && error != ENOENT && error != ENODEV && error != ENXIO) {
        unopened.error = unopened.count == 0 ? error : unopened.error;
        ++unopened.count;
    }
}

void name_node(_pd_info* pd, const char* prefix, uint32_t index) {
    copy_text(pd->dev_name, prefix);
    std::to_chars(pd->dev_name + std::strlen(prefix), std::end(pd->dev_name) - 1, index);
}

// Sends a standard INQUIRY and takes its data over into the record.
int inquire(_pd_info* pd) {
    uint8_t data[512] = {};
    _scsi_cmd_in in = {};
    _scsi_cmd_out out = {};
    int rc = set_scsi_command(pd, SCSI_INQUIRY, &in, 0, 0, 0, data, sizeof(data));
    if (rc == 0) {
        rc = read_scsi_command(pd, &in, &out);
    }
    if (rc == 0 && !has_data_up_to(inquiry_needed, data, out.received)) {
        rc = 1;
    }
    if (rc == 0) {
        parse_inquery(pd, data, sizeof(data));
    }
    return rc;
}

bool is_listed(const _pd_info* pd, int inquiry_result) {
    if (inquiry_result != 0 || drive_kind(pd->protocol) != DRIVE_SATA) {
        return false;
    }
    if (begins_with(pd->product_id, virtual_disk_product)) {
        TRACE_PRINT("productid:Brackenfold M.2 VD");
        return false;
    }
    return true;
}

void list_drive(_ctrl_info* ctrl, _pd_info* pd, uint32_t index) {
    pd->ctrl = ctrl;
    pd->device_id = static_cast<uint16_t>(index);
    ++ctrl->pd_count;
    TRACE_PRINT("find drive %s", pd->dev_name);
}

// What a node /dev/sg%d turned out to be.
struct probe_result {
    bool opened;
    int error;    // of its opening
    int inquiry;  // result, when it was opened
    bool listed;
};

// Asks who is behind the node, and fills the record.
probe_result probe_host(_ctrl_info* ctrl, _pd_info* pd, uint32_t index) {
    probe_result result = {};
    *pd = {};
    name_node(pd, "/dev/sg", index);
    pd->handle = probe_node(pd->dev_name, &result.error);
    result.opened = pd->handle != 0;
    if (result.opened) {
        pd->ctrl = ctrl;
        result.inquiry = inquire(pd);
        close_handle(pd->handle);
        pd->handle = 0;
        result.listed = is_listed(pd, result.inquiry);
    }
    return result;
}

// The probes of a crew.
struct host_probes {
    _ctrl_info* ctrl;
    uint32_t count;
    std::atomic<uint32_t> next;
    _pd_info drives[max_host_nodes];
    probe_result results[max_host_nodes];
};

void probe_next(void* context) {
    auto* probes = static_cast<host_probes*>(context);
    for (uint32_t i = 0; (i = probes->next++) < probes->count;) {
        end_at_signal();
        probes->results[i] = probe_host(probes->ctrl, &probes->drives[i], i);
    }
}

// Whether a crew has made all probes.
bool probe_at_once(host_probes* probes, _ctrl_info* ctrl, uint32_t count) {
    crew threads;
    probes->ctrl = ctrl;
    probes->count = count;
    probes->next = 0;
    if (count > max_host_nodes || start_crew(&threads, count, probe_next, probes) == 0) {
        return false;
    }
    join_crew(&threads);
    return true;
}

}  // namespace

int get_pd_list_host(_ctrl_info* ctrl, _pd_info* pd, uint32_t max) {
    TRACE_PRINT("Entering %s", __func__);
    host_probes probes;
    const bool probed = probe_at_once(&probes, ctrl, max);
    int rc = 0;
    for (uint32_t i = 0; i < max; ++i) {
        probe_result result;
        if (probed) {
            *pd = probes.drives[i];
            result = probes.results[i];
        } else {
            result = probe_host(ctrl, pd, i);
        }
        note_unopened(result.error);
        rc = result.opened ? result.inquiry : rc;
        if (result.listed) {
            list_drive(ctrl, pd, i);
            ++pd;
        } else {
            *pd = {};
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_pd_list_nvme(_ctrl_info* ctrl, _pd_info* pd, uint32_t max) {
    TRACE_PRINT("Entering %s", __func__);
    for (uint32_t i = 0; i < max; ++i) {
        name_node(pd, "/dev/nvme", i);
        int error = 0;
        const uint32_t handle = probe_node(pd->dev_name, &error);
        note_unopened(error);
        if (handle == 0) {
            *pd = {};
            continue;
        }
        close_handle(handle);
        pd->protocol = PD_PROTOCOL_NVME;
        list_drive(ctrl, pd, i);
        ++pd;
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

int get_pd_list_csmi(_ctrl_info* /*ctrl*/, _pd_info* /*pd*/, uint32_t /*max*/) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

void report_unopened_nodes() {
    if (unopened.count > 0) {
        std::fprintf(stderr, "mirvok: %u %s cannot be opened: %s\n", unopened.count,
                     unopened.count == 1 ? "node" : "nodes", std::strerror(unopened.error));
    }
    unopened = {};
}

}  // namespace mirvok
