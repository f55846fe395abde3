#include "raid/storelib_devices.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/bytes.h"
#include "common/diagnostics.h"
#include "transport/command_results.h"

namespace mirvok {

namespace {

constexpr uint32_t ctrl_list_size = 260;
constexpr uint32_t ctrl_list_count = 0;  // 16 bits
constexpr uint32_t ctrl_list_ids = 4;    // 32 bits each
constexpr uint32_t ctrl_list_room = (ctrl_list_size - ctrl_list_ids) / 4;

constexpr uint32_t pd_list_count = 4;  // 32 bits
constexpr uint32_t pd_list_entries = 8;
constexpr uint32_t pd_list_dump = 32;

constexpr uint32_t pd_entry_size = 24;
constexpr uint32_t pd_entry_device_id = 0;  // 16 bits
constexpr uint32_t pd_entry_slot = 5;
constexpr uint32_t pd_entry_device_type = 6;
constexpr uint8_t device_type_disk = 0;

constexpr uint16_t passthru_timeout = 60;     // seconds
constexpr int status_still_success = 0x4045;  // a success all the same when the SCSI status is 0

// Protocols by interface type.
constexpr pd_protocol_t protocols[] = {PD_PROTOCOL_UNKNOWN, PD_PROTOCOL_SCSI,  PD_PROTOCOL_SAS,
                                       PD_PROTOCOL_SATA,    PD_PROTOCOL_OTHER, PD_PROTOCOL_NVME};

struct fw_state {
    uint16_t state;
    pd_status_t status;
    const char* trace;
};
constexpr fw_state fw_states[] = {
    {0x00, PD_STATUS_UNCONFIGURED_GOOD, "drive status: DRVIE_FW_STATE_UNCONFIGURED_GOOD"},
    {0x01, PD_STATUS_UNCONFIGURED_BAD, "drive status: DRVIE_FW_STATE_UNCONFIGURED_BAD"},
    {0x02, PD_STATUS_HOT_SPARE, "drive status: DRVIE_FW_STATE_HOT_SPARE"},
    {0x10, PD_STATUS_OFFLINE, "drive status: DRVIE_FW_STATE_OFFLINE"},
    {0x11, PD_STATUS_FAILED, "drive status: DRVIE_FW_STATE_FAILED"},
    {0x14, PD_STATUS_REBUILD, "drive status:DRVIE_FW_STATE_REBUILD"},
    {0x18, PD_STATUS_ONLINE, "drive status: DRVIE_FW_STATE_ONLINE"},
    {0x40, PD_STATUS_JBOD, "drive status: DRVIE_FW_STATE_JBOD"},
};
constexpr fw_state unknown_fw_state = {0, PD_STATUS_UNKNOWN, "drive status: DRVIE_FW_STATE_UNKNOWN"};

frame_direction_t get_frame_direction(io_direction_t direction) {
    switch (direction) {
        case IO_DIR_OUT:
            return FRAME_TO_DRIVE;
        case IO_DIR_IN:
            return FRAME_FROM_DRIVE;
        default:
            return FRAME_NO_DATA;
    }
}

// Copies what a successful command returned, at most as much as was asked for. Returns the number of bytes.
uint32_t return_data(const _scsi_cmd_in* in, const uint8_t* frame, frame_direction_t direction) {
    const uint8_t* source = frame + frame_data;
    uint32_t length = load_le32(frame + frame_data_length);
    if (direction == FRAME_NO_DATA) {
        source = frame + frame_sense;
        length = frame_sense_size;
    }
    length = std::min(length, in->data_length);
    if (direction != FRAME_TO_DRIVE && length > 0) {
        std::memcpy(in->data, source, length);
    }
    return length;
}

}  // namespace

void fill_frame(uint8_t* frame, uint16_t device_id, frame_direction_t direction, uint16_t timeout,
                const uint8_t* cdb, uint8_t cdb_length, uint32_t data_length) {
    store_le16(frame + frame_device_id, device_id);
    frame[frame_one] = 1;
    frame[frame_direction] = direction;
    store_le16(frame + frame_timeout, timeout);
    frame[frame_cdb_length] = cdb_length;
    std::memcpy(frame + frame_cdb, cdb, frame_cdb_size);
    store_le32(frame + frame_data_length, data_length);
}

int get_ctrl_list_avago(ctrl_type_t type, uint32_t* count, _ctrl_info* ctrl_table, uint32_t max,
                        uint32_t first_num) {
    TRACE_PRINT("Entering %s", __func__);
    *count = 0;
    uint8_t buffer[ctrl_list_size] = {};
    _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_controller_list, 0, 0, buffer, ctrl_list_size);
    const int status = ProcessLibCommandCall(&param, type);
    const uint32_t listed = status == 0 ? load_le16(buffer + ctrl_list_count) : 0;
    for (uint32_t i = 0; i < listed; ++i) {
        if (i >= max || i >= ctrl_list_room) {
            TRACE_PRINT("exceed supported max controller num");
            break;
        }
        ctrl_table[i] = {};
        ctrl_table[i].vendor = VENDOR_AVAGO;
        ctrl_table[i].ctrl_id = load_le32(buffer + ctrl_list_ids + size_t{4} * i);
        ctrl_table[i].ctrl_num = first_num + i;
        ctrl_table[i].type = type;
        *count = i + 1;
    }
    TRACE_PRINT("count:%d", *count);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

int get_pd_list_avago(_ctrl_info* ctrl, _pd_info* pd_table, uint32_t max) {
    TRACE_PRINT("Entering %s", __func__);
    ctrl->pd_count = 0;
    int status = RESULT_NO_MEMORY;
    const size_t size = pd_list_entries + size_t{pd_entry_size} * max;
    uint8_t* buffer = size <= UINT32_MAX ? static_cast<uint8_t*>(std::calloc(1, size)) : nullptr;
    if (buffer != nullptr) {
        _SL_LIB_CMD_PARAM_T param =
            make_storelib_param(storelib_drive_list, ctrl->ctrl_id, 0, buffer, static_cast<uint32_t>(size));
        status = ProcessLibCommandCall(&param, ctrl->type);
        const uint32_t listed = load_le32(buffer + pd_list_count);
        TRACE_PRINT("pd count:%d", listed);
        if (get_debug() != 0) {
            hexDump("pPDlist:", buffer, std::min<size_t>(size, pd_list_dump));
        }
        for (uint32_t i = 0; status == 0 && i < listed; ++i) {
            if (i == max) {
                TRACE_PRINT("Exceed max support drives");
                break;
            }
            const uint8_t* entry = buffer + pd_list_entries + size_t{pd_entry_size} * i;
            const uint8_t device_type = entry[pd_entry_device_type];
            const uint8_t slot = entry[pd_entry_slot];
            const uint16_t device_id = load_le16(entry + pd_entry_device_id);
            TRACE_PRINT("HDD Type:%d, slotnumber:%d,p->device_id:%d", device_type, slot, device_id);
            if (device_type == device_type_disk) {
                _pd_info* pd = &pd_table[ctrl->pd_count++];
                *pd = {};
                pd->device_id = device_id;
                pd->slot_id = slot;
                pd->ctrl = ctrl;
            }
        }
        std::free(buffer);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

int get_pd_info_avago(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("device_id:%d, ctrl_id:%d, type:%d", pd->device_id, pd->ctrl->ctrl_id, pd->ctrl->type);
    uint8_t info[pd_info_size] = {};
    _SL_LIB_CMD_PARAM_T param =
        make_storelib_param(storelib_drive_info, pd->ctrl->ctrl_id, pd->device_id, info, pd_info_size);
    const int status = ProcessLibCommandCall(&param, pd->ctrl->type);
    if (status == 0) {
        const uint32_t interface = get_pd_interface(info);
        if (interface < std::size(protocols)) {
            pd->protocol = protocols[interface];
        }
        const uint16_t state = load_le16(info + pd_info_fw_state);
        const auto* row = std::find_if(std::begin(fw_states), std::end(fw_states),
                                       [state](const fw_state& known) { return known.state == state; });
        row = row != std::end(fw_states) ? row : &unknown_fw_state;
        pd->status = row->status;
        TRACE_PRINT("%s", row->trace);
        pd->fw_download_not_allowed = info[pd_info_download_flag] & 1;
        TRACE_PRINT("pd fw download allowed:%d", pd->fw_download_not_allowed);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

int scsi_passthru_avago(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = RESULT_NO_MEMORY;
    const frame_direction_t direction = get_frame_direction(in->direction);
    const uint32_t data_length = direction != FRAME_NO_DATA ? in->data_length : 0;
    const size_t size = frame_data + size_t{data_length};
    uint8_t* frame = size <= UINT32_MAX ? static_cast<uint8_t*>(std::calloc(1, size)) : nullptr;
    if (frame == nullptr) {
        TRACE_PRINT("MALLOC Fail");
    } else {
        fill_frame(frame, pd->device_id, direction, passthru_timeout, in->cdb,
                   static_cast<uint8_t>(in->cdb_length), data_length);
        if (direction == FRAME_TO_DRIVE && data_length > 0) {
            std::memcpy(frame + frame_data, in->data, data_length);
        }
        _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_scsi_passthrough, pd->ctrl->ctrl_id,
                                                        pd->device_id, frame, static_cast<uint32_t>(size));
        rc = ProcessLibCommandCall(&param, pd->ctrl->type);
        const uint8_t scsi_status = frame[frame_scsi_status];
        out->scsi_status = scsi_status;
        if (rc != 0 || scsi_status != 0) {
            std::memcpy(out->sense, frame + frame_sense, frame_sense_size);
        }
        const bool answered = rc == 0 || (rc == status_still_success && scsi_status == 0);
        out->refused = !answered || is_refused(scsi_status, frame + frame_sense);
        out->unit_attention = is_unit_attention(scsi_status, frame + frame_sense);
        if (answered && scsi_status == 0) {
            out->received = return_data(in, frame, direction);
            rc = 0;
        } else if (rc == 0) {
            rc = scsi_status;
        }
        std::free(frame);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
