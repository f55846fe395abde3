#include "raid/storelib_firmware.h"

#include <algorithm>
#include <cstring>

#include "common/bytes.h"
#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/signals.h"
#include "profiles/firmware_image.h"
#include "raid/storelib_devices.h"
#include "raid/storelib_library.h"
#include "transport/command_results.h"

namespace mirvok {

namespace {

enum interface_t : uint32_t { INTERFACE_SAS = 2, INTERFACE_SATA = 3, INTERFACE_NVME = 5 };

constexpr int max_attempts = 15;
constexpr int max_polls = 10;
constexpr unsigned int announcement_wait = 30;  // seconds, as are the others
constexpr unsigned int poll_wait = 5;
constexpr unsigned int download_wait = 60;

constexpr uint32_t ctrl_info_download = 1528;  // bit 0: drive firmware download is supported now

// Controller command record of the announcement and the data block that it points at.
constexpr uint32_t command_size = 36;
constexpr uint32_t command_block_length = 0;  // 32 bits
constexpr uint32_t command_opcode = 4;        // 32 bits
constexpr uint32_t command_one = 12;          // always 1
constexpr uint32_t command_device_id = 16;    // 16 bits
constexpr uint32_t command_block = 28;        // pointer
constexpr uint32_t announce_opcode = 0x01130200;
constexpr uint32_t block_length = 40;
constexpr uint32_t block_chunk_count = 0;  // 8 bits
constexpr uint32_t block_image_size = 4;   // 32 bits
static_assert(command_block + sizeof(void*) == command_size);

struct status_text {
    int status;
    const char* text;
};
constexpr status_text announcement_texts[] = {
    {1, "FW doesn't support microcode update to multiple PDs\n"},
    {3, "One or more input parameters is invalid\n"},
    {12, "DeviceId is invalid\n"},
    {32, "FW can't allocate sufficient memory - try again later\n"},
    {50, "Microcode update already in progress\n"},
    {64, "Simultaneous updates to multiple PDs in same array is not allowed\n"},
};

constexpr int status_no_frame = 0x8015;

// Serves every chunk of every download, one at a time.
alignas(8) uint8_t frame[frame_data + download_chunk];

constexpr uint32_t count_chunks(uint32_t image_size) {
    return image_size / download_chunk + (image_size % download_chunk != 0 ? 1 : 0);
}

bool is_unchanged(std::FILE* file, const image_state& before) {
    image_state now = {};
    return get_image_state(file, &now) && now == before;
}

bool poll_controller(uint32_t ctrl_id, uint16_t ctrl_type) {
    for (int poll = 0; poll < max_polls && held_signal() == 0; ++poll) {
        uint8_t info[ctrl_info_size];
        if (GetCtrlInfo(ctrl_id, ctrl_type, info) != 0) {
            continue;
        }
        if ((info[ctrl_info_download] & 1) != 0) {
            return true;
        }
        TRACE_PRINT("supportPDFWDownload disabled, wait 10s");
        progress_wait_unless_stopped(poll_wait);
    }
    return false;
}

// Announces the download until the controller takes the announcement and then allows downloads. No download
// begins, and nothing is waited for, once a signal is held.
bool await_permission(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, uint8_t mode,
                      uint32_t image_size) {
    for (int attempt = 0; attempt < max_attempts && held_signal() == 0; ++attempt) {
        progress_attempt(attempt + 1, max_attempts);
        if (PrepareForPDFWDownload(ctrl_id, ctrl_type, device_id, mode, image_size) != 0) {
            progress_wait_unless_stopped(announcement_wait);
        } else if (poll_controller(ctrl_id, ctrl_type)) {
            return held_signal() == 0;
        }
    }
    return false;
}

int download_image(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, uint32_t interface,
                   const char* image_path, uint8_t mode) {
    std::FILE* file = nullptr;
    uint32_t image_size = 0;
    int rc = open_image(image_path, image_rule_storelib, &file, &image_size);
    if (rc != 0) {
        if (rc == RESULT_IMAGE_LOST) {
            TRACE_PRINT("Invalid file name %s", image_path);
        }
        return rc;
    }
    if (!await_permission(ctrl_id, ctrl_type, device_id, mode, image_size)) {
        TRACE_PRINT("Ctrl PD Download disabled");
        std::fclose(file);
        return RESULT_CONTROLLER_REFUSES;
    }
    rc = DoPDFWDownload_7(ctrl_id, device_id, ctrl_type, interface, file, image_size);
    std::fclose(file);
    progress_wait(download_wait);
    return rc;
}

}  // namespace

int PrepareForPDFWDownload(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, uint8_t /*mode*/,
                           uint32_t image_size) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t block[block_length] = {};
    block[block_chunk_count] = static_cast<uint8_t>(count_chunks(image_size));
    store_le32(block + block_image_size, image_size);
    TRACE_PRINT("params.cdbCount:%d", block[block_chunk_count]);

    uint8_t command[command_size] = {};
    store_le32(command + command_block_length, block_length);
    store_le32(command + command_opcode, announce_opcode);
    command[command_one] = 1;
    store_le16(command + command_device_id, device_id);
    const uint8_t* block_pointer = block;
    std::memcpy(command + command_block, &block_pointer, sizeof(block_pointer));

    _SL_LIB_CMD_PARAM_T param =
        make_storelib_param(storelib_controller_command, ctrl_id, 0, command, command_size);
    const int status = ProcessLibCommandCall(&param, ctrl_type);
    for (const status_text& row : announcement_texts) {
        if (row.status == status) {
            TRACE_PRINT("%s", row.text);
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

int GetCtrlInfo(uint32_t ctrl_id, uint16_t ctrl_type, uint8_t* buffer) {
    TRACE_PRINT("Entering %s", __func__);
    std::memset(buffer, 0, ctrl_info_size);
    _SL_LIB_CMD_PARAM_T param =
        make_storelib_param(storelib_controller_info, ctrl_id, 0, buffer, ctrl_info_size);
    const int status = ProcessLibCommandCall(&param, ctrl_type);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

int fire_pd_info(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, uint8_t* buffer) {
    TRACE_PRINT("Entering %s", __func__);
    std::memset(buffer, 0, pd_info_size);
    _SL_LIB_CMD_PARAM_T param =
        make_storelib_param(storelib_drive_info, ctrl_id, device_id, buffer, pd_info_size);
    const int status = ProcessLibCommandCall(&param, ctrl_type);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

int DoPDFWDownload(uint32_t ctrl_id, uint16_t device_id, uint16_t ctrl_type, uint32_t interface,
                   std::FILE* file, const image_state& before, uint32_t length, uint32_t offset,
                   uint8_t mode) {
    TRACE_PRINT("Entering %s", __func__);
    int status = status_no_frame;
    if (length <= download_chunk) {
        uint8_t cdb[frame_cdb_size] = {};
        uint8_t cdb_length = 16;  // also for the 10 bytes of WRITE BUFFER
        if (interface == INTERFACE_SATA) {
            fill_download_microcode_cdb(cdb, download_microcode_offsets, static_cast<uint16_t>(offset),
                                        length);
            cdb_length = 12;
        } else {
            fill_write_buffer_cdb(cdb, mode, offset, length);
        }
        std::memset(frame, 0, frame_data);  // the chunk fills the rest
        fill_frame(frame, device_id, FRAME_TO_DRIVE, 0, cdb, cdb_length, length);

        const size_t read_count = std::fread(frame + frame_data, 1, length, file);
        TRACE_PRINT("read_cnt=%Xh", static_cast<unsigned int>(read_count));
        if (get_debug() != 0) {
            hexDump("cdb:", cdb, sizeof(cdb));
        }
        status = RESULT_IMAGE_UNREADABLE;
        if (read_count == length && is_unchanged(file, before)) {
            _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_scsi_passthrough, ctrl_id, device_id,
                                                            frame, frame_data + length);
            status = ProcessLibCommandCall(&param, ctrl_type);
            const uint8_t scsi_status = frame[frame_scsi_status];
            if (status == 0 && is_refused(scsi_status, frame + frame_sense)) {
                status = scsi_status != 0 ? scsi_status : 1;
            }
            if (status != 0) {
                TRACE_PRINT(" rval: %Xh, Scsi status: 0x%X\n", status, scsi_status);
            }
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

int DoPDFWDownload_7(uint32_t ctrl_id, uint16_t device_id, uint16_t ctrl_type, uint32_t interface,
                     std::FILE* file, uint32_t image_size) {
    TRACE_PRINT("Entering %s", __func__);
    image_state before = {};
    int rc = get_image_state(file, &before) && before.size == int64_t{image_size} ? 0 : 1;
    uint32_t chunk = 1;
    uint32_t block_offset = 0;
    uint32_t offset = 0;
    while (rc == 0 && offset < image_size) {
        const uint32_t length = std::min(download_chunk, image_size - offset);
        TRACE_PRINT("count:%d, dataLength:0x%X, offset:0x%X", chunk, length, offset);
        const int status =
            DoPDFWDownload(ctrl_id, device_id, ctrl_type, interface, file, before, length,
                           interface == INTERFACE_SATA ? block_offset : offset, write_buffer_offsets);
        rc = status == 0 ? 0 : 1;
        ++chunk;
        offset += length;
        block_offset += count_blocks(download_chunk);
        progress_sent(offset, image_size);
        note_stop_signal();
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int FlashPdFW_BRCM(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, const char* image_path,
                   uint8_t mode) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = RESULT_NO_DRIVE_INFORMATION;
    uint8_t info[pd_info_size];
    const int status = fire_pd_info(ctrl_id, ctrl_type, device_id, info);
    if (status != 0) {
        TRACE_PRINT("GetPdInfo returned rval: %d\n", status);
    } else {
        TRACE_PRINT("device_id:%d", device_id);
        const uint32_t interface = get_pd_interface(info);
        if (interface == INTERFACE_SAS || interface == INTERFACE_SATA || interface == INTERFACE_NVME) {
            rc = download_image(ctrl_id, ctrl_type, device_id, interface, image_path, mode);
        } else {
            TRACE_PRINT("Device type should be either SAS or SATA or NVMe\n");
            rc = RESULT_PROTOCOL_NOT_SUPPORTED;
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
