// Integers of wire layouts: loads and stores at any address, in the byte order that the layout names.
#pragma once

#include <cstdint>

namespace mirvok {

inline uint16_t load_le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

inline uint32_t load_le32(const uint8_t* p) {
    return load_le16(p) | static_cast<uint32_t>(load_le16(p + 2)) << 16;
}

inline uint64_t load_le64(const uint8_t* p) {
    return load_le32(p) | static_cast<uint64_t>(load_le32(p + 4)) << 32;
}

inline uint16_t load_be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

inline uint32_t load_be24(const uint8_t* p) {
    return static_cast<uint32_t>(load_be16(p)) << 8 | p[2];
}

inline uint32_t load_be32(const uint8_t* p) {
    return static_cast<uint32_t>(load_be16(p)) << 16 | load_be16(p + 2);
}

inline uint64_t load_be64(const uint8_t* p) {
    return static_cast<uint64_t>(load_be32(p)) << 32 | load_be32(p + 4);
}

inline void store_le16(uint8_t* p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value);
    p[1] = static_cast<uint8_t>(value >> 8);
}

inline void store_le32(uint8_t* p, uint32_t value) {
    store_le16(p, value);
    store_le16(p + 2, value >> 16);
}

inline void store_be16(uint8_t* p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

inline void store_be24(uint8_t* p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value >> 16);
    store_be16(p + 1, value);
}

}  // namespace mirvok
