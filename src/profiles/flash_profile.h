// The flash profile file: the maker's drive models, how each is recognised and the firmware that it should
// run.
#pragma once

#include <cstdint>

namespace mirvok {

// One record of the file; every text is NUL-terminated.
struct profile_record {
    char part_number[32];
    char product_id[32];
    uint32_t type;       // drive type number, shown by find
    uint16_t wait_time;  // seconds to wait after a download
    char fw_level[32];
    char image_name[32];  // relative to files/
    char spare_text1[32];
    char spare_text2[32];
    char spare_text3[32];
    char tpro[32];
    char tfru[32];
    uint16_t size;  // nominal capacity in GB
};

// The loaded file, one heap block: `count` records follow the header in file order.
struct profile {
    uint32_t count;
    profile_record* records;  // into the same block
};

// Loads a file. Returns 0 and the profile in *out, which the caller owns and frees; 1 when the file cannot be
// opened, 2 when its header is short (*out is untouched); 3 when memory is short, 4 when a record is short
// (*out is null).
int load_profile(const char* path, profile** out);

// Finds the first record whose text (part_number, or product_id with by_pid not 0) is a prefix of `key`.
// Returns 0 and the record in *out, or 1 and leaves *out; an empty key finds nothing.
int find_profile_record(const char* key, profile* prof, profile_record** out, int by_pid);

}  // namespace mirvok
