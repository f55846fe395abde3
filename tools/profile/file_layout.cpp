#include "file_layout.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "common/bytes.h"

namespace mirvok {

namespace {

constexpr record_field flash_fields[] = {
    {"part_number", 0, 12, FORM_TEXT}, {"product_id", 12, 24, FORM_TEXT}, {"type", 36, 2, FORM_NUMBER},
    {"wait_time", 38, 2, FORM_NUMBER}, {"fw_level", 42, 10, FORM_TEXT},   {"image_name", 52, 20, FORM_TEXT},
    {"spare_text1", 74, 4, FORM_TEXT}, {"spare_text2", 78, 4, FORM_TEXT}, {"spare_text3", 84, 10, FORM_TEXT},
    {"tpro", 98, 12, FORM_TEXT},       {"tfru", 110, 8, FORM_TEXT},       {"size", 126, 2, FORM_NUMBER},
};

constexpr record_field smart_fields[] = {
    {"part_number", 0, 12, FORM_TEXT},     {"product_id", 12, 32, FORM_TEXT},
    {"drive_type", 46, 2, FORM_NUMBER},    {"life_threshold", 48, 2, FORM_NUMBER},
    {"life_attr_id", 50, 2, FORM_NUMBER},  {"written_attr_id", 52, 2, FORM_NUMBER},
    {"warranty_gb", 54, 4, FORM_NUMBER},   {"temp_attr_id", 58, 2, FORM_NUMBER},
    {"spec_max_temp", 60, 2, FORM_NUMBER}, {"smart_type", 62, 2, FORM_NUMBER},
};

constexpr record_field sizes_fields[] = {
    {"capacity", 0, 8, FORM_HIGH_LOW},
    {"size", 8, 2, FORM_NUMBER},
};

constexpr file_kind kinds[] = {
    {
        .name = "flash",
        .header_width = 128,
        .record_width = 128,
        .trailer_width = 0,
        .count_offset = 38,
        .max_records = 65535,
        .signature = 0,
        .distance_offset = 0,
        .fields = flash_fields,
        .example = R"({"part_number": "ABC1234", "product_id": "VX480", "type": 16, "wait_time": 5,
   "fw_level": "G3A1", "image_name": "vx480_g3a1.bin", "spare_text1": "", "spare_text2": "",
   "spare_text3": "", "tpro": "", "tfru": "", "size": 480})",
    },
    {
        .name = "smart",
        .header_width = 4,
        .record_width = 64,
        .trailer_width = 8,
        .count_offset = 0,
        .max_records = 999,
        .signature = 0xDEBEBEDE,
        .distance_offset = 0,
        .fields = smart_fields,
        .example = R"({"part_number": "ABC1234", "product_id": "VX480", "drive_type": 17,
   "life_threshold": 10, "life_attr_id": 231, "written_attr_id": 241, "warranty_gb": 876000,
   "temp_attr_id": 194, "spec_max_temp": 70, "smart_type": 2})",
    },
    {
        .name = "sizes",
        .header_width = 4,
        .record_width = 10,
        .trailer_width = 8,
        .count_offset = 0,
        .max_records = 256,
        .signature = 0x03221965,
        .distance_offset = 2,
        .fields = sizes_fields,
        .example = R"({"capacity": 937703088, "size": 480})",
    },
};

std::string hexadecimal(uint32_t value) {
    char text[11];
    std::snprintf(text, sizeof(text), "0x%08X", value);
    return text;
}

int signature_fails(const uint8_t* position, const file_kind& kind, const char* which, std::string& error) {
    if (kind.signature == 0 || load_le32(position) == kind.signature) {
        return 0;
    }
    error = std::string(which) + " signature is " + hexadecimal(load_le32(position)) + ", not " +
            hexadecimal(kind.signature);
    return 1;
}

}  // namespace

std::span<const file_kind> file_kinds() {
    return kinds;
}

const file_kind* find_file_kind(std::string_view name) {
    const auto is_named = [name](const file_kind& kind) { return name == kind.name; };
    const auto* const found = std::find_if(std::begin(kinds), std::end(kinds), is_named);
    return found == std::end(kinds) ? nullptr : found;
}

const record_field* find_field(const file_kind& kind, std::string_view name) {
    const auto is_named = [name](const record_field& field) { return name == field.name; };
    const auto found = std::find_if(kind.fields.begin(), kind.fields.end(), is_named);
    return found == kind.fields.end() ? nullptr : &*found;
}

size_t record_count(const record_set& set) {
    return set.bytes.size() / set.kind->record_width;
}

const uint8_t* record_at(const record_set& set, size_t index) {
    return set.bytes.data() + index * set.kind->record_width;
}

std::string load_text(const uint8_t* record, const record_field& field) {
    const auto* start = reinterpret_cast<const char*>(record + field.offset);
    return {start, strnlen(start, field.width)};
}

uint64_t load_number(const uint8_t* record, const record_field& field) {
    const uint8_t* position = record + field.offset;
    if (field.form == FORM_HIGH_LOW) {
        return static_cast<uint64_t>(load_le32(position)) << 32 | load_le32(position + 4);
    }
    return field.width == 2 ? load_le16(position) : load_le32(position);
}

void store_text(uint8_t* record, const record_field& field, std::string_view text) {
    std::memcpy(record + field.offset, text.data(), text.size());
}

void store_number(uint8_t* record, const record_field& field, uint64_t value) {
    uint8_t* position = record + field.offset;
    if (field.form == FORM_HIGH_LOW) {
        store_le32(position, static_cast<uint32_t>(value >> 32));
        store_le32(position + 4, static_cast<uint32_t>(value));
    } else if (field.width == 2) {
        store_le16(position, static_cast<uint32_t>(value));
    } else {
        store_le32(position, static_cast<uint32_t>(value));
    }
}

uint64_t largest_number(const record_field& field) {
    return std::numeric_limits<uint64_t>::max() >> (64 - 8 * field.width);
}

std::vector<uint8_t> frame_records(const record_set& set) {
    const file_kind& kind = *set.kind;
    std::vector<uint8_t> file(kind.header_width + set.bytes.size() + kind.trailer_width);
    uint8_t* end = file.data() + file.size();
    uint8_t* trailer = end - kind.trailer_width;
    uint8_t* counting = kind.trailer_width != 0 ? trailer : file.data();
    std::copy(set.bytes.begin(), set.bytes.end(), file.data() + kind.header_width);
    store_le16(counting + kind.count_offset, static_cast<uint32_t>(record_count(set)));
    if (kind.signature != 0) {
        store_le32(file.data(), kind.signature);
        store_le32(end - 4, kind.signature);
    }
    if (kind.distance_offset != 0) {
        store_le16(trailer + kind.distance_offset, static_cast<uint32_t>(file.size()));
    }
    return file;
}

int take_records(const std::vector<uint8_t>& file, record_set& set, std::string& error) {
    const file_kind& kind = *set.kind;
    const size_t frame = kind.header_width + kind.trailer_width;
    if (file.size() < frame) {
        error = std::to_string(file.size()) + " bytes, the shortest file has " + std::to_string(frame);
        return 1;
    }
    const uint8_t* end = file.data() + file.size();
    const uint8_t* trailer = end - kind.trailer_width;
    if (signature_fails(end - 4, kind, "trailer", error) != 0) {
        return 1;
    }
    size_t length = file.size();  // from the header on
    if (kind.distance_offset != 0) {
        length = load_le16(trailer + kind.distance_offset);
        if (length < frame || length > file.size()) {
            error = "table said to start " + std::to_string(length) + " bytes before the end of a file of " +
                    std::to_string(file.size());
            return 1;
        }
    }
    const uint8_t* header = end - length;
    if (signature_fails(header, kind, "header", error) != 0) {
        return 1;
    }
    const size_t count = load_le16((kind.trailer_width != 0 ? trailer : header) + kind.count_offset);
    const size_t room = (length - frame) / kind.record_width;
    if (count > kind.max_records || count > room) {
        error = "count says " + std::to_string(count) + " records, " +
                (count > room ? "there are " + std::to_string(room)
                              : "at most " + std::to_string(kind.max_records));
        return 1;
    }
    set.bytes.assign(header + kind.header_width, header + kind.header_width + count * kind.record_width);
    return 0;
}

}  // namespace mirvok
