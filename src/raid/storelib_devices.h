// Controllers and drives behind the storelib libraries: their lists, what the controller knows of a drive,
// and SCSI commands to a drive. Records travel little-endian.
#pragma once

#include <cstdint>

#include "raid/storelib_library.h"
#include "storage/device_model.h"
#include "transport/command_blocks.h"

namespace mirvok {

// Drive information, as far as it is read.
constexpr uint32_t pd_info_size = 512;
constexpr uint32_t pd_info_fw_state = 184;       // 16 bits
constexpr uint32_t pd_info_interface = 189;      // interface type in the high 4 bits
constexpr uint32_t pd_info_download_flag = 362;  // bit 0: the drive refuses firmware downloads

constexpr uint32_t get_pd_interface(const uint8_t* pd_info) {
    return pd_info[pd_info_interface] >> 4;
}

// SCSI pass-through frame: a header, then the data.
constexpr uint32_t frame_device_id = 0;     // 16 bits
constexpr uint32_t frame_one = 2;           // always 1
constexpr uint32_t frame_direction = 4;     // frame_direction_t
constexpr uint32_t frame_timeout = 8;       // 16 bits
constexpr uint32_t frame_scsi_status = 10;  // returned
constexpr uint32_t frame_cdb_length = 11;
constexpr uint32_t frame_cdb = 12;
constexpr uint32_t frame_cdb_size = 16;
constexpr uint32_t frame_sense = 28;  // returned
constexpr uint32_t frame_sense_size = 32;
constexpr uint32_t frame_data_length = 60;  // 32 bits
constexpr uint32_t frame_data = 64;

enum frame_direction_t : uint8_t { FRAME_NO_DATA = 0, FRAME_TO_DRIVE = 1, FRAME_FROM_DRIVE = 2 };

// Fills a cleared frame's header; `cdb` has 16 bytes.
void fill_frame(uint8_t* frame, uint16_t device_id, frame_direction_t direction, uint16_t timeout,
                const uint8_t* cdb, uint8_t cdb_length, uint32_t data_length);

// Lists the controllers of the library of `type` into at most `max` records of `ctrl_table`, numbered from
// `first_num`; `count` receives the number of records filled. Returns the library's status.
int get_ctrl_list_avago(ctrl_type_t type, uint32_t* count, _ctrl_info* ctrl_table, uint32_t max,
                        uint32_t first_num);

// Lists the disks of a controller into at most `max` records of `pd_table` and counts them in its pd_count.
// Returns the library's status or RESULT_NO_MEMORY.
int get_pd_list_avago(_ctrl_info* ctrl, _pd_info* pd_table, uint32_t max);

// Reads the drive information into protocol, status and fw_download_not_allowed, which stay as they were when
// that fails. Returns the library's status.
int get_pd_info_avago(_pd_info* pd);

// Sends one SCSI command. For commands without data, the sense data of a success goes to the caller's buffer:
// it holds the registers that ATA PASS-THROUGH with CK_COND asks for (SAT-3, 12.2). Returns 0, the SCSI
// status, the library's status or RESULT_NO_MEMORY.
int scsi_passthru_avago(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out);

}  // namespace mirvok
