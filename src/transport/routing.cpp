#include "transport/routing.h"

#include <algorithm>
#include <iterator>

#include "common/diagnostics.h"
#include "common/signals.h"
#include "raid/marvell_devices.h"
#include "raid/storelib_devices.h"
#include "transport/host_device.h"

namespace mirvok {

namespace {

int send_to_node(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out) {
    return scsi_command_host(pd->handle, in, out);
}

int send_ata_to_node(_pd_info* pd, _ata_cmd_in* in, _ata_cmd_out* out) {
    return ata_command_host(pd->handle, in, out);
}

int send_ata_nowhere(_pd_info* /*pd*/, _ata_cmd_in* /*in*/, _ata_cmd_out* /*out*/) {
    return 0;
}

// The transport of each access path; null where it carries no such command.
struct route {
    uint32_t vendor;
    int (*scsi)(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out);
    int (*ata)(_pd_info* pd, _ata_cmd_in* in, _ata_cmd_out* out);
};
constexpr route routes[] = {
    {VENDOR_HOST, send_to_node, send_ata_to_node}, {VENDOR_NVME, send_to_node, nullptr},
    {VENDOR_AVAGO, scsi_passthru_avago, nullptr},  {VENDOR_MV, scsi_passthru_mv, nullptr},
    {VENDOR_CSMI, nullptr, send_ata_nowhere},
};

const route* find_route(const _pd_info* pd) {
    const auto* const found = std::find_if(std::begin(routes), std::end(routes),
                                           [pd](const route& row) { return row.vendor == pd->ctrl->vendor; });
    return found != std::end(routes) ? found : nullptr;
}

// Above this verbosity the data of every command is dumped, with or without the trace log.
constexpr int verbosity_of_data = 3;

void dump_data(const char* label, const void* data, uint32_t length) {
    if (get_verbose() > verbosity_of_data) {
        hexDump(label, data, length);
    }
}

}  // namespace

int send_scsi_command(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out) {
    end_at_signal();
    TRACE_PRINT("Entering %s", __func__);
    if (get_debug() != 0) {
        hexDump("cdb", in->cdb, in->cdb_length);
    }
    int rc = 0;
    out->received = 0;
    out->refused = true;  // until the route says otherwise
    out->unit_attention = false;
    const route* way = find_route(pd);
    if (way != nullptr && way->scsi != nullptr) {
        rc = way->scsi(pd, in, out);
    } else {
        TRACE_PRINT("not support");
    }
    if (rc != 0) {
        TRACE_PRINT("scsi status:%d", static_cast<int>(out->scsi_status));
        if (get_debug() != 0) {
            hexDump("sense data:", out->sense, sizeof(out->sense));
        }
    } else if (in->direction == IO_DIR_IN) {
        dump_data("data:", in->data, in->data_length);
    } else {
        TRACE_PRINT("write success");
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int read_scsi_command(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out) {
    const int rc = send_scsi_command(pd, in, out);
    if (!out->unit_attention) {
        return rc;
    }
    *out = {};
    return send_scsi_command(pd, in, out);
}

int perform_scsi_command(_pd_info* pd, _scsi_cmd_in* in, bool again) {
    _scsi_cmd_out out = {};
    const int rc = again ? read_scsi_command(pd, in, &out) : send_scsi_command(pd, in, &out);
    if (!out.refused) {
        return 0;
    }
    return rc != 0 ? rc : 1;
}

int send_nvme_command(_pd_info* pd, uint16_t code, _nvme_cmd_in* in, _nvme_cmd_out* out) {
    end_at_signal();
    TRACE_PRINT("Entering %s", __func__);
    const int rc = nvme_command_host(pd->handle, code, in, out);
    if (in->direction == IO_DIR_IN) {
        dump_data("data:", in->buffer, in->buffer_size);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int send_ata_command(_pd_info* pd, _ata_cmd_in* in, _ata_cmd_out* out) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    const route* way = find_route(pd);
    if (way != nullptr && way->ata != nullptr) {
        rc = way->ata(pd, in, out);
    } else {
        TRACE_PRINT("not support");
    }
    if (rc != 0) {
        dump_data("reg:", out->registers, sizeof(out->registers));
    } else if (in->direction == IO_DIR_IN) {
        dump_data("data:", in->data, in->data_length);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
