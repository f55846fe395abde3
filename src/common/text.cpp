#include "common/text.h"

namespace mirvok {

void remove_spaces(char* text) {
    const std::string_view kept = without_spaces({text, std::strlen(text)});
    std::memmove(text, kept.data(), kept.size());
    text[kept.size()] = '\0';
}

size_t text_length(const void* text, size_t room) {
    return strnlen(static_cast<const char*>(text), room);
}

}  // namespace mirvok
