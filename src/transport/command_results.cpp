#include "transport/command_results.h"

#include <algorithm>

namespace mirvok {

namespace {

constexpr uint8_t key_recovered_error = 0x01;
constexpr uint8_t key_unit_attention = 0x06;
constexpr uint8_t key_absent = 0xFF;

// Fixed (70h, 71h) and descriptor format (72h, 73h).
uint8_t get_sense_key(const uint8_t* sense) {
    const uint8_t response = sense[0] & 0x7F;
    if (response < 0x70 || response > 0x73) {
        return key_absent;
    }
    return (response >= 0x72 ? sense[1] : sense[2]) & 0x0F;
}

}  // namespace

bool is_carried_out(const uint8_t* sense) {
    const bool deferred = (sense[0] & 1) != 0;
    return !deferred && get_sense_key(sense) <= key_recovered_error;
}

bool is_refused(uint8_t status, const uint8_t* sense) {
    const uint8_t key = get_sense_key(sense);
    return status != 0 ? !is_carried_out(sense) : key != key_absent && key > key_recovered_error;
}

bool is_unit_attention(uint8_t status, const uint8_t* sense) {
    return status != 0 && get_sense_key(sense) == key_unit_attention;
}

uint32_t count_up_to_zeros(const void* data, uint32_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (length > 0 && bytes[length - 1] == 0) {
        --length;
    }
    return length;
}

bool is_zero(const void* data, uint32_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    return std::all_of(bytes, bytes + length, [](uint8_t byte) { return byte == 0; });
}

bool has_data_up_to(uint32_t end, const void* data, uint32_t received) {
    return received >= end && !is_zero(data, received);
}

}  // namespace mirvok
