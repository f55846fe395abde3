// The five storelib stand-ins: one 40-byte record per request, checked before it is answered.
#include <cstring>

#include "common/bytes.h"
#include "controllers.h"
#include "memory.h"
#include "run.h"

namespace mirvok::lab {

namespace {

constexpr uint32_t status_invalid = 3;
constexpr uint32_t status_no_device = 12;
constexpr uint32_t status_not_initialised = 0x8001;

constexpr size_t record_size = 40;
constexpr size_t frame_header = 64;
constexpr size_t chunk_size = 32768;
constexpr size_t pd_info_size = 512;

// The program's record and the pointers within are memory of this computer, in its byte order.
template <typename T>
T load_host(const bytes& record, size_t offset) {
    T value{};
    std::memcpy(&value, &record[offset], sizeof(value));
    return value;
}

// Where the replies hold what they say.
constexpr size_t info_state = 184;
constexpr size_t info_interface = 189;
constexpr size_t info_download_flag = 362;
constexpr size_t info_support = 1528;

// Where the pass-through frame holds what it says.
constexpr size_t frame_status = 10;
constexpr size_t frame_sense = 28;
constexpr size_t frame_length = 60;

struct library {
    const char* name;
    const char* file;
    bool initialised;
};

library& library_of(uint32_t type) {
    static library libraries[] = {{"MR", "storelib.so", false},
                                  {"IR", "storelibir.so", false},
                                  {"IR2", "storelibir-2.so", false},
                                  {"IR3", "storelibir-3.so", false},
                                  {"IT", "storelibit.so", false}};
    return libraries[type - 2];
}

// A download that a controller expects, and how often it was asked whether it may come.
struct announcement {
    uint64_t device = 0;
    uint64_t size = 0;
    uint64_t received = 0;
    bool open = false;
    uint64_t polls = 0;
};

announcement& announcement_of(const std::string& library_name, uint64_t controller) {
    static auto* const all = new std::map<std::pair<std::string, uint64_t>, announcement>;
    return (*all)[{library_name, controller}];
}

struct request {
    library* lib;
    std::string title;  // "storelib MR pd-info"
    uint32_t controller, device, size;
    void* user;
    void* (*life)(void*);  // of a thread of the library's
    bytes buffer;          // the program's, read and later written back
    json controller_self;
    uint32_t afterwards;  // the status after an answer that went well
    std::string spoiled;  // what a fault makes of the buffer that goes back
    std::string line;     // what the journal tells beyond the ids
};

using handler = uint32_t (*)(request&);

uint32_t answer_init(request& r) {
    r.lib->initialised = true;
    begin_life(r.lib->file, r.life);
    return 0;
}

uint32_t answer_exit(request& r) {
    r.lib->initialised = false;
    end_life(r.lib->file);
    return 0;
}

// The version reply holds two texts, at 0 and at 7.
uint32_t answer_version(request& r) {
    constexpr char texts[] =
        "03.210\0"
        "07.1901";
    std::copy_n(texts, sizeof(texts), r.buffer.begin());
    return 0;
}

uint32_t answer_controllers(request& r) {
    const std::vector<json> list = controllers_of(r.lib->name);
    uint64_t count = list.size();
    std::ranges::fill(r.buffer, noise);
    for (size_t i = 0; i < list.size() && 8 + 4 * i <= r.buffer.size(); ++i) {
        store_le32(&r.buffer[4 + 4 * i], static_cast<uint32_t>(number_of(list[i], "id", i)));
        count = number_of(list[i], "claimed_controllers", count);
    }
    store_le16(r.buffer.data(), static_cast<uint32_t>(count));
    r.line = " count " + std::to_string(count);
    return 0;
}

uint32_t answer_drives(request& r) {
    const json list = r.controller_self.value("drives", json::array());
    const uint64_t count = number_of(r.controller_self, "claimed_drives", list.size());
    std::ranges::fill(r.buffer, noise);
    store_le32(&r.buffer[4], static_cast<uint32_t>(count));
    for (size_t i = 0; i < list.size() && 8 + 24 * (i + 1) <= r.buffer.size(); ++i) {
        uint8_t* const entry = &r.buffer[8 + 24 * i];
        store_le16(entry, static_cast<uint32_t>(number_of(list[i], "device_id", 0)));
        entry[5] = static_cast<uint8_t>(number_of(list[i], "slot", 0));
        entry[6] = static_cast<uint8_t>(number_of(list[i], "device_type", 0));
    }
    r.line = " count " + std::to_string(count);
    return 0;
}

drive* drive_of(const request& r) {
    drive* d = drive_named(text_of(entry_of(r.controller_self, r.device), "drive", ""));
    demand(d != nullptr, r.title, "no such drive");
    return d;
}

uint32_t answer_pd_info(request& r) {
    const drive* d = drive_of(r);
    if (d == nullptr || d->vanished) {
        return status_no_device;
    }
    const json entry = entry_of(r.controller_self, r.device);
    const std::string protocol = text_of(d->self, "protocol", "");
    const uint64_t usual = protocol == "sas" ? 2 : protocol == "sata" ? 3 : 5;
    const bool not_allowed = entry.value("download_not_allowed", false);
    std::ranges::fill(r.buffer, noise);
    store_le16(&r.buffer[info_state], static_cast<uint32_t>(number_of(entry, "state", 0x18)));
    r.buffer[info_interface] =
        static_cast<uint8_t>(number_of(entry, "interface", usual) << 4 | (noise & 0x0F));
    r.buffer[info_download_flag] = static_cast<uint8_t>((noise & 0xFE) | (not_allowed ? 1 : 0));
    return 0;
}

uint32_t answer_controller_info(request& r) {
    announcement& a = announcement_of(r.lib->name, r.controller);
    ++a.polls;
    const bool support = a.open && a.polls > number_of(r.controller_self, "allow_after_polls", 0);
    std::ranges::fill(r.buffer, noise);
    r.buffer[info_support] = static_cast<uint8_t>((noise & 0xFE) | (support ? 1 : 0));
    r.line = support ? " support" : " no support";
    return 0;
}

uint32_t answer_announce(request& r) {
    bytes block(40);
    const uint32_t device = load_le16(&r.buffer[16]);
    const auto* const pointer = load_host<const void*>(r.buffer, 28);
    const bool record = load_le32(r.buffer.data()) == block.size() && load_le32(&r.buffer[4]) == 0x01130200 &&
                        all_zero(r.buffer, 8, 12) && r.buffer[12] == 1 && all_zero(r.buffer, 13, 16) &&
                        all_zero(r.buffer, 18, 28);
    if (!demand(record, r.title, "fields of the controller command") ||
        !demand(copy_in(block.data(), pointer, block.size()), r.title, "data block out of reach")) {
        return status_invalid;
    }
    const uint32_t size = load_le32(&block[4]);
    r.line = " device=" + std::to_string(device) + " chunks=" + std::to_string(block[0]) +
             " size=" + std::to_string(size);
    if (!demand(!entry_of(r.controller_self, device).empty(), r.title, "no such device")) {
        return status_no_device;
    }
    const uint64_t chunks = (uint64_t{size} + chunk_size - 1) / chunk_size;
    if (!demand(all_zero(block, 1, 4) && all_zero(block, 8, 40), r.title,
                "reserved bytes of the data block") ||
        !demand(chunks > 255 || block[0] == chunks, r.title, "chunk count")) {
        return status_invalid;
    }
    announcement& a = announcement_of(r.lib->name, r.controller);
    a = {device, size, 0, true, a.polls};
    return 0;
}

// The chunks that come must be the ones announced.
void watch_download(const request& r, const scsi_command& c) {
    announcement& a = announcement_of(r.lib->name, r.controller);
    if (!demand(a.open && a.device == r.device, r.title, "download without announcement")) {
        return;
    }
    const uint64_t expected = std::min<uint64_t>(chunk_size, a.size - a.received);
    demand(c.length == expected, r.title, "chunk of another size than announced");
    a.received += std::min<uint64_t>(c.length, expected);
    if (a.received == a.size) {
        a = {};
    }
}

uint32_t answer_scsi(request& r) {
    bytes& f = r.buffer;
    const uint8_t way = f[4];
    const size_t cdb_length = f[11];
    const uint32_t length = load_le32(&f[frame_length]);
    if (!demand(load_le16(f.data()) == r.device && f[2] == 1 && f[3] == 0 && way <= 2 && all_zero(f, 5, 8) &&
                    f[frame_status] == 0 && all_zero(f, frame_sense, frame_length),
                r.title, "fields of the frame") ||
        !demand(cdb_length >= 6 && cdb_length <= 16 && all_zero(f, 12 + cdb_length, 28), r.title,
                "CDB length") ||
        !demand(f.size() == frame_header + length && (way != 0 || length == 0), r.title, "data length") ||
        !demand(way == 1 || all_zero(f, frame_header, f.size()), r.title, "data area not cleared")) {
        return status_invalid;
    }
    scsi_command c;
    c.cdb.assign(&f[12], &f[12] + cdb_length);
    c.way = way == 1 ? direction::out : way == 2 ? direction::in : direction::none;
    c.length = length;
    c.data.assign(f.begin() + frame_header, way == 1 ? f.end() : f.begin() + frame_header);
    drive* d = drive_of(r);
    if (d == nullptr) {
        return status_no_device;
    }
    const bool download = name_of(c) == "download";
    demand(load_le16(&f[8]) == (download ? 0 : 60), r.title, "time-out");
    if (download) {
        watch_download(r, c);
    }
    const request_fault fault = request_fault_of(r.lib->name, name_of(c));
    if (fault.instead != 0) {
        r.line = " " + describe(c);
        return fault.instead;
    }
    const reply answer = run_behind_controller(*d, c);
    r.line = " " + describe(c) + " = " + describe(c, answer);
    if (answer.error != 0 || answer.host != 0) {
        return status_no_device;
    }
    f[frame_status] = static_cast<uint8_t>(answer.status);
    std::copy_n(answer.sense.begin(), std::min<size_t>(answer.sense.size(), 32), f.begin() + frame_sense);
    if (c.way == direction::in) {
        const uint64_t claimed = number_of(r.controller_self, "claimed_length", answer.data.size());
        std::fill(f.begin() + frame_header, f.end(), noise);
        store_le32(&f[frame_length], static_cast<uint32_t>(claimed));
        std::ranges::copy(answer.data, f.begin() + frame_header);
    }
    const auto on_error = static_cast<uint32_t>(number_of(r.controller_self, "scsi_error_status", 0));
    r.afterwards = answer.status != 0 ? on_error : fault.afterwards;
    r.spoiled = fault.data;
    return 0;
}

struct request_row {
    const char* name;
    uint8_t type, command;
    bool to_controller, to_device;  // ids that the record must carry
    bool cleared;                   // the buffer comes zeroed
    uint32_t size, step;            // size of the buffer: `size` and any number of `step`
    handler answer;
};

constexpr request_row request_rows[] = {
    {"init", 0, 0, false, false, true, 260, 0, answer_init},
    {"controllers", 0, 3, false, false, true, 260, 0, answer_controllers},
    {"version", 0, 4, false, false, true, 15, 0, answer_version},
    {"exit", 0, 9, false, false, true, 0, 0, answer_exit},
    {"controller-info", 1, 0, true, false, true, 2384, 0, answer_controller_info},
    {"drives", 1, 4, true, false, true, 8, 24, answer_drives},
    {"pd-info", 2, 0, true, true, true, pd_info_size, 0, answer_pd_info},
    {"scsi", 6, 0, true, true, false, frame_header, 1, answer_scsi},
    {"announce", 6, 3, true, false, false, 36, 0, answer_announce},
};

// Reads and checks the program's record and buffer.
bool take_request(const bytes& record, const request_row& row, uint32_t type, request& r) {
    const uint32_t usual = row.answer == answer_init && type == 3 ? 68 : row.size;
    const bool size_fits =
        row.step == 0 ? r.size == usual : r.size >= usual && (r.size - usual) % row.step == 0;
    const bool reserved = all_zero(record, 2, 4) && all_zero(record, 10, 28) &&
                          (row.to_controller || r.controller == 0) && (row.to_device || r.device == 0);
    if (!demand(reserved, r.title, "reserved fields of the record") ||
        !demand(size_fits, r.title, "data size " + std::to_string(r.size)) ||
        !demand(r.size != 0 || r.user == nullptr, r.title, "data pointer without data")) {
        return false;
    }
    r.buffer.resize(r.size);
    return demand(copy_in(r.buffer.data(), r.user, r.size), r.title, "buffer out of reach") &&
           demand(!row.cleared || all_zero(r.buffer, 0, r.size), r.title, "buffer not cleared");
}

uint32_t answer(const request_row& row, request& r) {
    for (const json& controller : controllers_of(r.lib->name)) {
        if (row.to_controller && number_of(controller, "id", 0) == r.controller) {
            r.controller_self = controller;
        }
    }
    if (!demand(!row.to_controller || !r.controller_self.empty(), r.title, "no such controller")) {
        return status_invalid;
    }
    const request_fault fault = request_fault_of(r.lib->name, row.name);
    if (fault.instead != 0) {
        return fault.instead;
    }
    if (!r.lib->initialised && row.answer != answer_init && row.answer != answer_exit) {
        return status_not_initialised;
    }
    r.spoiled = fault.data;
    const uint32_t status = row.answer(r);
    spoil(r.buffer, r.spoiled, r.size);
    r.buffer.resize(r.size);
    demand(copy_out(r.user, r.buffer.data(), r.buffer.size()), r.title, "buffer not writable");
    return status != 0 ? status : r.afterwards != 0 ? r.afterwards : fault.afterwards;
}

}  // namespace

}  // namespace mirvok::lab

using namespace mirvok::lab;

// The entry of the library that serves controller type 2 to 6.
extern "C" uint32_t mirvok_lab_storelib(uint32_t type, const void* parameter, void* (*life)(void*)) {
    const std::lock_guard held(machine_lock());
    bytes record(record_size);
    request r{};
    r.lib = &library_of(type);
    r.life = life;
    r.title = std::string("storelib ") + r.lib->name;
    if (!demand(copy_in(record.data(), parameter, record_size), r.title, "record out of reach")) {
        return status_invalid;
    }
    r.controller = load_host<uint32_t>(record, 4);
    r.device = load_host<uint16_t>(record, 8);
    r.size = load_host<uint32_t>(record, 28);
    r.user = load_host<void*>(record, 32);
    const auto* const row = std::ranges::find_if(request_rows, [&](const request_row& candidate) {
        return candidate.type == record[0] && candidate.command == record[1];
    });
    const std::string pair = std::to_string(record[0]) + "/" + std::to_string(record[1]);
    if (!demand(row != std::end(request_rows), r.title, "unknown request " + pair)) {
        return status_invalid;
    }
    r.title += std::string(" ") + row->name;
    const uint32_t status = take_request(record, *row, type, r) ? answer(*row, r) : status_invalid;
    journal(r.title + (row->to_controller ? " controller=" + std::to_string(r.controller) : "") +
            (row->to_device ? " device=" + std::to_string(r.device) : "") +
            (r.size != 0 ? " size=" + std::to_string(r.size) : "") + r.line +
            (status != 0 ? " status 0x" + hex_number(status) : ""));
    return status;
}
