// A text's place in what a drive returns, and the copies that take it from there.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/text.h"

namespace mirvok {

struct field {
    size_t offset;
    size_t width;  // bytes
};

// As copy_field and copy_trimmed, from the field's place in `data`.
template <field Place, size_t Capacity>
void take_field(char (&text)[Capacity], const uint8_t* data) {
    copy_field(text, data + Place.offset, Place.width);
}

template <field Place, size_t Capacity>
void take_trimmed(char (&text)[Capacity], const uint8_t* data) {
    copy_trimmed<Place.width>(text, data + Place.offset);
}

}  // namespace mirvok
