// The Marvell stand-ins: adapters with two drives at most, requests checked before they are answered.
#include <algorithm>
#include <fstream>
#include <iterator>

#include "common/bytes.h"
#include "controllers.h"
#include "memory.h"
#include "run.h"

namespace mirvok::lab {

namespace {

constexpr uint8_t result_invalid = 6;

constexpr size_t adapter_info_size = 304;
constexpr size_t list_header = 16;
constexpr size_t entry_size = 248;
constexpr size_t list_size = 514;
constexpr size_t pass_header = 56;
constexpr size_t pass_sense = 24;
constexpr size_t pass_sense_size = 32;

bool initialised = false;

struct download {  // NOLINT(bugprone-exception-escape): json moves without throwing
    bytes image;
    json sequence;  // the status bytes that the polls bring, the last one for ever
    size_t polls = 0;
};

download& download_of(uint8_t adapter, uint8_t device) {
    static auto* const all = new std::map<std::pair<int, int>, download>;
    return (*all)[{adapter, device}];
}

json adapter_of(uint8_t adapter) {
    for (const json& controller : controllers_of("MARVELL")) {
        if (number_of(controller, "id", 0) == adapter) {
            return controller;
        }
    }
    return json::object();
}

// The entry of a device, which the calls name by the low 8 bits of its id.
json device_of(uint8_t adapter, uint8_t device) {
    for (const json& entry : adapter_of(adapter).value("drives", json::array())) {
        if ((number_of(entry, "device_id", 0) & 0xFF) == device) {
            return entry;
        }
    }
    return json::object();
}

// The journal's title of a request, once it has been checked that the library may be called at all.
std::string title_of(const char* name, int adapter = -1, int device = -1) {
    std::string title = std::string("marvell ") + name;
    title += adapter < 0 ? "" : " adapter=" + std::to_string(adapter);
    title += device < 0 ? "" : " device=" + std::to_string(device);
    demand(initialised || std::string(name) == "init", title, "library not initialised");
    return title;
}

uint8_t finish(const std::string& line, uint32_t result) {
    journal(line + " = " + std::to_string(result));
    return static_cast<uint8_t>(result);
}

void put(bytes& data, size_t at, size_t width, const std::string& text) {
    std::fill_n(data.begin() + static_cast<ptrdiff_t>(at), width, 0);
    std::copy_n(text.begin(), std::min(width, text.size()), data.begin() + static_cast<ptrdiff_t>(at));
}

bytes list_entry(const json& entry) {
    bytes data(entry_size, noise);
    const drive* d = drive_named(text_of(entry, "drive", ""));
    store_le16(&data[36], static_cast<uint32_t>(number_of(entry, "device_id", 0)));
    if (d != nullptr) {
        put(data, 76, 20, text_of(d->self, "product", "LAB DRIVE"));
        put(data, 96, 8, text_of(d->self, "fru", "00LB001"));
        put(data, 116, 20, text_of(d->self, "serial", "LAB" + d->name));
        put(data, 136, 7, level_of(*d));
        put(data, 188, 10, text_of(d->self, "part_number", "00LABPART01"));
        put(data, 198, 50, text_of(d->self, "serial_number", d->name));
    }
    return data;
}

// Checks a pass-through request and makes the command of it.
bool take_command(const bytes& request, const std::string& title, scsi_command& c) {
    const size_t cdb_length = request[19];
    const bool to_drive = request[18] == 0;
    if (!demand(request[18] <= 1, title, "direction") ||
        !demand(cdb_length >= 6 && cdb_length <= 16 && all_zero(request, cdb_length, 16), title,
                "CDB length") ||
        !demand(all_zero(request, pass_sense, pass_header), title, "sense area not cleared") ||
        !demand(to_drive || all_zero(request, pass_header, request.size()), title, "data area not cleared")) {
        return false;
    }
    c.cdb.assign(request.begin(), request.begin() + static_cast<ptrdiff_t>(cdb_length));
    c.length = static_cast<uint32_t>(request.size() - pass_header);
    const bool non_data = c.cdb[0] == 0xA1 && c.cdb[1] == 3 << 1;
    c.way = to_drive ? direction::out : non_data ? direction::none : direction::in;
    c.data.assign(request.begin() + pass_header, to_drive ? request.end() : request.begin() + pass_header);
    const uint32_t crc = to_drive ? ~crc32_of(c.data.data(), c.data.size()) : 0;
    return demand(load_le32(&request[20]) == crc, title, "CRC");
}

uint8_t pass_through(uint8_t adapter, uint8_t device, void* user, const std::string& title) {
    bytes request(pass_header);
    if (!demand(copy_in(request.data(), user, request.size()), title, "request out of reach")) {
        return result_invalid;
    }
    // The request is followed by eight bytes more than its data takes.
    const size_t room = 64 + size_t{load_le16(&request[16])};
    request.resize(room);
    if (!demand(copy_in(request.data(), user, room), title, "request shorter than its data")) {
        return result_invalid;
    }
    request.resize(room - 8);
    scsi_command c;
    drive* d = drive_named(text_of(device_of(adapter, device), "drive", ""));
    if (!demand(d != nullptr, title, "no such drive") || !take_command(request, title, c)) {
        return result_invalid;
    }
    const request_fault fault = request_fault_of("MARVELL", name_of(c));
    if (fault.instead != 0) {
        return finish(title + " " + describe(c), fault.instead);
    }
    const reply r = run_behind_controller(*d, c);
    const bool good = r.error == 0 && r.host == 0 && r.status == 0;
    if (good) {
        std::ranges::copy(r.data, request.begin() + pass_header);
    }
    std::copy_n(r.sense.begin(), std::min(r.sense.size(), pass_sense_size), request.begin() + pass_sense);
    const size_t size = request.size();
    spoil(request, fault.data, size);
    request.resize(size);
    demand(copy_out(user, request.data(), size), title, "request not writable");
    return finish(title + " " + describe(c) + " = " + describe(c, r), good ? fault.afterwards : 2);
}

}  // namespace

}  // namespace mirvok::lab

using namespace mirvok::lab;

extern "C" {

uint8_t mirvok_lab_mv_initialize() {
    const request_fault fault = request_fault_of("MARVELL", "init");
    initialised = fault.instead != 1;
    return finish("marvell init", fault.instead);
}

uint8_t mirvok_lab_mv_finalize() {
    const std::string title = title_of("exit");
    initialised = false;
    return finish(title, 0);
}

uint8_t mirvok_lab_mv_adapter_count() {
    const std::string title = title_of("adapters");
    const uint32_t other = request_fault_of("MARVELL", "adapters").instead;
    const std::vector<json> list = controllers_of("MARVELL");
    uint64_t count = other != 0 ? other : list.size();
    for (const json& controller : list) {
        count = number_of(controller, "claimed_controllers", count);
    }
    return finish(title, static_cast<uint32_t>(count));
}

uint8_t mirvok_lab_mv_adapter_info(uint8_t adapter, uint8_t* found, void* record) {
    const std::string title = title_of("adapter-info", adapter);
    const request_fault fault = request_fault_of("MARVELL", "adapter-info");
    const json self = adapter_of(adapter);
    bytes data(adapter_info_size);
    bytes flag(1, !self.empty() && self.value("present", true) ? 0x80 : 0);
    if (!demand(copy_in(data.data(), record, data.size()) && all_zero(data, 0, data.size()), title,
                "record out of reach or not cleared")) {
        return result_invalid;
    }
    std::ranges::fill(data, noise);
    spoil(flag, fault.data, 1);
    flag.resize(1);
    demand(copy_out(found, flag.data(), 1) && copy_out(record, data.data(), data.size()), title,
           "not writable");
    return finish(title + (flag[0] != 0 ? " found" : " absent"), fault.instead);
}

uint8_t mirvok_lab_mv_drives(uint8_t adapter, void* request) {
    const std::string title = title_of("drives", adapter);
    const request_fault fault = request_fault_of("MARVELL", "drives");
    const json self = adapter_of(adapter);
    const json list = self.value("drives", json::array());
    bytes data(list_size);
    if (!demand(copy_in(data.data(), request, data.size()), title, "request out of reach") ||
        !demand(data[0] == 0 && data[1] == 1 && all_zero(data, 2, 4) && mirvok::load_le16(&data[4]) == 2 &&
                    all_zero(data, 6, data.size()),
                title, "request header")) {
        return result_invalid;
    }
    const uint64_t count = number_of(self, "claimed_drives", list.size());
    mirvok::store_le16(&data[6], static_cast<uint32_t>(count));
    for (size_t i = 0; i < std::min<size_t>(list.size(), 2); ++i) {
        std::ranges::copy(list_entry(list[i]),
                          data.begin() + static_cast<ptrdiff_t>(list_header + i * entry_size));
    }
    spoil(data, fault.data, list_size);
    data.resize(list_size);
    demand(copy_out(request, data.data(), data.size()), title, "request not writable");
    return finish(title + " count " + std::to_string(count), fault.instead);
}

uint8_t mirvok_lab_mv_scsi(uint8_t adapter, uint8_t device, void* request) {
    const std::lock_guard held(machine_lock());
    return pass_through(adapter, device, request, title_of("scsi", adapter, device));
}

uint8_t mirvok_lab_mv_download(uint8_t adapter, uint8_t device, const char* path) {
    const std::string title = title_of("download", adapter, device);
    const json entry = device_of(adapter, device);
    if (!demand(!entry.empty(), title, "no such drive")) {
        return result_invalid;
    }
    const request_fault fault = request_fault_of("MARVELL", "download");
    std::ifstream file(path, std::ios::binary);
    download& transfer = download_of(adapter, device);
    transfer.polls = 0;
    transfer.image.assign(std::istreambuf_iterator<char>(file), {});
    const int outcome = !file.is_open() ? 4 : transfer.image.empty() ? 5 : 2;
    transfer.sequence = entry.value("download_status", json::array({1, outcome}));
    return finish(title + " " + path, fault.instead);
}

uint8_t mirvok_lab_mv_download_status(uint8_t adapter, uint8_t device, uint8_t* percentage, uint8_t* status) {
    const std::string title = title_of("download-status", adapter, device);
    download& transfer = download_of(adapter, device);
    drive* d = drive_named(text_of(device_of(adapter, device), "drive", ""));
    if (!demand(d != nullptr && !transfer.sequence.empty(), title, "no download")) {
        return result_invalid;
    }
    const request_fault fault = request_fault_of("MARVELL", "download-status");
    if (fault.instead != 0) {
        return finish(title, fault.instead);
    }
    const size_t at = std::min(transfer.polls++, transfer.sequence.size() - 1);
    const auto value = transfer.sequence[at].get<uint8_t>();
    const auto done = static_cast<uint8_t>(100 * (at + 1) / transfer.sequence.size());
    if (value == 2 && take_piece(*d, 0, transfer.image)) {
        activate(*d, "level");
    }
    demand(copy_out(percentage, &done, 1) && copy_out(status, &value, 1), title, "not writable");
    return finish(title + " status " + std::to_string(value), 0);
}

// An entry point that has to be there and that nobody has a use for.
uint8_t mirvok_lab_mv_unused(const char* name) {
    demand(false, name, "this entry point is not for calling");
    return result_invalid;
}

}  // extern "C"
