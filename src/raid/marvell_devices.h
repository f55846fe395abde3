// Adapters and drives behind the Marvell libraries: their lists, SCSI commands to a drive and its firmware
// download. Valid between init_mv and un_init_mv; records travel little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

#include "storage/device_model.h"
#include "transport/command_blocks.h"

namespace mirvok {

// A level of 8 characters, as ATA drives may have, is cut in the list.
constexpr size_t listed_level_width = 7;

// Writes the number of adapters. Returns 0.
int get_ctrl_count_mv(uint8_t* count);

// Returns 1 when the adapter that ctrl_id names is present, else 0.
int get_ctrl_info_mv(_ctrl_info* ctrl);

// Lists the adapter's drives, two at the most, into at most `max` records of `pd` and adds them to its
// pd_count; when the library reports more than there is room for, none. Returns the library's result or
// RESULT_NO_MEMORY.
int get_pd_list_mv(_ctrl_info* ctrl, _pd_info* pd, uint32_t max);

// Sends one SCSI command. Returns the library's result, RESULT_NO_MEMORY, or RESULT_UNKNOWN_COMMAND, with
// nothing sent, when the data does not fit the request's 16-bit size (65,472 bytes and more).
int scsi_passthru_mv(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out);

// Lets the library download the image file at `path` to the drive and waits for the outcome: at most ten
// looks at its progress, two seconds apart. Returns 0, RESULT_DOWNLOAD_FAILED, RESULT_IMAGE_LOST or
// RESULT_IMAGE_UNREADABLE (an empty image, no regular file, or the open log).
int flash_pd_fw_mv(_pd_info* pd, const char* path);
int dll_mv_drive_fw_update(uint8_t adapter, uint8_t device, const char* path);

// CRC-32 of IEEE 802.3 without its final inversion.
uint32_t veltra_calCRC32(const uint8_t* data, uint32_t length);

}  // namespace mirvok
