// Firmware image files: the checks that come before anything is sent, the same for every path.
#pragma once

#include <cstdint>
#include <cstdio>

namespace mirvok {

constexpr uint32_t download_chunk = 32768;  // bytes of one SCSI or ATA download command

// What the download of a path can carry.
struct image_rule {
    uint32_t max_size;  // bytes that the command fields can address
    uint32_t multiple;  // the size is a multiple of this many bytes
};

// WRITE BUFFER has a 24-bit buffer offset (SPC-4, 6.49), DOWNLOAD MICROCODE a 16-bit block offset
// (ACS-3, DOWNLOAD MICROCODE).
constexpr image_rule image_rule_sas = {1U << 24, 1};
constexpr image_rule image_rule_sata = {1U << 25, 1};
// NVMe counts dwords (NVMe 1.4, 5.12).
constexpr image_rule image_rule_nvme = {UINT32_MAX, 4};
// The announcement of a download to a storelib controller counts chunks in 8 bits.
constexpr image_rule image_rule_storelib = {255 * download_chunk, 1};
constexpr image_rule image_rule_any = {UINT32_MAX, 1};

// An image file as it stands, so that a change is seen: two images must not be mixed on a drive.
struct image_state {
    int64_t size;  // bytes
    int64_t seconds;
    int64_t nanoseconds;
    bool operator==(const image_state&) const = default;
};

// Reads the state of an open image. Returns false when it cannot be told.
bool get_image_state(std::FILE* file, image_state* state);

// Whether `path` is something that must not be read as an image: no regular file (a pipe would be waited
// for), or the open log. What is not there is not refused.
bool is_refused_image(const char* path);

// Opens an image for reading and examines it. Returns 0 with the open file, which the caller closes, and its
// size in bytes; RESULT_IMAGE_LOST when it cannot be opened, RESULT_IMAGE_UNREADABLE when it is empty or no
// regular file, RESULT_DOWNLOAD_FAILED when its size breaks the rule.
int open_image(const char* path, const image_rule& rule, std::FILE** file, uint32_t* size);

// Reads the whole image into `buffer`, which holds `size` bytes. Returns 0, or RESULT_IMAGE_UNREADABLE when
// less could be read or the file changed meanwhile. *read_count receives the bytes read.
int read_image(std::FILE* file, uint8_t* buffer, uint32_t size, uint32_t* read_count);

}  // namespace mirvok
