// The layouts of the product's binary data files as tables, and the frame of header, records and trailer that
// makes a file of records. The same tables drive building, dumping and every complaint about a field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mirvok {

enum field_form {
    FORM_TEXT,      // bytes, NUL-padded; without a terminator when they fill the field
    FORM_NUMBER,    // little-endian
    FORM_HIGH_LOW,  // 64-bit number as two little-endian 32-bit halves, the high one first
};

struct record_field {
    const char* name;
    size_t offset;
    size_t width;
    field_form form;
};

struct file_kind {
    const char* name;
    size_t header_width;
    size_t record_width;
    size_t trailer_width;  // 0 where the header holds the count
    size_t count_offset;   // of the 16-bit number of records, in the trailer, or in the header without one
    size_t max_records;
    uint32_t signature;      // first 4 bytes of the header and last 4 of the trailer; 0 for none
    size_t distance_offset;  // in the trailer, of the 16-bit distance from header to end of file; 0 for none
    std::span<const record_field> fields;
    const char* example;  // one record as JSON
};

// The records of one file without their frame, record_width bytes each.
struct record_set {
    const file_kind* kind;
    std::vector<uint8_t> bytes;
};

std::span<const file_kind> file_kinds();

// Null when there is no such kind.
const file_kind* find_file_kind(std::string_view name);

// Null when the kind has no such field.
const record_field* find_field(const file_kind& kind, std::string_view name);

size_t record_count(const record_set& set);
// The record's bytes, counted from 0.
const uint8_t* record_at(const record_set& set, size_t index);

// The field's bytes up to its first NUL.
std::string load_text(const uint8_t* record, const record_field& field);
uint64_t load_number(const uint8_t* record, const record_field& field);

// The field is all zero before, and the text fits it.
void store_text(uint8_t* record, const record_field& field, std::string_view text);
// The bits beyond the field's width are dropped.
void store_number(uint8_t* record, const record_field& field, uint64_t value);
// The largest number that the field holds.
uint64_t largest_number(const record_field& field);

// Header, records and trailer; what no reader interprets is zero.
std::vector<uint8_t> frame_records(const record_set& set);

// Takes the records of `file`, of the set's kind, out of their frame: 0, or 1 with what is wrong in `error`
// when the file is malformed. Bytes that no reader looks at are not judged.
int take_records(const std::vector<uint8_t>& file, record_set& set, std::string& error);

}  // namespace mirvok
