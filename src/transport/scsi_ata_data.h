// What SCSI and ATA drives return: INQUIRY, VPD page C4h, SMART log B0h, IDENTIFY DEVICE and READ CAPACITY
// data, copied into the drive record. `length` is not consulted: callers hand over whole buffers (512 bytes;
// 32 or 8 for the capacities) that they zeroed before the command.
#pragma once

#include <cstdint>

#include "storage/device_model.h"

namespace mirvok {

// Data that end earlier tell nothing of the drive: INQUIRY reaches over the level, IDENTIFY DEVICE over the
// words with the state of SMART (85 to 87).
constexpr uint32_t inquiry_needed = 36;
constexpr uint32_t identify_needed = 88 * 2;

// SMART enabled or supported, as far as IDENTIFY DEVICE tells.
constexpr uint16_t smart_unknown = 0xFFFF;

// Standard INQUIRY data (SPC-4, 6.4.2) with the maker's fields in its vendor-specific area. A device that is
// not a connected disk only has its protocol set, to PD_PROTOCOL_UNKNOWN.
void parse_inquery(_pd_info* pd, const void* data, uint32_t length);

// The maker's VPD page C4h. Returns 0, RESULT_WRONG_PAGE or RESULT_WRONG_REVISION; the record is untouched
// then.
uint32_t parse_vpd_c4(_pd_info* pd, const void* data, uint32_t length);

// The maker's SMART log at address B0h. Returns 0 or RESULT_WRONG_PAGE; the record is untouched then.
uint32_t parse_vpd_b0(_pd_info* pd, const void* data, uint32_t length);

// ATA IDENTIFY DEVICE data (ACS-3, 7.12.7) with the maker's fields packed into the model number.
void parse_identify(_pd_info* pd, const void* data, uint32_t length);

// SMART feature set supported (word 82) and enabled (word 85) of IDENTIFY DEVICE data: 1 or 0, or
// smart_unknown when the words do not carry the mark of valid content (bits 15:14 of words 83 and 87 are
// 01b).
uint16_t is_smart_supported(const void* data, uint32_t length);
uint16_t is_smart_enabled(const void* data, uint32_t length);

// READ CAPACITY (16) and (10) parameter data (SBC-3, 5.16 and 5.15): the last logical block address.
void parse_scsi_capacity_16(_pd_info* pd, const void* data, uint32_t length);
void parse_scsi_capacity_10(_pd_info* pd, const void* data, uint32_t length);

}  // namespace mirvok
