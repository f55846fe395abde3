#include "storage/firmware_download.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/signals.h"
#include "profiles/firmware_image.h"
#include "raid/marvell_devices.h"
#include "raid/storelib_firmware.h"
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

const image_rule& image_rule_of(const _pd_info* pd) {
    const uint32_t protocol = pd->protocol;
    if (pd->ctrl->vendor == VENDOR_AVAGO) {
        return image_rule_storelib;
    }
    if (pd->ctrl->vendor == VENDOR_MV) {
        return image_rule_any;
    }
    if (protocol == PD_PROTOCOL_SAS) {
        return image_rule_sas;
    }
    if (is_sata_family(protocol)) {
        return image_rule_sata;
    }
    return protocol == PD_PROTOCOL_NVME ? image_rule_nvme : image_rule_any;
}

uint16_t count_chunks(uint32_t size, uint32_t chunk) {
    const uint32_t count = chunk == 0 ? 0 : size / chunk + (size % chunk != 0 ? 1 : 0);
    return static_cast<uint16_t>(count);
}

// Drives on the host path are reached through a handle, which the download opens for itself.
bool open_host_drive(_pd_info* pd) {
    if (pd->ctrl->vendor == VENDOR_HOST || pd->ctrl->vendor == VENDOR_CSMI) {
        pd->handle = get_handle(pd->dev_name);
        return pd->handle != 0;
    }
    return true;
}

void close_drive(_pd_info* pd) {
    close_handle(pd->handle);
    pd->handle = 0;
}

int write_buffer(_pd_info* pd, uint16_t mode, uint32_t offset, uint8_t* data, uint32_t length) {
    _scsi_cmd_in in = {};
    const int rc = set_scsi_command(pd, SCSI_WRITE_BUFFER, &in, mode, 0, offset, data, length);
    return rc != 0 ? rc : perform_scsi_command(pd, &in);
}

int download_microcode(_pd_info* pd, uint16_t subcommand, uint32_t block_offset, uint8_t* data,
                       uint32_t length) {
    _ata_cmd_in ata = {};
    _scsi_cmd_in in = {};
    int rc = set_ata_command(pd, ATA_DOWNLOAD_MICROCODE, &ata, static_cast<uint16_t>(block_offset),
                             subcommand, data, length);
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

int download_image(_pd_info* pd, uint8_t* image, uint32_t size) {
    if (pd->protocol == PD_PROTOCOL_SAS) {
        return flash_disk_fw_sas(pd, image, size, write_buffer_offsets, download_chunk);
    }
    if (is_sata_family(pd->protocol)) {
        return flash_disk_fw_ata(pd, image, size, download_microcode_offsets, download_chunk);
    }
    return pd->protocol == PD_PROTOCOL_NVME ? flash_disk_fw_nvme(pd, image, size) : 0;
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

int flash_host_pd(_pd_info* pd, const char* path, uint16_t wait_time) {
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

int download(_pd_info* pd, const char* path, uint16_t wait_time) {
    const _ctrl_info* ctrl = pd->ctrl;
    switch (ctrl->vendor) {
        case VENDOR_MV:
            return flash_pd_fw_mv(pd, path);
        case VENDOR_AVAGO:
            return FlashPdFW_BRCM(ctrl->ctrl_id, static_cast<uint16_t>(ctrl->type), pd->device_id, path,
                                  write_buffer_offsets);
        default:
            return flash_host_pd(pd, path, wait_time);
    }
}

}  // namespace

int flash_pd_fw(_pd_info* pd, profile_record* record) {
    TRACE_PRINT("Entering %s", __func__);
    const image_path path = make_image_path(record);
    TRACE_PRINT("filename:%s", image_directory);
    TRACE_PRINT("filename:%s", path.text);
    int rc = RESULT_CONTROLLER_REFUSES;
    if (may_begin()) {
        rc = download(pd, path.text, record->wait_time);
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

int flash_disk_fw_sas(_pd_info* pd, uint8_t* image, uint32_t size, uint16_t mode, uint32_t chunk) {
    TRACE_PRINT("Entering %s", __func__);
    if (mode == write_buffer_whole) {
        chunk = size;
    } else if (mode == write_buffer_offsets) {
        chunk = download_chunk;
    }
    const uint16_t count = count_chunks(size, chunk);
    int rc = open_host_drive(pd) ? 0 : static_cast<int>(RESULT_NO_HANDLE);
    uint32_t offset = 0;
    for (uint16_t i = 0; i < count && rc == 0; ++i) {
        const uint32_t remaining = size - offset;
        const uint32_t length = chunk < remaining ? chunk : remaining;
        TRACE_PRINT("Drive Type:%d, FSIZE:%lXh %d of %d, offset=%lXh, count:%lXh,wfs:%lXh",
                    static_cast<int>(pd->protocol), static_cast<unsigned long>(size), i + 1, count,
                    static_cast<unsigned long>(offset), static_cast<unsigned long>(length),
                    static_cast<unsigned long>(remaining));
        rc = write_buffer(pd, mode, offset, image + offset, length);
        offset += length;
        progress_sent(offset, size);
        held_signal();
    }
    close_drive(pd);
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
    const uint16_t count = count_chunks(size, chunk);
    int rc = open_host_drive(pd) ? 0 : static_cast<int>(RESULT_NO_HANDLE);
    uint32_t offset = 0;
    uint32_t block_offset = 0;
    for (uint16_t i = 0; i < count && rc == 0; ++i) {
        const uint32_t remaining = size - offset;
        const uint32_t length = chunk < remaining ? chunk : remaining;
        TRACE_PRINT("SATA:%d of %d Size=%lXh FSize=%lXh Offset:%lXh", i + 1, count,
                    static_cast<unsigned long>(length), static_cast<unsigned long>(size),
                    static_cast<unsigned long>(offset));
        rc = download_microcode(pd, subcommand, block_offset, image + offset, length);
        offset += length;
        block_offset += count_blocks(length);
        progress_sent(offset, size);
        held_signal();
    }
    close_drive(pd);
    // 16 bits of a code that is not 0 may be: a failure stays one.
    const auto low = static_cast<uint16_t>(rc);
    const uint16_t result = rc != 0 && low == 0 ? 1 : low;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, result);
    return result;
}

int flash_disk_fw_nvme(_pd_info* pd, uint8_t* image, uint32_t size) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = RESULT_NO_HANDLE;
    pd->handle = get_handle(pd->dev_name);
    if (pd->handle != 0) {
        rc = nvme_update_fw(pd->handle, image, size);
    }
    close_drive(pd);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
