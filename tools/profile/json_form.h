// Records as JSON: an array of objects, whose keys are the names of the fields. A text stands for bytes: the
// characters U+0001 to U+00FF are the bytes 01h to FFh.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "file_layout.h"

namespace mirvok {

// Reads the array in `json` into the empty set, of whose kind its records are; fields left out are zero. 0,
// or 1 with one line per fault in `errors`, which names the record (from 1) and the field.
int records_from_json(const std::vector<uint8_t>& json, record_set& set, std::vector<std::string>& errors);

// Every field of every record, in the order of the file; ASCII alone, ends with a newline.
std::string records_to_json(const record_set& set);

// The text of these bytes as a JSON string, for messages.
std::string quote(std::string_view bytes);

// What a record looks like: the example of the kind and the room of its fields.
std::string describe_record(const file_kind& kind);

}  // namespace mirvok
