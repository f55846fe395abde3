#include "profiles/smart_profile.h"

#include <cstdio>
#include <cstring>

#include "common/bytes.h"
#include "common/data_file.h"
#include "common/diagnostics.h"
#include "common/text.h"

namespace mirvok {

namespace {

constexpr size_t signature_size = 4;

constexpr long trailer_size = 8;
constexpr size_t trailer_count = 0;
constexpr size_t trailer_signature = 4;

constexpr size_t record_size = 64;
constexpr size_t record_part_number = 0;
constexpr size_t record_part_number_width = 12;
constexpr size_t record_product_id = 12;
constexpr size_t record_product_id_width = 32;
constexpr size_t record_drive_type = 46;
constexpr size_t record_life_threshold = 48;
constexpr size_t record_life_attr_id = 50;
constexpr size_t record_written_attr_id = 52;
constexpr size_t record_warranty_gb = 54;
constexpr size_t record_temp_attr_id = 58;
constexpr size_t record_spec_max_temp = 60;
constexpr size_t record_smart_type = 62;

void read_record(_smart_profile_record* record, const uint8_t* bytes) {
    copy_field(record->part_number, bytes + record_part_number, record_part_number_width);
    copy_field(record->product_id, bytes + record_product_id, record_product_id_width);
    record->drive_type = load_le16(bytes + record_drive_type);
    record->life_threshold = load_le16(bytes + record_life_threshold);
    record->life_attr_id = load_le16(bytes + record_life_attr_id);
    record->warranty_gb = load_le32(bytes + record_warranty_gb);
    record->written_attr_id = load_le16(bytes + record_written_attr_id);
    record->spec_max_temp = load_le16(bytes + record_spec_max_temp);
    record->temp_attr_id = load_le16(bytes + record_temp_attr_id);
    record->smart_type = load_le16(bytes + record_smart_type);
}

int read_records(std::FILE* file, _smart_profile* profile) {
    for (size_t i = 0; i < profile->count; ++i) {
        uint8_t bytes[record_size];
        const size_t length = std::fread(bytes, 1, record_size, file);
        if (length < record_size) {
            profile->count = 0;
            TRACE_PRINT("bytes_read:%d,sizeof(record):%d", static_cast<int>(length),
                        static_cast<int>(record_size));
            return SMART_PROFILE_INVALID;
        }
        read_record(&profile->records[i], bytes);
    }
    return 0;
}

int read_profile(std::FILE* file, _smart_profile* profile) {
    // What a short file cannot give counts as zero and fails at the signature.
    uint8_t trailer[trailer_size] = {};
    uint8_t head[signature_size] = {};
    if (std::fseek(file, -trailer_size, SEEK_END) == 0) {
        (void)!std::fread(trailer, 1, trailer_size, file);
    }
    const uint16_t count = load_le16(trailer + trailer_count);
    if (count > SMART_PROFILE_MAX_RECORDS) {
        return SMART_PROFILE_TOO_LARGE;
    }
    profile->count = count;
    if (load_le32(trailer + trailer_signature) != SMART_PROFILE_SIGNATURE) {
        TRACE_PRINT("bad sig1");
        return SMART_PROFILE_INVALID;
    }
    std::rewind(file);
    (void)!std::fread(head, 1, signature_size, file);
    if (load_le32(head) != SMART_PROFILE_SIGNATURE) {
        TRACE_PRINT("bad sig2");
        return SMART_PROFILE_INVALID;
    }
    return read_records(file, profile);
}

}  // namespace

int load_profiles(const char* path, _smart_profile* profile) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = SMART_PROFILE_NOT_OPENED;
    std::FILE* file = open_data_file(path);
    if (file != nullptr) {
        rc = read_profile(file, profile);
        std::fclose(file);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int find_profile(const char* key, _smart_profile* prof, _smart_profile_record** out, unsigned short by_pid) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 1;
    if (get_verbose() > 2) {
        TRACE_PRINT("drive part number:%s,len:%d", key, static_cast<int>(std::strlen(key)));
    }
    for (size_t i = 0; rc != 0 && i < prof->count; ++i) {
        _smart_profile_record& record = prof->records[i];
        const char* field = by_pid == 0 ? record.part_number : record.product_id;
        if (get_verbose() > 3) {
            TRACE_PRINT(by_pid == 0 ? "profile part number:%s" : "profile product id:%s", field);
        }
        if (begins_with(key, field)) {
            *out = &record;
            rc = 0;
        }
    }
    TRACE_PRINT("Exiting %s, find:%d", __func__, rc);
    return rc;
}

}  // namespace mirvok
