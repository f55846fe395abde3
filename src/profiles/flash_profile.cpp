#include "profiles/flash_profile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/bytes.h"
#include "common/data_file.h"
#include "common/diagnostics.h"
#include "common/text.h"

namespace mirvok {

namespace {

constexpr size_t header_size = 128;
constexpr size_t header_count = 38;
constexpr size_t record_size = 128;

namespace number {
constexpr size_t type = 36;
constexpr size_t wait_time = 38;
constexpr size_t size = 126;
}  // namespace number

struct text_field {
    size_t offset;
    size_t width;
    char (profile_record::*field)[32];
};

constexpr text_field text_fields[] = {
    {0, 12, &profile_record::part_number},  {12, 24, &profile_record::product_id},
    {42, 10, &profile_record::fw_level},    {52, 20, &profile_record::image_name},
    {74, 4, &profile_record::spare_text1},  {78, 4, &profile_record::spare_text2},
    {84, 10, &profile_record::spare_text3}, {98, 12, &profile_record::tpro},
    {110, 8, &profile_record::tfru},
};

void read_record(profile_record* record, const uint8_t* bytes) {
    for (const text_field& row : text_fields) {
        copy_field(record->*row.field, bytes + row.offset, row.width);
    }
    record->type = load_le16(bytes + number::type);
    record->wait_time = load_le16(bytes + number::wait_time);
    record->size = load_le16(bytes + number::size);
}

profile* allocate_profile(uint16_t count) {
    // The records stand behind the header, and are written as they are read. The size cannot wrap: 65,535
    // records stay far below.
    auto* block = static_cast<profile*>(std::malloc(sizeof(profile) + count * sizeof(profile_record)));
    if (block != nullptr) {
        block->count = count;
        block->records = reinterpret_cast<profile_record*>(block + 1);
    }
    return block;
}

int read_records(std::FILE* file, profile** out) {
    uint8_t header[header_size];
    const size_t read = std::fread(header, 1, sizeof(header), file);
    if (get_debug() != 0) {
        hexDump("bin header", header, read);
    }
    if (read != sizeof(header)) {
        print_system_error("Error reading profile header");
        return 2;
    }
    const uint16_t count = load_le16(header + header_count);
    TRACE_PRINT("Number of entries:%d", count);
    profile* loaded = allocate_profile(count);
    *out = loaded;
    if (loaded == nullptr) {
        print_system_error("malloc fail");
        return 3;
    }
    for (uint16_t i = 0; i < count; ++i) {
        uint8_t bytes[record_size];
        if (std::fread(bytes, 1, sizeof(bytes), file) != sizeof(bytes)) {
            TRACE_PRINT("Read %i records", i + 1);
            print_system_error("Error reading records");
            std::free(loaded);
            *out = nullptr;
            return 4;
        }
        read_record(&loaded->records[i], bytes);
    }
    return 0;
}

}  // namespace

int load_profile(const char* path, profile** out) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("profile bin header size:%d, record size:%d", static_cast<int>(header_size),
                static_cast<int>(record_size));
    int rc = 1;
    errno = 0;
    std::FILE* file = open_data_file(path);
    if (file == nullptr) {
        print_system_error("Error opening profile file");
    } else {
        rc = read_records(file, out);
        std::fclose(file);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int find_profile_record(const char* key, profile* prof, profile_record** out, int by_pid) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("key:%s,len:%zu", key, std::strlen(key));
    int find = 1;
    const auto text = by_pid != 0 ? &profile_record::product_id : &profile_record::part_number;
    profile_record* const end = prof->records + prof->count;
    profile_record* const record = std::find_if(
        prof->records, end, [&](const profile_record& one) { return begins_with(key, one.*text); });
    if (key[0] != '\0' && record != end) {
        *out = record;
        find = 0;
    }
    TRACE_PRINT("Exiting %s, find:%d", __func__, find);
    return find;
}

}  // namespace mirvok
