#include "commands/drive_match.h"

#include <fnmatch.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commands/drive_fields.h"
#include "common/diagnostics.h"
#include "common/text.h"

namespace mirvok {

namespace {

struct drive_match {
    const drive_field* field;
    const char* pattern;
};

drive_match* matches = nullptr;
uint32_t match_count = 0;
bool refused = false;
bool any_meant = false;

void refuse(const char* reason, const char* argument) {
    if (!refused) {
        complain("%s: `%s'", reason, argument);
    }
    refused = true;
}

// The field whose name stands before the '='.
const drive_field* find_field(const char* text) {
    const size_t length = std::strcspn(text, "=");
    for (const drive_field& field : drive_fields()) {
        if (std::strlen(field.name) == length && std::strncmp(field.name, text, length) == 0) {
            return &field;
        }
    }
    return nullptr;
}

void add_match(const char* value) {
    const char* equals = std::strchr(value, '=');
    const drive_field* field = find_field(value);
    if (equals == nullptr) {
        refuse("option `--match' takes FIELD=GLOB", value);
    } else if (field == nullptr) {
        refuse("option `--match': there is no such field", value);
    } else if (equals[1] == '\0') {
        refuse("option `--match': the value is empty", value);
    } else {
        auto* grown =
            static_cast<drive_match*>(std::realloc(matches, (match_count + 1) * sizeof(drive_match)));
        if (grown == nullptr) {
            refuse("option `--match': no memory is left", value);
            return;
        }
        matches = grown;
        matches[match_count++] = {field, equals + 1};
    }
}

bool holds(const drive_match& match, const _pd_info* pd) {
    const field_value value = match.field->value(pd);
    char number[24];
    const char* text = value.text;
    if (value.kind == FIELD_NUMBER) {
        std::snprintf(number, sizeof(number), "%llu", static_cast<unsigned long long>(value.number));
        text = number;
    } else if (value.kind == FIELD_BOOL) {
        text = value.number != 0 ? "true" : "false";
    }
    return value.kind != FIELD_NULL && fnmatch(match.pattern, text, 0) == 0;
}

// Takes an argument that begins with "--m". Returns whether `next` is its value.
bool take_match(const char* argument, const char* next) {
    constexpr char name[] = "--match";
    const size_t length = std::strcspn(argument, "=");
    const char* value = argument[length] == '=' ? argument + length + 1 : next;
    if (length >= sizeof(name) || std::strncmp(argument, name, length) != 0) {
        refuse("unknown option, which may be meant for `--match'", argument);
    } else if (value == nullptr) {
        refuse("option `--match' takes FIELD=GLOB, which is missing", argument);
    } else {
        add_match(value);
        return value == next;
    }
    return false;
}

}  // namespace

void take_matches(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        if (begins_with(argv[i], "--m")) {
            i += take_match(argv[i], i + 1 < argc ? argv[i + 1] : nullptr) ? 1 : 0;
        } else if (std::strchr(argv[i], '=') != nullptr && find_field(argv[i]) != nullptr) {
            refuse("FIELD=GLOB is read behind `--match' alone", argv[i]);
        }
    }
}

bool matches_are_read() {
    return !refused;
}

bool is_meant(const _pd_info* pd) {
    for (uint32_t i = 0; i < match_count; ++i) {
        if (!holds(matches[i], pd)) {
            return false;
        }
    }
    any_meant = true;
    return true;
}

bool complain_of_no_match() {
    const bool none = match_count > 0 && !any_meant;
    if (none) {
        complain("no drive is like what --match says");
    }
    return none;
}

}  // namespace mirvok
