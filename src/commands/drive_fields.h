// The fields that tell which drive it is, and their values: as the report shows them, and as --match compares
// them.
#pragma once

#include <cstdint>
#include <span>

#include "storage/device_model.h"

namespace mirvok {

enum field_kind_t { FIELD_NULL, FIELD_TEXT, FIELD_NUMBER, FIELD_BOOL };

struct field_value {
    field_kind_t kind;
    const char* text;  // the drive's own, or a constant
    uint64_t number;   // a bool is 0 or 1
};

struct drive_field {
    const char* name;
    field_value (*value)(const _pd_info* pd);
};

// In the report's order; the first `place_fields` tell where the drive is on its path.
std::span<const drive_field> drive_fields();
constexpr size_t place_fields = 3;

}  // namespace mirvok
