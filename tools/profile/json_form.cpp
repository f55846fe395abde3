#include "json_form.h"

#include <nlohmann/json.hpp>
#include <set>

namespace mirvok {

namespace {

using json = nlohmann::ordered_json;

std::string to_characters(std::string_view bytes) {
    std::string characters;
    for (const char byte : bytes) {
        const auto code = static_cast<uint8_t>(byte);
        if (code < 0x80) {
            characters += byte;
        } else {
            characters += static_cast<char>(0xC0 | code >> 6);
            characters += static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    return characters;
}

// 1 when a character of the well-formed UTF-8 text stands for no byte.
int to_bytes(std::string_view characters, std::string& bytes) {
    for (size_t i = 0; i < characters.size(); ++i) {
        const auto lead = static_cast<uint8_t>(characters[i]);
        if (lead == 0 || lead > 0xC3) {
            return 1;
        }
        bytes += lead < 0x80 ? characters[i] : static_cast<char>(lead << 6 | (characters[++i] & 0x3F));
    }
    return 0;
}

std::string range_text(const record_field& field) {
    if (field.form == FORM_TEXT) {
        return "text of at most " + std::to_string(field.width) + " bytes";
    }
    return "whole number from 0 to " + std::to_string(largest_number(field));
}

// What is wrong with the value; empty when it was stored.
std::string store_value(uint8_t* record, const record_field& field, const json& value) {
    if (field.form != FORM_TEXT) {
        if (!value.is_number_unsigned() || value.get<uint64_t>() > largest_number(field)) {
            return "must be a " + range_text(field);
        }
        store_number(record, field, value.get<uint64_t>());
        return {};
    }
    std::string bytes;
    if (!value.is_string()) {
        return "must be a " + range_text(field);
    }
    if (to_bytes(value.get_ref<const std::string&>(), bytes) != 0) {
        return "holds a character outside U+0001 to U+00FF";
    }
    if (bytes.size() > field.width) {
        return std::to_string(bytes.size()) + " bytes, must be a " + range_text(field);
    }
    store_text(record, field, bytes);
    return {};
}

// Keys are as the file has them: control characters in them stay escaped.
std::string place(size_t number, const json& key) {
    const std::string quoted = key.dump(-1, ' ', true);
    return "record " + std::to_string(number) + ": " + quoted.substr(1, quoted.size() - 2) + ": ";
}

void store_record(uint8_t* record, const file_kind& kind, size_t number, const json& object,
                  std::vector<std::string>& errors) {
    for (const auto& [key, value] : object.items()) {
        const record_field* field = find_field(kind, key);
        const std::string fault = field != nullptr ? store_value(record, *field, value) : "unknown field";
        if (!fault.empty()) {
            errors.push_back(place(number, key) + fault);
        }
    }
}

void append_record(record_set& set, size_t number, const json& value, std::vector<std::string>& errors) {
    const size_t width = set.kind->record_width;
    const size_t most = set.kind->max_records;
    if (number == most + 1) {
        errors.push_back("record " + std::to_string(number) + ": one too many, at most " +
                         std::to_string(most));
    } else if (number <= most && !value.is_object()) {
        errors.push_back("record " + std::to_string(number) + ": must be an object");
    } else if (number <= most) {
        set.bytes.resize(number * width);
        store_record(set.bytes.data() + (number - 1) * width, *set.kind, number, value, errors);
    }
}

}  // namespace

int records_from_json(const std::vector<uint8_t>& text, record_set& set, std::vector<std::string>& errors) {
    size_t number = 0;
    std::set<std::string> keys;  // of the record that is being read
    const auto take = [&](int depth, json::parse_event_t event, json& parsed) {
        using event_t = json::parse_event_t;
        if (depth == 1 && event == event_t::object_start) {
            keys.clear();
        } else if (depth == 2 && event == event_t::key && !keys.insert(parsed.get<std::string>()).second) {
            errors.push_back(place(number + 1, parsed) + "given twice");
        } else if (depth == 1 &&
                   (event == event_t::object_end || event == event_t::array_end || event == event_t::value)) {
            append_record(set, ++number, parsed, errors);
            return false;  // what was stored need not stay in the document
        }
        return true;
    };
    try {
        if (!json::parse(text, take).is_array()) {
            errors.assign(1, "must be an array of records");
        }
    } catch (const json::exception& exception) {
        const std::string_view what = exception.what();  // "[name of the exception] message"
        errors.assign(1, std::string(what.substr(what.find("] ") + 2)));
    }
    return errors.empty() ? 0 : 1;
}

std::string records_to_json(const record_set& set) {
    json document = json::array();
    for (size_t i = 0; i < record_count(set); ++i) {
        const uint8_t* record = record_at(set, i);
        json object;
        for (const record_field& field : set.kind->fields) {
            if (field.form == FORM_TEXT) {
                object[field.name] = to_characters(load_text(record, field));
            } else {
                object[field.name] = load_number(record, field);
            }
        }
        document.push_back(object);
    }
    return document.dump(2, ' ', true) + "\n";
}

std::string quote(std::string_view bytes) {
    return json(to_characters(bytes)).dump(-1, ' ', true);
}

std::string describe_record(const file_kind& kind) {
    std::string text = std::string(kind.name) + ", at most " + std::to_string(kind.max_records) +
                       " records such as\n  " + kind.example + "\n";
    for (const record_field& field : kind.fields) {
        text += "    " + std::string(field.name) + ": " + range_text(field) + "\n";
    }
    return text;
}

}  // namespace mirvok
