// What the tests of records share: byte vectors, output captures, files of given bytes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

inline bytes repeat(size_t count, uint8_t value) {
    return bytes(count, value);
}

// Hexadecimal bytes put into `data` from `at` on.
inline bytes hex_at(size_t at, const std::string& text, bytes data = bytes(512)) {
    std::istringstream stream(text);
    for (unsigned int byte = 0; stream >> std::hex >> byte;) {
        data.at(at++) = static_cast<uint8_t>(byte);
    }
    return data;
}

// The bytes of "9E 10", and zeroes up to `size` of them.
inline bytes hex(const std::string& text, size_t size = 0) {
    return hex_at(0, text, bytes(size != 0 ? size : (text.size() + 1) / 3));
}

inline void put(bytes& page, size_t offset, const std::string& text) {
    std::copy(text.begin(), text.end(), page.begin() + static_cast<std::ptrdiff_t>(offset));
}

inline std::string output_of(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// The bytes of a record, for comparing it whole.
template <typename Record>
bytes bytes_of(const Record& record) {
    const auto* first = reinterpret_cast<const uint8_t*>(&record);
    return {first, first + sizeof(record)};
}

// A file of the given bytes, gone with the object.
struct temporary_file {
    std::string path = testing::TempDir() + "mirvok-" + std::to_string(getpid());
    explicit temporary_file(const bytes& content) {
        std::FILE* file = std::fopen(path.c_str(), "wb");
        for (const uint8_t byte : content) {
            std::fputc(byte, file);
        }
        std::fclose(file);
    }
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;
    ~temporary_file() { std::remove(path.c_str()); }
};
