#include "raid/marvell_devices.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/bytes.h"
#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/signals.h"
#include "profiles/firmware_image.h"
#include "raid/marvell_library.h"
#include "transport/command_results.h"
#include "transport/data_field.h"

namespace mirvok {

namespace {

constexpr size_t adapter_info_size = 304;

// Drive list request.
constexpr size_t list_size = 514;
constexpr size_t list_one = 1;        // always 1
constexpr size_t list_requested = 4;  // 16 bits
constexpr size_t list_returned = 6;   // 16 bits
constexpr size_t list_entries = 16;
constexpr uint32_t list_room = 2;  // entries

// Drive entry: the room of each text reaches up to the next field.
constexpr size_t entry_size = 248;
namespace entry {
constexpr size_t device_id = 36;  // 16 bits
constexpr field product = {76, 20};
constexpr field fru = {96, 8};
constexpr field device_serial = {116, 20};
constexpr field revision = {136, listed_level_width};
constexpr field part_number = {188, 10};
constexpr field serial = {198, entry_size - 198};
}  // namespace entry
static_assert(list_entries + list_room * entry_size <= list_size);

// Pass-through request. Its whole size must fit 16 bits.
constexpr size_t pass_cdb = 0;
constexpr size_t pass_cdb_size = 16;
constexpr size_t pass_data_length = 16;  // 16 bits
constexpr size_t pass_direction = 18;    // 1 from the device, 0 to it
constexpr size_t pass_cdb_length = 19;
constexpr size_t pass_crc = 20;  // 32 bits
constexpr size_t pass_sense = 24;
constexpr size_t pass_sense_size = 32;
constexpr size_t pass_data = 56;
constexpr size_t pass_overhead = 64;
constexpr uint32_t pass_data_limit = 0x10000 - pass_overhead;
// The request has no place for the SCSI status: of a failed one it is known that it was not GOOD.
constexpr uint8_t status_not_good = 0x02;

constexpr int max_polls = 10;

// What a download status asks for; any other ends the download with 0.
struct download_status {
    uint8_t status;
    unsigned int wait;  // seconds
    bool poll_again;
    int result;
};
constexpr download_status download_statuses[] = {
    {1, 2, true, 0},                         // in progress
    {2, 2, false, 0},                        // done
    {3, 0, false, RESULT_DOWNLOAD_FAILED},   // failed
    {4, 0, false, RESULT_IMAGE_LOST},        // firmware file not found
    {5, 0, false, RESULT_IMAGE_UNREADABLE},  // firmware file empty
};
constexpr download_status other_download_status = {0, 0, false, 0};

constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table = {};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? 0xEDB88320 ^ value >> 1 : value >> 1;
        }
        table[i] = value;
    }
    return table;
}
constexpr std::array<uint32_t, 256> crc_table = make_crc_table();

uint8_t get_adapter(const _ctrl_info* ctrl) {
    return static_cast<uint8_t>(ctrl->ctrl_id);
}

uint8_t get_device(const _pd_info* pd) {
    return static_cast<uint8_t>(pd->device_id);
}

void take_drive(_pd_info* pd, const uint8_t* bytes) {
    *pd = {};
    pd->device_id = load_le16(bytes + entry::device_id);
    take_field<entry::product>(pd->product_id, bytes);
    take_field<entry::fru>(pd->fru, bytes);
    take_field<entry::device_serial>(pd->device_serial, bytes);
    take_field<entry::revision>(pd->code_level, bytes);
    take_field<entry::part_number>(pd->part_number, bytes);
    take_field<entry::serial>(pd->serial_number, bytes);
}

void fill_request(uint8_t* request, const _scsi_cmd_in* in) {
    std::memcpy(request + pass_cdb, in->cdb, std::min<size_t>(in->cdb_length, pass_cdb_size));
    store_le16(request + pass_data_length, in->data_length);
    request[pass_direction] = in->direction == IO_DIR_OUT ? 0 : 1;
    request[pass_cdb_length] = static_cast<uint8_t>(in->cdb_length);
    if (in->direction == IO_DIR_OUT) {
        if (in->data_length > 0) {
            std::memcpy(request + pass_data, in->data, in->data_length);
        }
        store_le32(request + pass_crc, veltra_calCRC32(request + pass_data, in->data_length));
    }
}

}  // namespace

uint32_t veltra_calCRC32(const uint8_t* data, uint32_t length) {
    TRACE_PRINT("Entering %s", __func__);
    uint32_t crc = 0xFFFFFFFF;
    for (uint32_t i = 0; i < length; ++i) {
        crc = crc_table[(crc ^ data[i]) & 0xFF] ^ crc >> 8;
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, crc);
    return crc;
}

int get_ctrl_count_mv(uint8_t* count) {
    TRACE_PRINT("Entering %s", __func__);
    *count = get_marvell_entry<mv_adapter_get_count_t>(ENTRY_ADAPTER_GET_COUNT)();
    TRACE_PRINT("adatper count:%d,count:%d", *count, *count);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

int get_ctrl_info_mv(_ctrl_info* ctrl) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t info[adapter_info_size] = {};
    uint8_t found_flag = 0;
    const auto get_info = get_marvell_entry<mv_adapter_get_info_t>(ENTRY_ADAPTER_GET_INFO);
    const int rc = get_info(get_adapter(ctrl), &found_flag, info);
    const int found = rc == 0 && found_flag != 0 ? 1 : 0;
    TRACE_PRINT("Exiting %s,rc=%d, found:%d", __func__, rc, found);
    return found;
}

int get_pd_list_mv(_ctrl_info* ctrl, _pd_info* pd, uint32_t max) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = RESULT_NO_MEMORY;
    auto* request = static_cast<uint8_t*>(std::calloc(1, list_size));
    if (request != nullptr) {
        request[list_one] = 1;
        store_le16(request + list_requested, list_room);
        rc = get_marvell_entry<mv_pd_get_hd_info_ext_t>(ENTRY_PD_GET_HD_INFO_EXT)(get_adapter(ctrl), request);
        uint32_t returned = 0;
        if (rc != 0) {
            TRACE_PRINT("dll_get_mv_adapters_pds fail, rc = %d", rc);
        } else {
            returned = load_le16(request + list_returned);
            TRACE_PRINT("header.numReturned:%d", returned);
            if (returned > max || returned > list_room) {
                TRACE_PRINT("numReturned:%d", returned);
                returned = 0;
            }
        }
        for (uint32_t i = 0; i < returned; ++i) {
            take_drive(&pd[i], request + list_entries + i * entry_size);
            TRACE_PRINT("drive information:pid:%s,part_number:%s,serial_number_11s:%s,code_level:%s",
                        pd[i].product_id, pd[i].dummy, pd[i].device_serial, pd[i].code_level);
            pd[i].ctrl = ctrl;
            pd[i].protocol = PD_PROTOCOL_M2;
            ++ctrl->pd_count;
        }
        std::free(request);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int scsi_passthru_mv(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = RESULT_UNKNOWN_COMMAND;
    uint8_t* request = nullptr;
    if (in->data_length < pass_data_limit) {
        request = static_cast<uint8_t*>(std::calloc(1, in->data_length + pass_overhead));
        rc = RESULT_NO_MEMORY;
    }
    if (request != nullptr) {
        fill_request(request, in);
        const auto pass_through = get_marvell_entry<mv_pass_through_scsi_t>(ENTRY_PASS_THROUGH_SCSI);
        rc = pass_through(get_adapter(pd->ctrl), get_device(pd), request);
        out->refused = rc != 0;
        if (rc != 0) {
            std::memcpy(out->sense, request + pass_sense, pass_sense_size);
            out->unit_attention = is_unit_attention(status_not_good, out->sense);
        } else if (in->direction == IO_DIR_IN && in->data_length > 0) {
            std::memcpy(in->data, request + pass_data, in->data_length);
            out->received = count_up_to_zeros(in->data, in->data_length);
        }
        std::free(request);
    }
    TRACE_PRINT("Exiting %s,rc=%d", __func__, rc);
    return rc;
}

int dll_mv_drive_fw_update(uint8_t adapter, uint8_t device, const char* path) {
    TRACE_PRINT("Entering %s", __func__);
    const auto download = get_marvell_entry<mv_download_disk_fw_t>(ENTRY_DOWNLOAD_DISK_FW);
    const auto get_status = get_marvell_entry<mv_get_download_disk_status_t>(ENTRY_GET_DOWNLOAD_DISK_STATUS);
    int rc = RESULT_DOWNLOAD_FAILED;
    bool poll_again = download(adapter, device, path) == 0;
    for (int poll = 0; poll_again && poll < max_polls; ++poll) {
        uint8_t percentage = 0;
        uint8_t status = 0;
        get_status(adapter, device, &percentage, &status);
        TRACE_PRINT("try to check download status: percentage:%d, status:%d", percentage, status);
        const auto* row =
            std::find_if(std::begin(download_statuses), std::end(download_statuses),
                         [status](const download_status& known) { return known.status == status; });
        row = row != std::end(download_statuses) ? row : &other_download_status;
        progress_percentage(percentage);
        sleep_wait(row->wait);
        poll_again = row->poll_again;
        rc = row->result;
        note_stop_signal();
    }
    TRACE_PRINT("Exiting function %s, ERR_CODE:%d", __func__, rc);
    return rc;
}

int flash_pd_fw_mv(_pd_info* pd, const char* path) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("ctrlid:%d,deviceId:%d", pd->ctrl->ctrl_id, pd->device_id);
    const int rc = is_refused_image(path)
                       ? static_cast<int>(RESULT_IMAGE_UNREADABLE)
                       : dll_mv_drive_fw_update(get_adapter(pd->ctrl), get_device(pd), path);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
