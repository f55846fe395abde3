#include "transport/routing.h"

#include "common/diagnostics.h"
#include "raid/marvell_devices.h"
#include "raid/storelib_devices.h"
#include "transport/host_device.h"

namespace mirvok {

namespace {

// Above this verbosity the data of every command is dumped, with or without the trace log.
constexpr int verbosity_of_data = 3;

void dump_data(const char* label, const void* data, uint32_t length) {
    if (get_verbose() > verbosity_of_data) {
        hexDump(label, data, length);
    }
}

}  // namespace

int send_scsi_command(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out) {
    TRACE_PRINT("Entering %s", __func__);
    if (get_debug() != 0) {
        hexDump("cdb", in->cdb, in->cdb_length);
    }
    int rc = 0;
    out->received = 0;
    out->refused = true;  // until the route says otherwise
    out->unit_attention = false;
    switch (pd->ctrl->vendor) {
        case VENDOR_HOST:
        case VENDOR_NVME:
            rc = scsi_command_host(pd->handle, in, out);
            break;
        case VENDOR_AVAGO:
            rc = scsi_passthru_avago(pd, in, out);
            break;
        case VENDOR_MV:
            rc = scsi_passthru_mv(pd, in, out);
            break;
        default:
            TRACE_PRINT("not support");
            break;
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

int perform_scsi_command(_pd_info* pd, _scsi_cmd_in* in) {
    _scsi_cmd_out out = {};
    const int rc = send_scsi_command(pd, in, &out);
    if (!out.refused) {
        return 0;
    }
    return rc != 0 ? rc : 1;
}

int send_nvme_command(_pd_info* pd, uint16_t code, _nvme_cmd_in* in, _nvme_cmd_out* out) {
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
    switch (pd->ctrl->vendor) {
        case VENDOR_HOST:
            rc = ata_command_host(pd->handle, in, out);
            break;
        case VENDOR_CSMI:
            break;
        default:
            TRACE_PRINT("not support");
            break;
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
