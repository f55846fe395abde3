#include "checks.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "json_form.h"

namespace mirvok {

namespace {

namespace fs = std::filesystem;

constexpr size_t none = std::numeric_limits<size_t>::max();

struct findings_of {
    const record_set& set;
    const std::string& images;
    std::vector<finding> list;
};

std::string text_of(const record_set& set, size_t index, const char* name) {
    return load_text(record_at(set, index), *find_field(*set.kind, name));
}

uint64_t number_of(const record_set& set, size_t index, const char* name) {
    return load_number(record_at(set, index), *find_field(*set.kind, name));
}

void report(findings_of& found, size_t index, const char* field, const std::string& message) {
    found.list.push_back({index + 1, field, message});
}

std::string record_name(size_t index) {
    return "record " + std::to_string(index + 1);
}

// For each record the first record before it whose text begins the record's own, and so takes its drives;
// none where there is none.
std::vector<size_t> taken_by(const record_set& set, const char* field) {
    std::unordered_map<std::string, size_t> first;
    std::vector<size_t> taken;
    for (size_t i = 0; i < record_count(set); ++i) {
        const std::string text = text_of(set, i, field);
        size_t taker = none;
        for (size_t length = 0; length <= text.size(); ++length) {
            const auto earlier = first.find(text.substr(0, length));
            taker = earlier == first.end() ? taker : std::min(taker, earlier->second);
        }
        taken.push_back(taker);
        first.emplace(text, i);
    }
    return taken;
}

void check_text_ends(findings_of& found, size_t index, const char* field) {
    constexpr const char* blanks = " \n";
    const std::string text = text_of(found.set, index, field);
    if (!text.empty() && (text.find_first_of(blanks) == 0 || text.find_last_of(blanks) == text.size() - 1)) {
        report(found, index, field, quote(text) + " has a blank at an end, the texts of drives have none");
    }
}

constexpr uint64_t nvme_drive_types[] = {22, 25, 26};
constexpr uint64_t sas_layouts[] = {1, 2, 3, 5};

bool holds(std::span<const uint64_t> numbers, uint64_t number) {
    return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

// SPC-4 gives the product identification 16 bytes, which are compared as they come, padding included; the
// model texts of other drives have 20 characters here, trimmed. A flash profile does not tell which drive it
// is.
void check_product(findings_of& found, size_t index) {
    constexpr size_t sas_width = 16;
    constexpr size_t model_width = 20;
    const record_set& set = found.set;
    const std::string text = text_of(set, index, "product_id");
    const bool any = std::string_view(set.kind->name) == "flash";
    const bool sas = !any && holds(sas_layouts, number_of(set, index, "smart_type")) &&
                     !holds(nvme_drive_types, number_of(set, index, "drive_type"));
    const size_t width = sas ? sas_width : model_width;
    if (text.size() > width) {
        report(found, index, "product_id",
               quote(text) + " is longer than the " + std::to_string(width) + " characters that a " +
                   (sas ? "SAS drive" : "drive") + " reports");
    }
    if (!(any || sas) || text.size() > sas_width || text.front() == ' ' || text.back() == '\n') {
        check_text_ends(found, index, "product_id");
    }
}

void check_models(findings_of& found) {
    const record_set& set = found.set;
    const std::vector<size_t> by_part = taken_by(set, "part_number");
    const std::vector<size_t> by_product = taken_by(set, "product_id");
    for (size_t i = 0; i < record_count(set); ++i) {
        for (const char* field : {"part_number", "product_id"}) {
            if (text_of(set, i, field).empty()) {
                report(found, i, field, "is empty and takes every drive that is looked up by it");
            } else if (field == std::string_view("product_id")) {
                check_product(found, i);
            } else {
                check_text_ends(found, i, field);
            }
        }
        const size_t part = by_part[i];
        const size_t product = by_product[i];
        if (part == none) {
            continue;
        }
        const std::string part_number = text_of(set, part, "part_number");
        if (part == product && part_number == text_of(set, i, "part_number") &&
            text_of(set, part, "product_id") == text_of(set, i, "product_id")) {
            report(found, i, "part_number", "repeats the model of " + record_name(part));
        } else if (product != none) {
            report(found, i, "part_number",
                   "can never match: " + record_name(part) + " takes its drives by part_number, " +
                       record_name(product) + " by product_id");
        } else if (!part_number.empty()) {
            report(found, i, "part_number",
                   "is never reached: " + record_name(part) + " with " + quote(part_number) + " comes first");
        }
    }
}

// The firmware revision of ATA and NVMe drives (ACS-3 7.12.7, NVMe 1.4 5.15); SCSI drives have 4 characters.
constexpr size_t widest_level = 8;

void check_levels(findings_of& found) {
    const record_set& set = found.set;
    std::unordered_map<std::string, size_t> images;
    std::unordered_map<std::string, size_t> products;
    for (size_t i = 0; i < record_count(set); ++i) {
        const std::string level = text_of(set, i, "fw_level");
        if (level.empty()) {
            report(found, i, "fw_level", "is empty, no drive is lower");
            continue;
        }
        check_text_ends(found, i, "fw_level");
        if (level.size() > widest_level) {
            report(found, i, "fw_level",
                   quote(level) + " is longer than the " + std::to_string(widest_level) +
                       " characters that a drive can report");
        }
        const size_t image = images.emplace(text_of(set, i, "image_name"), i).first->second;
        const size_t product = products.emplace(text_of(set, i, "product_id"), i).first->second;
        const std::string image_level = text_of(set, image, "fw_level");
        const std::string product_level = text_of(set, product, "fw_level");
        if (level != image_level && !text_of(set, i, "image_name").empty()) {
            report(found, i, "fw_level",
                   quote(level) + " differs from " + quote(image_level) + " of " + record_name(image) +
                       " with the same image_name");
        } else if (level.size() != product_level.size() && !text_of(set, i, "product_id").empty()) {
            report(found, i, "fw_level",
                   quote(level) + " is not as long as " + quote(product_level) + " of " +
                       record_name(product) + " with the same product_id");
        }
    }
}

void check_images(findings_of& found) {
    for (size_t i = 0; i < record_count(found.set); ++i) {
        const std::string name = text_of(found.set, i, "image_name");
        // The slash as the product puts it: a name that begins with one stays below the directory.
        const fs::path path = found.images + "/" + name;
        std::error_code code;
        if (name.empty()) {
            report(found, i, "image_name", "is empty");
        } else if (("/" + name + "/").find("/../") != std::string::npos) {
            report(found, i, "image_name", quote(name) + " leads out of " + found.images);
        } else if (!fs::is_regular_file(path, code)) {
            report(found, i, "image_name", quote(name) + " is no file in " + found.images);
        } else if (fs::file_size(path, code) == 0) {
            report(found, i, "image_name", quote(name) + " is an empty file in " + found.images);
        }
    }
}

constexpr uint64_t drive_types[] = {1, 16, 17, 18, 19, 20, 21, 22, 24, 25, 26, 27};

// Ids and layout say where ATA and SAS drives keep their values; NVMe drives have fixed places for them.
void check_sources(findings_of& found) {
    // In the order in which an entry of a drive is compared with them: the first equal one takes it.
    constexpr const char* ids[] = {"life_attr_id", "temp_attr_id", "written_attr_id"};
    const record_set& set = found.set;
    for (size_t i = 0; i < record_count(set); ++i) {
        const uint64_t type = number_of(set, i, "drive_type");
        if (!holds(drive_types, type)) {
            report(found, i, "drive_type",
                   std::to_string(type) + " is unknown, bytes written are neither shown nor judged");
        }
        if (holds(nvme_drive_types, type)) {
            continue;
        }
        const uint64_t layout = number_of(set, i, "smart_type");
        // 0 stands in the records of drives that are no SAS drives and have no such page.
        if (layout != 0 && !holds(sas_layouts, layout)) {
            report(found, i, "smart_type",
                   std::to_string(layout) + " is an unknown layout, nothing is found on a SAS drive");
        }
        std::unordered_map<uint64_t, const char*> taken;
        for (const char* field : ids) {
            const uint64_t id = number_of(set, i, field);
            const char* first = taken.emplace(id, field).first->second;
            if (id < 1 || id > 255) {
                report(found, i, field, std::to_string(id) + " is the id of no attribute");
            } else if (first != field) {
                report(found, i, field, std::to_string(id) + " is already taken by " + first);
            }
        }
    }
}

void check_capacities(findings_of& found) {
    std::unordered_map<uint64_t, size_t> first;
    for (size_t i = 0; i < record_count(found.set); ++i) {
        const uint64_t capacity = number_of(found.set, i, "capacity");
        const size_t earlier = first.emplace(capacity, i).first->second;
        if (earlier != i) {
            report(found, i, "capacity", std::to_string(capacity) + " repeats " + record_name(earlier));
        }
    }
}

struct number_rule {
    const char* kind;
    const char* field;
    uint64_t least;
    uint64_t most;
    const char* below;
    const char* above;
};

constexpr uint64_t no_limit = std::numeric_limits<uint64_t>::max();

constexpr number_rule number_rules[] = {
    {"smart", "life_threshold", 1, 100, "never trips", "trips on every drive"},
    {"smart", "warranty_gb", 1, 0xFFFFFFFE, "trips at the first gigabyte", "never trips"},
    {"smart", "spec_max_temp", 1, 254, "trips on every drive", "never trips"},
    {"sizes", "capacity", 1, no_limit, "is no drive's capacity", ""},
    {"sizes", "size", 1, no_limit, "leaves the size unknown", ""},
};

void check_numbers(findings_of& found) {
    for (const number_rule& rule : number_rules) {
        for (size_t i = 0; rule.kind == std::string_view(found.set.kind->name) && i < record_count(found.set);
             ++i) {
            const uint64_t number = number_of(found.set, i, rule.field);
            if (number < rule.least || number > rule.most) {
                report(found, i, rule.field,
                       std::to_string(number) + " " + (number < rule.least ? rule.below : rule.above));
            }
        }
    }
}

struct kind_check {
    const char* kind;
    void (*check)(findings_of&);
};

constexpr kind_check kind_checks[] = {
    {"flash", check_models},  {"flash", check_levels},     {"flash", check_images},  {"smart", check_models},
    {"smart", check_sources}, {"sizes", check_capacities}, {"smart", check_numbers}, {"sizes", check_numbers},
};

}  // namespace

std::vector<finding> check_records(const record_set& set, const std::string& images) {
    findings_of found = {set, images, {}};
    for (const kind_check& row : kind_checks) {
        if (row.kind == std::string_view(set.kind->name)) {
            row.check(found);
        }
    }
    std::stable_sort(found.list.begin(), found.list.end(),
                     [](const finding& one, const finding& other) { return one.record < other.record; });
    return found.list;
}

std::string findings_to_json(const file_kind& kind, const std::vector<finding>& findings) {
    using json = nlohmann::ordered_json;
    json document = json::array();
    for (const finding& line : findings) {
        document.push_back(
            {{"kind", kind.name}, {"record", line.record}, {"field", line.field}, {"message", line.message}});
    }
    // The name of a directory in a message may be no UTF-8.
    return document.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

}  // namespace mirvok
