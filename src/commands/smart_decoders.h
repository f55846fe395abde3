// What a drive's SMART data say about temperature, life and bytes written: the ATA attribute table, the SAS
// vendor log page in its four layouts, the NVMe health log, and the registers that SMART RETURN STATUS
// returns.
#pragma once

#include <cstdint>

#include "commands/drive_lookup.h"
#include "profiles/smart_profile.h"
#include "storage/device_model.h"

namespace mirvok {

// Bits of _smart_info::exceeded.
enum exceeded_t : uint8_t {
    EXCEED_TEMPERATURE = 0x01,
    EXCEED_LIFE = 0x02,
    EXCEED_WRITTEN = 0x04,
};

// What the report alone tells of a drive's health, with flags of the same kind.
struct smart_health {
    uint8_t prediction_valid;  // a SATA drive has answered whether it exceeds a threshold
    uint8_t power_on_hours_valid;
    uint8_t log_valid;  // those of the NVMe health log: the five that follow
    uint8_t critical_warning;
    uint8_t available_spare;  // percent
    uint8_t spare_threshold;  // percent
    uint64_t media_errors;
    uint64_t unsafe_shutdowns;
    uint64_t power_on_hours;
};

// The SMART results of one drive, all zero until a value is found; a value is set together with its flag.
struct _smart_info {
    uint16_t temperature;  // degrees Celsius
    uint16_t temperature_valid;
    uint16_t life;  // percent remaining
    uint16_t life_valid;
    uint16_t written_valid;
    uint64_t written_raw;   // host-writes counter, in the unit of the record's drive_type
    char written_text[32];  // bytes written, formatted by calculate_smart
    uint8_t exceeded;       // exceeded_t bits, set by calculate_smart
    uint16_t pfa_trip;      // 1 when the drive reports an exceeded threshold
    smart_health health = {};
};

// One reported drive. The drive belongs to the inventory, the record to the loaded profile.
struct _smart_drive {
    _pd_info* pd;
    _smart_info info;
    _smart_profile_record* matched_record;
    match_t match;
};

constexpr uint32_t smart_data_size = 512;   // ATA SMART data, SAS log page, NVMe health log as read here
constexpr uint32_t smart_status_size = 32;  // result buffer of SMART RETURN STATUS
constexpr uint32_t sas_smart_page = 0x34;   // the maker's vendor log page

// Decodes ATA SMART data (512 bytes): the attribute table in the vendor-specific bytes of what SMART READ
// DATA returns (ACS-3, 7.48.6). kind: SMART feature code of the data; ATA_SMART_READ_DATA alone is decoded.
void parse_veltra_smart_info_ata(const void* data, unsigned int kind, _smart_info* info,
                                 const _smart_profile_record* record);

// Decodes SAS log page 34h (512 bytes) in the layout that the record's smart_type names; an unknown layout
// finds nothing. page: the page code read.
void parse_veltra_smart_info_sas(const void* data, unsigned int page, _smart_info* info,
                                 const _smart_profile_record* record);

// Decodes the NVMe health log (512 bytes; NVMe 1.4, 5.14.1.2); all values are found.
void parse_veltra_smart_info_nvme(const void* data, _smart_info* info);

// Puts the LBA mid and LBA high registers that an ATA command on the host path returned in its 64 bytes of
// sense data where parse_veltra_smart_returnStatus_sata looks for them: from the ATA Status Return descriptor
// of descriptor format (SPC-4, 4.5.2), or from the COMMAND-SPECIFIC INFORMATION field of fixed format
// (SPC-4, 4.5.3), as SAT-3 fills them after ATA PASS-THROUGH. Sense data without them leave `status` (32
// bytes) as it is.
void take_returned_registers(const uint8_t* sense, uint8_t* status);

// Sets pfa_trip, and whether it was answered, by the LBA mid and LBA high registers in the 32-byte result
// buffer of SMART RETURN STATUS (ACS-3, 7.48.8): on a host adapter in bytes 3 and 4, elsewhere in bytes 17
// and 19, where descriptor-format sense data hold them.
void parse_veltra_smart_returnStatus_sata(const void* data, _smart_drive* drive);

}  // namespace mirvok
