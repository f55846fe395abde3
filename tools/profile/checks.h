// What is wrong with the contents of a data file that is sound in form: records that no drive reaches, levels
// that do not compare, images that are not there, limits that cannot trip.
#pragma once

#include <string>
#include <vector>

#include "file_layout.h"

namespace mirvok {

struct finding {
    size_t record;  // from 1
    const char* field;
    std::string message;
};

// The findings in the order of the records. `images` is the directory where the firmware images of a flash
// profile are looked for.
std::vector<finding> check_records(const record_set& set, const std::string& images);

// An array of objects with the keys kind, record, field and message; ends with a newline.
std::string findings_to_json(const file_kind& kind, const std::vector<finding>& findings);

}  // namespace mirvok
