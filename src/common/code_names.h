// Names of codes: a table, and the lookup in it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirvok {

struct code_name {
    uint32_t code;
    const char* name;
};

// The name of the first row with this code; null when there is none.
template <size_t Count>
const char* name_of(const code_name (&names)[Count], uint32_t code) {
    for (const code_name& row : names) {
        if (row.code == code) {
            return row.name;
        }
    }
    return nullptr;
}

}  // namespace mirvok
