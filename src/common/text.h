// Texts: NUL-terminated bytes in fixed, zero-filled fields. What comes from a drive or a file is bounded
// bytes until one of these copies has taken it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace mirvok {

// The text without the blanks (20h) and line feeds (0Ah) at both ends; other white space stays.
inline std::string_view without_spaces(std::string_view text) {
    const auto is_space = [](char character) { return character == ' ' || character == '\n'; };
    while (!text.empty() && is_space(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_space(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// The same, in place.
void remove_spaces(char* text);

// The number of characters before the first NUL among the first `room` bytes of `text`; `room` when there is
// none.
size_t text_length(const void* text, size_t room);

// Whether `text` begins with `prefix`, both NUL-terminated. An empty prefix begins every text.
inline bool begins_with(const char* text, const char* prefix) {
    while (*prefix != '\0' && *text == *prefix) {
        ++text;
        ++prefix;
    }
    return *prefix == '\0';
}

// Clears `field` and copies at most `limit` characters, capacity - 1 at the most, of the text that stands in
// the `width` bytes from `bytes` on (it ends at the first NUL).
template <size_t Capacity>
void copy_field(char (&field)[Capacity], const void* bytes, size_t width, size_t limit = Capacity - 1) {
    static_assert(Capacity > 0);
    size_t length = text_length(bytes, width);
    length = length < limit ? length : limit;
    length = length < Capacity - 1 ? length : Capacity - 1;
    std::memset(field, 0, Capacity);
    std::memcpy(field, bytes, length);
}

// As copy_field, with the blanks and line feeds at both ends of the whole `width` bytes left out first.
// Width is the field's width in the layout.
template <size_t Width, size_t Capacity>
void copy_trimmed(char (&field)[Capacity], const void* bytes) {
    const std::string_view kept =
        without_spaces({static_cast<const char*>(bytes), text_length(bytes, Width)});
    copy_field(field, kept.data(), kept.size());
}

// Clears `field` and copies the NUL-terminated `text` into it, at most capacity - 1 characters.
template <size_t Capacity>
void copy_text(char (&field)[Capacity], const char* text) {
    copy_field(field, text, std::strlen(text));
}

}  // namespace mirvok
