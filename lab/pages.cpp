#include "pages.h"

#include <algorithm>
#include <string_view>

#include "common/bytes.h"

namespace mirvok::lab {

namespace {

constexpr uint64_t default_blocks = 937703088;  // 480 GB in blocks of 512 bytes

void put_text(bytes& page, size_t at, size_t width, const std::string& text) {
    for (size_t i = 0; i < width; ++i) {
        page.at(at + i) = static_cast<uint8_t>(i < text.size() ? text[i] : ' ');
    }
}

void put_field(bytes& page, size_t at, size_t width, const drive& d, const char* key, const char* fallback) {
    put_text(page, at, width, text_of(d.self, key, fallback));
}

void put_le(bytes& page, size_t at, size_t width, uint64_t value) {
    for (size_t i = 0; i < width; ++i) {
        page.at(at + i) = static_cast<uint8_t>(i < 8 ? value >> 8 * i : 0);
    }
}

void put_be(bytes& page, size_t at, size_t width, uint64_t value) {
    for (size_t i = 0; i < width; ++i) {
        page.at(at + i) = static_cast<uint8_t>(value >> 8 * (width - 1 - i));
    }
}

std::string serial_of(const drive& d) {
    return text_of(d.self, "serial", "LAB" + d.name);
}

std::string maker_serial_of(const drive& d) {
    return text_of(d.self, "serial_number", d.name);
}

uint64_t blocks_of(const drive& d) {
    return number_of(d.self, "blocks", default_blocks);
}

std::string model_of(const drive& d) {
    bytes model(40);
    const bool nvme = text_of(d.self, "protocol", "") == "nvme";
    const size_t width = nvme ? 10 : 8;
    put_field(model, 0, 20, d, "product", "LAB DRIVE");
    put_field(model, 20, width, d, "fru", "00LB001");
    put_field(model, 20 + width, width, d, "dummy", "LBDUMMY");
    if (!nvme) {
        put_field(model, 36, 4, d, "vendor", "VTR");
    }
    return {model.begin(), model.end()};
}

// SATA and NVMe drives answer as the translation before them does (SAT-3, 8.1).
bytes inquiry(const drive& d) {
    const std::string protocol = text_of(d.self, "protocol", "");
    const bool translated = protocol != "sas";
    bytes page(translated ? 96 : 148);
    page[0] = static_cast<uint8_t>(number_of(d.self, "peripheral", 0));
    page[2] = translated ? 5 : 6;
    page[3] = 2;
    page[4] = static_cast<uint8_t>(page.size() - 5);
    if (translated) {
        const std::string level = level_of(d);
        put_text(page, 8, 8, protocol == "sata" ? "ATA" : "NVMe");
        put_text(page, 16, 16, model_of(d));
        put_text(page, 32, 4, level.size() > 4 ? level.substr(4) : level);
        return page;
    }
    put_field(page, 8, 8, d, "vendor", "VELTRA");
    put_field(page, 16, 16, d, "product", "LAB DRIVE");
    put_text(page, 32, 4, level_of(d));
    put_text(page, 36, 8, serial_of(d));
    put_field(page, 114, 12, d, "fru", "00LB001");
    put_field(page, 136, 12, d, "dummy", "LBDUMMY");
    return page;
}

bytes c4(const drive& d) {
    const uint64_t revision = number_of(d.self, "revision", 2);
    bytes page(revision == 1 ? 40 : 100);
    page[0] = static_cast<uint8_t>(number_of(d.self, "peripheral", 0));
    page[1] = 0xC4;
    page[3] = static_cast<uint8_t>(number_of(d.self, "c4_length", page.size() - 4));
    page[11] = static_cast<uint8_t>(revision);
    put_text(page, 12, 8, maker_serial_of(d));
    put_text(page, 20, 8, serial_of(d));
    put_field(page, 28, 12, d, "part_number", "00LABPART01");
    if (page.size() == 100) {
        put_field(page, 40, 29, d, "label_8s", "8SLABEL");
        put_field(page, 70, 29, d, "label_11s", "11SLABEL");
    }
    return page;
}

bytes capacity10(const drive& d) {
    bytes page(8);
    put_be(page, 0, 4, std::min<uint64_t>(blocks_of(d) - 1, 0xFFFFFFFF));
    put_be(page, 4, 4, 512);
    return page;
}

bytes capacity16(const drive& d) {
    bytes page(32);
    put_be(page, 0, 8, blocks_of(d) - 1);
    put_be(page, 8, 4, 512);
    return page;
}

void put_ata_text(bytes& page, size_t word, size_t width, const std::string& text) {
    put_text(page, 2 * word, width, text);
    for (size_t i = 2 * word; i < 2 * word + width; i += 2) {
        std::swap(page[i], page[i + 1]);
    }
}

bytes identify(const drive& d) {
    bytes page(512);
    const bool supported = text_of(d.self, "smart", "on") != "unsupported";
    put_le(page, 0, 2, 0x0040);
    put_ata_text(page, 10, 20, serial_of(d));
    put_ata_text(page, 23, 8, level_of(d));
    put_ata_text(page, 27, 40, model_of(d));
    put_le(page, 120, 4, std::min<uint64_t>(blocks_of(d), 0x0FFFFFFF));
    put_le(page, 160, 2, 0x07F0);
    put_le(page, 162, 2, 0x006D);
    put_le(page, 164, 2, supported ? 0x0001 : 0);
    put_le(page, 166, 2, 0x4400);
    put_le(page, 170, 2, supported && smart_on(d) ? 0x0001 : 0);
    put_le(page, 174, 2, 0x4000);
    put_le(page, 200, 8, blocks_of(d));
    return page;
}

bytes b0(const drive& d) {
    bytes page(512);
    page[1] = 0xB0;
    put_text(page, 12, 8, maker_serial_of(d));
    put_field(page, 28, 12, d, "part_number", "00LABPART01");
    put_field(page, 107, 12, d, "part_number_8s", "SLABPART8S");
    return page;
}

bytes controller(const drive& d) {
    bytes page(4096);
    put_le(page, 0, 2, 0x1AB0);
    put_text(page, 4, 20, serial_of(d));
    put_text(page, 24, 40, model_of(d));
    put_text(page, 64, 8, level_of(d));
    return page;
}

bytes name_space(const drive& d) {
    bytes page(4096);
    put_le(page, 0, 8, blocks_of(d));
    put_le(page, 8, 8, blocks_of(d));
    return page;
}

bytes firmware_slots(const drive& d) {
    bytes page(512);
    page[0] = 0x01;
    put_text(page, 8, 8, level_of(d));
    return page;
}

bytes e0(const drive& d) {
    bytes page(1024);
    page[1] = 0xE0;
    page[2] = static_cast<uint8_t>(number_of(d.self, "revision", 4));
    page[4] = static_cast<uint8_t>(number_of(d.self, "endurance", 3));
    put_text(page, 12, 8, maker_serial_of(d));
    put_field(page, 28, 12, d, "part_number", "00LABPART01");
    put_field(page, 40, 7, d, "dom", "2024-01");
    put_text(page, 107, 20, serial_of(d));
    put_field(page, 127, 24, d, "vendor", "VELTRA");
    put_field(page, 151, 12, d, "fru", "00LB001");
    put_field(page, 163, 12, d, "dummy", "LBDUMMY");
    put_field(page, 175, 97, d, "card_name", "LAB CARD");
    put_field(page, 272, 12, d, "part_number_8s", "SLABPART8S");
    page[284] = static_cast<uint8_t>(number_of(d.self, "led", 0));
    return page;
}

// Attribute entries of 12 bytes (30 from byte 2), the raw value least significant byte first.
bytes smart_data(const drive& d) {
    bytes page(512);
    page[0] = 0x10;
    size_t at = 2;
    for (const json& a : d.self.value("attributes", json::array())) {
        put_le(page, at, 1, number_of(a, "id", 0));
        put_le(page, at + 1, 2, 0x0032);
        put_le(page, at + 3, 1, number_of(a, "value", 100));
        put_le(page, at + 4, 1, number_of(a, "worst", 100));
        put_le(page, at + 5, 6, number_of(a, "raw", 0));
        at += 12;
    }
    return page;
}

// Where an attribute's value sits in an entry of the maker's log page 34h; id 0 is every other attribute.
struct log_rule {
    uint8_t layout, id, at, width;
};

constexpr log_rule log_rules[] = {
    {2, 1, 6, 3},   {2, 13, 6, 3},  {2, 195, 6, 3}, {2, 198, 6, 3}, {2, 190, 6, 1}, {2, 194, 6, 1},
    {2, 231, 6, 1}, {2, 233, 6, 8}, {2, 241, 6, 8}, {3, 1, 2, 3},   {3, 13, 2, 3},  {3, 32, 6, 4},
    {3, 33, 6, 4},  {3, 171, 6, 4}, {3, 241, 6, 4}, {3, 242, 6, 4}, {3, 190, 2, 1}, {3, 194, 2, 1},
    {3, 246, 2, 1}, {3, 230, 1, 1}, {3, 231, 2, 1}, {3, 232, 2, 2}, {3, 0, 2, 4},   {5, 231, 4, 1},
    {5, 194, 6, 1}, {5, 233, 6, 8}, {0, 0, 6, 4},
};

bytes log34(const drive& d) {
    const uint64_t layout = number_of(d.self, "layout", 2);
    const size_t width = layout == 3 ? 12 : 16;
    bytes page(4 + 30 * width);
    page[0] = 0x34;
    put_be(page, 2, 2, page.size() - 4);
    size_t at = 4;
    for (const json& a : d.self.value("attributes", json::array())) {
        const uint64_t id = number_of(a, "id", 0);
        const auto* const rule = std::ranges::find_if(log_rules, [&](const log_rule& r) {
            return (r.layout == layout || r.layout == 0) && (r.id == id || r.id == 0);
        });
        put_be(page, at + (layout == 3 ? 0 : 1), 1, id);
        put_be(page, at + rule->at, rule->width, number_of(a, "raw", 0));
        at += width;
    }
    return page;
}

struct health_row {
    const char* key;
    uint8_t at, width;
    uint16_t usual;
};

constexpr health_row health_rows[] = {
    {"warning", 0, 1, 0},
    {"temperature", 1, 2, 310},
    {"spare", 3, 1, 100},
    {"threshold", 4, 1, 10},
    {"used", 5, 1, 0},
    {"units_read", 32, 16, 0},
    {"units_written", 48, 16, 0},
    {"reads", 64, 16, 0},
    {"writes", 80, 16, 0},
    {"busy", 96, 16, 0},
    {"power_cycles", 112, 16, 1},
    {"power_on_hours", 128, 16, 1},
    {"unsafe_shutdowns", 144, 16, 0},
    {"media_errors", 160, 16, 0},
    {"errors", 176, 16, 0},
};

bytes health(const drive& d) {
    bytes page(512);
    const json values = d.self.value("health", json::object());
    for (const health_row& row : health_rows) {
        put_le(page, row.at, row.width, number_of(values, row.key, row.usual));
    }
    return page;
}

struct page_row {
    const char* name;
    const char* protocols;
    bytes (*make)(const drive&);
};

constexpr page_row page_rows[] = {
    {"inquiry", "sas sata nvme", inquiry},
    {"c4", "sas", c4},
    {"capacity10", "sas sata nvme", capacity10},
    {"capacity16", "sas sata nvme", capacity16},
    {"identify", "sata", identify},
    {"b0", "sata", b0},
    {"smart-data", "sata", smart_data},
    {"log34", "sas", log34},
    {"controller", "nvme", controller},
    {"namespace", "nvme", name_space},
    {"log02", "nvme", health},
    {"log03", "nvme", firmware_slots},
    {"logE0", "nvme", e0},
};

// "bytes": {"fill": "FF" | "length": n | offset: hex, ...}
void lay_over(bytes& page, const json& changes) {
    if (changes.contains("fill")) {
        std::ranges::fill(page, bytes_of(changes["fill"].get<std::string>()).at(0));
    }
    page.resize(number_of(changes, "length", page.size()));
    for (const auto& [key, hex] : changes.items()) {
        if (key != "fill" && key != "length") {
            const bytes change = bytes_of(hex.get<std::string>());
            const size_t at = std::stoul(key, nullptr, 0);
            page.resize(std::max(page.size(), at + change.size()));
            std::ranges::copy(change, page.begin() + static_cast<ptrdiff_t>(at));
        }
    }
}

}  // namespace

bool refuses(const drive& d, const std::string& command) {
    const json list = d.self.value("refuses", json::array());
    return std::any_of(list.begin(), list.end(), [&](const json& word) { return word == command; });
}

bytes page_of(const drive& d, const std::string& name, size_t length) {
    bytes page;
    const auto* const row =
        std::ranges::find_if(page_rows, [&](const page_row& r) { return name == r.name; });
    if (row == std::end(page_rows) || refuses(d, name) ||
        std::string_view(row->protocols).find(text_of(d.self, "protocol", "")) == std::string_view::npos) {
        return page;
    }
    page = row->make(d);
    if (name.starts_with("log0") || name == "logE0") {
        page.resize(length);
    }
    if (d.self.contains("bytes") && d.self["bytes"].contains(name)) {
        lay_over(page, d.self["bytes"][name]);
    }
    return page;
}

}  // namespace mirvok::lab
