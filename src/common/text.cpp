#include "common/text.h"

namespace mirvok {

void remove_spaces(char* text) {
    const auto is_space = [](char character) { return character == ' ' || character == '\n'; };
    size_t first = 0;
    while (is_space(text[first])) {
        ++first;
    }
    size_t end = first + std::strlen(text + first);
    while (end > first && is_space(text[end - 1])) {
        --end;
    }
    std::memmove(text, text + first, end - first);
    text[end - first] = '\0';
}

size_t text_length(const void* text, size_t room) {
    return strnlen(static_cast<const char*>(text), room);
}

}  // namespace mirvok
