#include "bytes.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <string_view>

namespace mirvok::lab {

namespace {

constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
        }
        table[i] = crc;
    }
    return table;
}

}  // namespace

bytes bytes_of(const std::string& hex) {
    bytes result;
    std::string digits;
    for (const char c : hex) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            digits += c;
        }
        if (digits.size() == 2) {
            result.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return result;
}

std::string hex_of(const uint8_t* data, size_t length, const char* between) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += i == 0 ? "" : between;
        text += digits[data[i] >> 4];
        text += digits[data[i] & 0xF];
    }
    return text;
}

std::string hex_number(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "%llx", static_cast<unsigned long long>(value));
    return text;
}

bool all_zero(const bytes& data, size_t from, size_t to) {
    return std::all_of(data.begin() + static_cast<ptrdiff_t>(from), data.begin() + static_cast<ptrdiff_t>(to),
                       [](uint8_t b) { return b == 0; });
}

uint32_t crc32_of(const uint8_t* data, size_t length) {
    static constexpr auto table = make_crc_table();
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < length; ++i) {
        crc = crc >> 8 ^ table[(crc ^ data[i]) & 0xFF];
    }
    return ~crc;
}

}  // namespace mirvok::lab
