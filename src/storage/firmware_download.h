// Firmware download to one drive: the image is found, the method chosen by the drive's path and protocol, and
// sent whole and in order.
#pragma once

#include <cstdint>

#include "profiles/flash_profile.h"
#include "storage/device_model.h"

namespace mirvok {

// Downloads the record's image, files/<image_name>, to the drive, and waits the record's time after a
// download of its own. Returns 0 or a result code, RESULT_CONTROLLER_REFUSES when a signal that ends the run
// came before the first byte; nothing is retried, and nothing is sent of an image that
// cannot be sent whole.
int flash_pd_fw(_pd_info* pd, profile_record* record);

// The downloads of the paths: of the image file at `path`, with the same results. Only the first one waits.
int download_host(_pd_info* pd, const char* path, uint16_t wait_time);
int download_avago(_pd_info* pd, const char* path, uint16_t wait_time);
int download_mv(_pd_info* pd, const char* path, uint16_t wait_time);

// Examines the record's image as the download to this drive would before it sends anything. Returns 0 or a
// result code.
int check_pd_fw(const _pd_info* pd, const profile_record* record);

// WRITE BUFFER download (SPC-4, 6.49) of `size` bytes: mode 5 in one command, mode 7 in pieces of 32,768
// bytes, any other mode in pieces of `chunk` bytes. Returns the code of the last command, 0 when all was
// sent.
int flash_disk_fw_sas(_pd_info* pd, uint8_t* image, uint32_t size, uint16_t mode, uint32_t chunk);

// DOWNLOAD MICROCODE download (ACS-3, DOWNLOAD MICROCODE) of `size` bytes: subcommand 7 in one command, any
// other as subcommand 3 in pieces of `chunk` bytes. Returns the code of the last command, RESULT_NO_HANDLE,
// or 0 when all was sent.
uint16_t flash_disk_fw_ata(_pd_info* pd, uint8_t* image, uint32_t size, uint16_t subcommand, uint32_t chunk);

// NVMe firmware download and commit. Returns 0, RESULT_NO_HANDLE, or what nvme_update_fw returns.
int flash_disk_fw_nvme(_pd_info* pd, uint8_t* image, uint32_t size);

}  // namespace mirvok
