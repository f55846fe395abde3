#include "storage/firmware_download.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/signals.h"
#include "profiles/firmware_image.h"
#include "raid/marvell_devices.h"
#include "raid/storelib_firmware.h"
#include "storage/drive_node.h"
#include "storage/drive_paths.h"
#include "transport/host_device.h"
#include "transport/routing.h"

namespace mirvok {

namespace {

constexpr char image_directory[] = "files/";

struct image_path {
    char text[sizeof(image_directory) + sizeof(profile_record::image_name)];
};

image_path make_image_path(const profile_record* record) {
    image_path path;
    std::snprintf(path.text, sizeof(path.text), "%s%s", image_directory, record->image_name);
    return path;
}

uint16_t count_chunks(uint32_t size, uint32_t chunk) {
    const uint32_t count = chunk == 0 ? 0 : size / chunk + (size % chunk != 0 ? 1 : 0);
    return static_cast<uint16_t>(count);
}

// A piece of an image, and the whole that it belongs to: sizes in bytes.
struct image_piece {
    uint32_t index;  // from 0
    uint16_t count;  // of all pieces
    uint32_t offset;
    uint32_t length;
    uint32_t chunk;  // length of every piece but the last
    uint32_t size;   // of the image
};

// Sends one piece in the given mode. Returns 0 only when the drive took it.
using piece_sender = int(_pd_info* pd, uint16_t mode, const image_piece& piece, uint8_t* data);

int write_buffer(_pd_info* pd, uint16_t mode, const image_piece& piece, uint8_t* data) {
    TRACE_PRINT("Drive Type:%d, FSIZE:%lXh %d of %d, offset=%lXh, count:%lXh,wfs:%lXh",
                static_cast<int>(pd->protocol), static_cast<unsigned long>(piece.size),
                static_cast<int>(piece.index) + 1, piece.count, static_cast<unsigned long>(piece.offset),
                static_cast<unsigned long>(piece.length),
                static_cast<unsigned long>(piece.size - piece.offset));
    _scsi_cmd_in in = {};
    const int rc = set_scsi_command(pd, SCSI_WRITE_BUFFER, &in, mode, 0, piece.offset, data, piece.length);
    return rc != 0 ? rc : perform_scsi_command(pd, &in);
}

int download_microcode(_pd_info* pd, uint16_t subcommand, const image_piece& piece, uint8_t* data) {
    TRACE_PRINT("SATA:%d of %d Size=%lXh FSize=%lXh Offset:%lXh", static_cast<int>(piece.index) + 1,
                piece.count, static_cast<unsigned long>(piece.length), static_cast<unsigned long>(piece.size),
                static_cast<unsigned long>(piece.offset));
    const uint32_t block_offset = piece.index * count_blocks(piece.chunk);
    _ata_cmd_in ata = {};
    _scsi_cmd_in in = {};
    int rc = set_ata_command(pd, ATA_DOWNLOAD_MICROCODE, &ata, static_cast<uint16_t>(block_offset),
                             subcommand, data, piece.length);
    if (rc == 0) {
        rc = set_ata_scsi_command(pd, &in, &ata);
    }
    if (rc == 0) {
        rc = perform_scsi_command(pd, &in);
    }
    if (rc != 0) {
        TRACE_PRINT("flash command fail: rc=%d", rc);
    }
    return rc;
}

// Sends an image in order, and nothing behind a piece that was not taken.
int send_pieces(_pd_info* pd, uint8_t* image, uint32_t size, uint32_t chunk, uint16_t mode,
                piece_sender* send) {
    const uint16_t count = count_chunks(size, chunk);
    int rc = path_of(pd->ctrl).opens_for_pieces && !open_node(pd) ? int{RESULT_NO_HANDLE} : 0;
    uint32_t offset = 0;
    for (uint32_t i = 0; i < count && rc == 0; ++i) {
        const uint32_t length = std::min(chunk, size - offset);
        rc = send(pd, mode, {i, count, offset, length, chunk, size}, image + offset);
        offset += length;
        progress_sent(offset, size);
        note_stop_signal();
    }
    close_node(pd);
    return rc;
}

int download_image(_pd_info* pd, uint8_t* image, uint32_t size) {
    switch (drive_kind(pd->protocol)) {
        case DRIVE_SAS:
            return flash_disk_fw_sas(pd, image, size, write_buffer_offsets, download_chunk);
        case DRIVE_SATA:
            return flash_disk_fw_ata(pd, image, size, download_microcode_offsets, download_chunk);
        case DRIVE_NVME:
            return flash_disk_fw_nvme(pd, image, size);
        default:
            return 0;
    }
}

// At a page boundary, from which the NVMe download can send without a copy of its own.
int load_image(std::FILE* file, uint32_t size, uint8_t** image) {
    void* buffer = nullptr;
    if (posix_memalign(&buffer, static_cast<size_t>(getpagesize()), size) != 0) {
        return RESULT_NO_MEMORY;
    }
    *image = static_cast<uint8_t*>(buffer);
    uint32_t read_count = 0;
    const int rc = read_image(file, *image, size, &read_count);
    TRACE_PRINT("read_cnt:%lXh,filesize:%lXh", static_cast<unsigned long>(read_count),
                static_cast<unsigned long>(size));
    return rc;
}

// No download begins once a signal came that ends the run.
bool may_begin() {
    return held_signal() == 0;
}

}  // namespace

int flash_pd_fw(_pd_info* pd, profile_record* record) {
    TRACE_PRINT("Entering %s", __func__);
    const image_path path = make_image_path(record);
    TRACE_PRINT("filename:%s", image_directory);
    TRACE_PRINT("filename:%s", path.text);
    int rc = RESULT_CONTROLLER_REFUSES;
    if (may_begin()) {
        rc = path_of(pd->ctrl).download(pd, path.text, record->wait_time);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int check_pd_fw(const _pd_info* pd, const profile_record* record) {
    TRACE_PRINT("Entering %s", __func__);
    std::FILE* file = nullptr;
    uint32_t size = 0;
    const int rc = open_image(make_image_path(record).text, image_rule_of(pd), &file, &size);
    if (rc == 0) {
        std::fclose(file);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int download_host(_pd_info* pd, const char* path, uint16_t wait_time) {
    std::FILE* file = nullptr;
    uint32_t size = 0;
    int rc = open_image(path, image_rule_of(pd), &file, &size);
    if (rc != 0) {
        return rc;
    }
    uint8_t* image = nullptr;
    rc = load_image(file, size, &image);
    std::fclose(file);
    if (rc == 0 && !may_begin()) {
        rc = RESULT_CONTROLLER_REFUSES;
    } else if (rc == 0 && download_image(pd, image, size) != 0) {
        rc = RESULT_DOWNLOAD_FAILED;
    }
    std::free(image);
    if (rc == 0) {
        TRACE_PRINT("FLASH OK");
        progress_wait(wait_time);
    }
    return rc;
}

int download_avago(_pd_info* pd, const char* path, uint16_t /*wait_time*/) {
    const _ctrl_info* ctrl = pd->ctrl;
    return FlashPdFW_BRCM(ctrl->ctrl_id, static_cast<uint16_t>(ctrl->type), pd->device_id, path,
                          write_buffer_offsets);
}

int download_mv(_pd_info* pd, const char* path, uint16_t /*wait_time*/) {
    return flash_pd_fw_mv(pd, path);
}

int flash_disk_fw_sas(_pd_info* pd, uint8_t* image, uint32_t size, uint16_t mode, uint32_t chunk) {
    TRACE_PRINT("Entering %s", __func__);
    if (mode == write_buffer_whole) {
        chunk = size;
    } else if (mode == write_buffer_offsets) {
        chunk = download_chunk;
    }
    const int rc = send_pieces(pd, image, size, chunk, mode, write_buffer);
    TRACE_PRINT("Exiting %s, rc = %xh", __func__, static_cast<unsigned int>(rc));
    return rc;
}

uint16_t flash_disk_fw_ata(_pd_info* pd, uint8_t* image, uint32_t size, uint16_t subcommand, uint32_t chunk) {
    TRACE_PRINT("Entering %s", __func__);
    if (subcommand == download_microcode_whole) {
        chunk = size;
    } else {
        subcommand = download_microcode_offsets;
    }
    const int rc = send_pieces(pd, image, size, chunk, subcommand, download_microcode);
    // Only 16 bits of a result are kept: a failure whose low 16 bits are 0 must not become a success.
    const auto low = static_cast<uint16_t>(rc);
    const uint16_t result = rc != 0 && low == 0 ? 1 : low;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, result);
    return result;
}

int flash_disk_fw_nvme(_pd_info* pd, uint8_t* image, uint32_t size) {
    TRACE_PRINT("Entering %s", __func__);
    const int rc =
        open_node(pd) ? nvme_update_fw(pd->handle, image, size, &pd->committed) : int{RESULT_NO_HANDLE};
    close_node(pd);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
