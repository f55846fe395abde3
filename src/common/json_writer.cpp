#include "common/json_writer.h"

namespace mirvok {

namespace {

constexpr int max_depth = 16;

std::FILE* out = nullptr;
int depth = 0;
char closing[max_depth];
bool first[max_depth];

// The comma, the line and the key that stand before a value.
void begin_value(const char* key) {
    if (depth > 0) {
        std::fprintf(out, "%s\n%*s", first[depth - 1] ? "" : ",", 2 * depth, "");
        first[depth - 1] = false;
    }
    if (key != nullptr) {
        std::fprintf(out, "\"%s\": ", key);
    }
}

void open_nested(const char* key, char opening, char end) {
    begin_value(key);
    std::fputc(opening, out);
    closing[depth] = end;
    first[depth] = true;
    ++depth;
}

}  // namespace

void json_begin(std::FILE* file) {
    out = file;
    depth = 0;
}

int json_end() {
    std::fputc('\n', out);
    return std::fflush(out) != 0 || std::ferror(out) != 0 ? 1 : 0;
}

void json_open_object(const char* key) {
    open_nested(key, '{', '}');
}

void json_open_array(const char* key) {
    open_nested(key, '[', ']');
}

void json_close() {
    --depth;
    if (!first[depth]) {
        std::fprintf(out, "\n%*s", 2 * depth, "");
    }
    std::fputc(closing[depth], out);
}

void json_null(const char* key) {
    begin_value(key);
    std::fputs("null", out);
}

void json_bool(const char* key, bool value) {
    begin_value(key);
    std::fputs(value ? "true" : "false", out);
}

void json_number(const char* key, int64_t value) {
    begin_value(key);
    std::fprintf(out, "%lld", static_cast<long long>(value));
}

void json_unsigned(const char* key, uint64_t value) {
    begin_value(key);
    std::fprintf(out, "%llu", static_cast<unsigned long long>(value));
}

void json_text(const char* key, const char* text) {
    if (text == nullptr) {
        json_null(key);
        return;
    }
    begin_value(key);
    std::fputc('"', out);
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte == '"' || byte == '\\') {
            std::fprintf(out, "\\%c", byte);
        } else if (byte < 0x20 || byte > 0x7E) {
            std::fprintf(out, "\\u00%02X", byte);
        } else {
            std::fputc(byte, out);
        }
    }
    std::fputc('"', out);
}

}  // namespace mirvok
