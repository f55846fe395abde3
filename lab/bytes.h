// Bytes as people write them, and their checksum.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mirvok::lab {

using bytes = std::vector<uint8_t>;

// Texts like "12 00 ff" to bytes, and back: upper case, separated by `between`.
bytes bytes_of(const std::string& hex);
std::string hex_of(const uint8_t* data, size_t length, const char* between = "");
std::string hex_number(uint64_t value);
// Whether the bytes from `from` up to `to`, not included, are zero.
bool all_zero(const bytes& data, size_t from, size_t to);
// As IEEE 802.3 has it.
uint32_t crc32_of(const uint8_t* data, size_t length);

}  // namespace mirvok::lab
