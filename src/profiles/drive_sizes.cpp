#include "profiles/drive_sizes.h"

#include <cstdio>
#include <cstring>

#include "common/bytes.h"
#include "common/data_file.h"
#include "common/diagnostics.h"

namespace mirvok {

drive_size drive_sizes[max_drive_sizes];
int drive_sizes_result = 1;
uint16_t drive_sizes_size = 0;

namespace {

constexpr uint32_t table_signature = 0x03221965;

// The last bytes of the file.
namespace trailer {
constexpr size_t size = 8;
constexpr size_t count = 0;
constexpr size_t distance = 2;
constexpr size_t signature = 4;
}  // namespace trailer

namespace entry {
constexpr size_t size = 10;
constexpr size_t capacity_high = 0;
constexpr size_t capacity_low = 4;
constexpr size_t marketed_size = 8;
}  // namespace entry

// Reads `size` bytes that lie `distance` bytes before the end of the file. What the file does not hold stays
// zero.
void read_from_end(std::FILE* file, long distance, uint8_t* buffer, size_t size) {
    std::memset(buffer, 0, size);
    if (std::fseek(file, -distance, SEEK_END) == 0) {
        (void)!std::fread(buffer, 1, size, file);
    }
}

void read_entries(std::FILE* file, uint16_t count) {
    std::memset(drive_sizes, 0, sizeof(drive_sizes));
    for (uint16_t i = 0; i < count; ++i) {
        uint8_t bytes[entry::size];
        if (std::fread(bytes, 1, sizeof(bytes), file) != sizeof(bytes)) {
            break;
        }
        drive_sizes[i].capacity_high = load_le32(bytes + entry::capacity_high);
        drive_sizes[i].capacity_low = load_le32(bytes + entry::capacity_low);
        drive_sizes[i].size = load_le16(bytes + entry::marketed_size);
    }
    drive_sizes_size = count;
}

int read_table(std::FILE* file) {
    uint8_t bytes[trailer::size];
    read_from_end(file, trailer::size, bytes, sizeof(bytes));
    uint32_t signature = load_le32(bytes + trailer::signature);
    if (signature != table_signature) {
        TRACE_PRINT("bad sig 1 0x%X", signature);
        return 2;
    }
    uint16_t count = load_le16(bytes + trailer::count);
    uint8_t head[4];
    read_from_end(file, load_le16(bytes + trailer::distance), head, sizeof(head));
    signature = load_le32(head);
    if (signature != table_signature) {
        TRACE_PRINT("bad sig 2 0x%X", signature);
        return 3;
    }
    if (count > max_drive_sizes) {
        TRACE_PRINT("drive sizes: %d entries, the first %d are used", count,
                    static_cast<int>(max_drive_sizes));
        count = max_drive_sizes;
    }
    read_entries(file, count);
    return 0;
}

}  // namespace

int load_drive_sizes(const char* name) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 1;
    std::FILE* file = open_data_file(name);
    if (file != nullptr) {
        rc = read_table(file);
        std::fclose(file);
    }
    drive_sizes_result = rc;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

uint16_t find_drive_size1(uint32_t low, uint32_t high, uint16_t* size) {
    TRACE_PRINT("Entering %s", __func__);
    uint16_t find = 0;
    for (uint16_t i = 0; i < drive_sizes_size && find == 0; ++i) {
        if (drive_sizes[i].capacity_low == low && drive_sizes[i].capacity_high == high) {
            *size = drive_sizes[i].size;
            TRACE_PRINT("i=%d", i);
            find = 1;
        }
    }
    TRACE_PRINT("Exiting %s, find=%d", __func__, find);
    return find;
}

}  // namespace mirvok
