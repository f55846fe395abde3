// The SMART profile file: for each of the maker's solid-state drives, how it is recognised, where its SMART
// data keep life, temperature and bytes written, and the limits it is judged against.
//
// File, little-endian: u32 signature; records of 64 bytes; in the last 8 bytes of the file a u16 count, a u16
// that is not interpreted and the signature again.
#pragma once

#include <cstdint>

namespace mirvok {

constexpr uint32_t SMART_PROFILE_SIGNATURE = 0xDEBEBEDE;
constexpr uint32_t SMART_PROFILE_MAX_RECORDS = 999;

struct _smart_profile_record {
    char part_number[13];
    char product_id[33];
    uint16_t drive_type;      // unit of the host-writes counter
    uint16_t life_threshold;  // percent; less life remaining than this is flagged
    uint16_t life_attr_id;    // ids of the ATA attribute or SAS log page entry that holds each value
    uint32_t warranty_gb;     // bytes written beyond this many GB are flagged
    uint16_t written_attr_id;
    uint16_t spec_max_temp;  // degrees Celsius; a temperature above it is flagged
    uint16_t temp_attr_id;
    uint16_t smart_type;  // layout of the SAS vendor log page: 1, 2, 3 or 5
};

struct _smart_profile {
    _smart_profile_record records[SMART_PROFILE_MAX_RECORDS];
    uint16_t count;
};

// Results of load_profiles other than 0.
enum smart_profile_result_t : int {
    SMART_PROFILE_NOT_OPENED = 1,
    SMART_PROFILE_INVALID = 3,    // a wrong signature or a short record
    SMART_PROFILE_TOO_LARGE = 4,  // a count above SMART_PROFILE_MAX_RECORDS
};

// Reads the file at `path` into `profile`; only `count` and the records below it are written. After a short
// record the profile is empty, after a wrong signature it keeps the count that the file gave.
int load_profiles(const char* path, _smart_profile* profile);

// Finds the first record whose part number (by_pid 0) or product identification (any other by_pid) is a
// prefix of `key`. Returns 0 and points *out at the record, which lives as long as the profile; 1 when there
// is none, with *out left as it was.
int find_profile(const char* key, _smart_profile* prof, _smart_profile_record** out, unsigned short by_pid);

}  // namespace mirvok
