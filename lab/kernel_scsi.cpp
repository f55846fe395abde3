// SCSI and SATA drives on the kernel's target core: a device of target_core_user for every node, whose
// commands come through a ring in shared memory, and a logical unit of tcm_loop that makes a disk of it.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "commands.h"
#include "common/bytes.h"
#include "kernel.h"
#include "run.h"

namespace mirvok::lab {

namespace {

namespace fs = std::filesystem;

const fs::path target = "/sys/kernel/config/target";
const fs::path store = target / "core/user_4660";
const fs::path ports = target / "loopback";
const std::string name_of_ports = "naa.6d6972766f6b";
const std::string initiator = "naa.6d697276";
constexpr uint8_t status_task_aborted = 0x40;  // what the host gets for a command that is lost

// The ring's layout (linux/target_core_user.h, which C++ does not take): the mailbox, then an entry.
constexpr size_t box_commands = 4;
constexpr size_t box_size = 8;
constexpr size_t box_head = 12;
constexpr size_t box_tail = 64;
constexpr size_t entry_flags = 7;
constexpr size_t entry_piece_count = 8;
constexpr size_t entry_cdb = 24;
constexpr size_t entry_pieces = 48;
constexpr size_t entry_status = 8;
constexpr size_t entry_read_length = 12;
constexpr size_t entry_sense = 16;
constexpr size_t sense_size = 96;
constexpr size_t answer_size = 8 + sense_size;
constexpr uint8_t flag_read_length = 2;
constexpr uint32_t op_command = 1;

constexpr uint8_t op_test_unit_ready = 0x00;
constexpr uint8_t op_request_sense = 0x03;
constexpr uint8_t op_inquiry = 0x12;
constexpr uint8_t op_write_buffer = 0x3B;
constexpr uint8_t op_ata12 = 0xA1;
constexpr uint8_t storage_array_controller = 0x0C;

struct ring {
    drive* d;
    std::string node;
    fs::path link;  // what makes the unit a disk; tcm_loop does not forgive a disk deleted by itself
    int descriptor;
    uint8_t* memory;
};

// A command descriptor block's length by its group (SPC-4, 4.2.5.1).
size_t cdb_length(uint8_t opcode) {
    constexpr size_t lengths[] = {6, 10, 10, 16, 16, 12, 16, 16};
    return lengths[opcode >> 5];
}

// The ring does not tell the way of the data: the command does.
direction way_of(const scsi_command& c) {
    if (c.cdb[0] == op_ata12) {  // protocol 3 is non-data, 5 PIO data-out (SAT-3, 12.2.2.2)
        const int protocol = c.cdb[1] >> 1 & 0x0F;
        return protocol == 3 ? direction::none : protocol == 5 ? direction::out : direction::in;
    }
    return c.length == 0 ? direction::none : c.cdb[0] == op_write_buffer ? direction::out : direction::in;
}

// What the kernel sends for itself: TEST UNIT READY, REQUEST SENSE, and everything before the program starts.
// It sees a unit that the disk driver leaves alone, whatever the description makes of the drive.
bool is_kernels_own(const scsi_command& c) {
    return !program_runs() || c.cdb[0] == op_test_unit_ready || c.cdb[0] == op_request_sense;
}

reply answer_kernel(const scsi_command& c) {
    reply r;
    if (c.cdb[0] == op_inquiry && (c.cdb[1] & 1) == 0) {
        const std::string names = "MIRVOK  LAB DRIVE       0001";
        r.data = {storage_array_controller, 0, 5, 2, 31, 0, 0, 0};
        r.data.insert(r.data.end(), names.begin(), names.end());
        r.data.resize(std::min<size_t>(r.data.size(), c.length));
        return r;
    }
    return c.cdb[0] == op_test_unit_ready ? r : check_condition(0x05, 0x20, 0x00);
}

reply run(ring& self, const scsi_command& c) {
    const bool own = is_kernels_own(c);
    if (!own) {
        take_time(*self.d);
    }
    const std::lock_guard held(machine_lock());
    const bool there = !self.d->vanished;
    reply r = own ? answer_kernel(c) : run_scsi(*self.d, self.node, c);
    journal((own ? "kernel sg " : "sg ") + self.node + " " + describe(c) + " = " + describe(c, r));
    if (there && self.d->vanished) {
        unplug(self.node, [link = self.link] {
            std::error_code ignored;
            fs::remove(link, ignored);
        });
    }
    return r;
}

uint8_t* base_of(const ring& self, uint64_t offset) {
    return self.memory + offset;
}

// Calls `move` for every piece of a command's data: its place, its offset and its length.
template <typename F>
void each_piece(const ring& self, const uint8_t* entry, F move) {
    size_t at = 0;
    for (uint32_t i = 0; i < load_le32(entry + entry_piece_count); ++i) {
        const uint8_t* const piece = entry + entry_pieces + size_t{16} * i;
        const uint64_t length = load_le64(piece + 8);
        move(base_of(self, load_le64(piece)), at, length);
        at += length;
    }
}

void execute(ring& self, uint8_t* entry) {
    scsi_command c;
    const uint8_t* const cdb = base_of(self, load_le64(entry + entry_cdb));
    c.cdb.assign(cdb, cdb + cdb_length(cdb[0]));
    each_piece(self, entry, [&](const uint8_t* place, size_t /*at*/, size_t length) {
        c.data.insert(c.data.end(), place, place + length);
    });
    c.length = static_cast<uint32_t>(c.data.size());
    c.way = way_of(c);
    if (c.way != direction::out) {
        c.data.clear();
    }
    reply r = run(self, c);
    const auto moved = static_cast<uint32_t>(r.data.size());
    if (c.way == direction::in) {
        r.data.resize(c.length);
        each_piece(self, entry, [&](uint8_t* place, size_t at, size_t length) {
            std::memcpy(place, r.data.data() + at, length);
        });
    }
    std::fill_n(entry + entry_status, answer_size, uint8_t{0});
    entry[entry_status] = r.error != 0 || r.host != 0 ? status_task_aborted : static_cast<uint8_t>(r.status);
    if (c.way == direction::in && moved != 0) {
        entry[entry_flags] |= flag_read_length;
        store_le32(entry + entry_read_length, moved);
    }
    std::copy_n(r.sense.begin(), std::min<size_t>(r.sense.size(), sense_size), entry + entry_sense);
}

uint32_t index_at(const ring& self, size_t offset) {
    return __atomic_load_n(reinterpret_cast<uint32_t*>(base_of(self, offset)), __ATOMIC_ACQUIRE);
}

void serve(ring* ours) {
    ring& self = *ours;
    const uint32_t first = load_le32(base_of(self, box_commands));
    const uint32_t size = load_le32(base_of(self, box_size));
    uint32_t news = 0;
    while (read(self.descriptor, &news, sizeof(news)) == sizeof(news)) {
        while (index_at(self, box_tail) != index_at(self, box_head)) {
            const uint32_t tail = index_at(self, box_tail);
            uint8_t* const entry = base_of(self, first + tail);
            const uint32_t word = load_le32(entry);
            if ((word & 7) == op_command) {
                execute(self, entry);
            }
            __atomic_store_n(reinterpret_cast<uint32_t*>(base_of(self, box_tail)),
                             (tail + (word & ~7U)) % size, __ATOMIC_RELEASE);
            news = 0;
            [[maybe_unused]] const ssize_t told = write(self.descriptor, &news, sizeof(news));
        }
    }
}

fs::path uio_of(const std::string& name) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/class/uio")) {
        if (line_of(entry.path() / "name").ends_with("/" + name + "/mirvok-lab")) {
            return entry.path();
        }
    }
    throw std::runtime_error("the kernel has no ring for " + name);
}

fs::path first_in(const fs::path& directory) {
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        return entry.path();
    }
    throw std::runtime_error(directory.string() + " is empty: is the module sg there?");
}

}  // namespace

std::string offer_scsi(drive& d, const std::string& node, size_t index) {
    const std::string name = "lab_" + std::to_string(index);
    const fs::path unit = store / name;
    // A port for every drive: the units of one port tell each other's coming and going by UNIT ATTENTION.
    const fs::path group = ports / (name_of_ports + std::to_string(index)) / "tpgt_1";
    const fs::path lun = group / "lun/lun_0";
    fs::create_directories(unit);
    require(write_file(unit / "control",
                       "dev_config=mirvok-lab,dev_size=1048576,hw_block_size=512,max_data_area_mb=8,cmd_ring_"
                       "size_mb=1,nl_reply_supported=-1"),
            (unit / "control").string());
    require(write_file(unit / "enable", "1"), (unit / "enable").string());
    const fs::path uio = uio_of(name);
    auto* const self =
        new ring{&d, node, lun / "link", open_device(uio / "dev"), nullptr};  // as long as its thread
    const size_t size = std::stoul(line_of(uio / "maps/map0/size"), nullptr, 0);
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, self->descriptor, 0);
    require(memory != MAP_FAILED, "ring of " + node);
    self->memory = static_cast<uint8_t*>(memory);
    std::thread(serve, self).detach();

    fs::create_directories(group);
    require(write_file(group / "nexus", initiator), (group / "nexus").string());
    fs::create_directory(lun);
    fs::create_symlink(unit, lun / "link");
    const fs::path disk = "/sys/class/scsi_device/" + line_of(group / "address") + ":0/device";
    return line_of(first_in(disk / "scsi_generic") / "dev");
}

void answer_for_killed_lab() {
    std::error_code ignored;
    for (const fs::directory_entry& unit : fs::directory_iterator(store, ignored)) {
        write_file(unit.path() / "action/reset_ring", "2");
    }
}

void take_down_scsi() {
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(ports, ignored)) {
        if (entry.path().filename().string().starts_with(name_of_ports)) {
            const fs::path group = entry.path() / "tpgt_1";
            fs::remove(group / "lun/lun_0/link", ignored);
            for (const fs::path& directory : {group / "lun/lun_0", group, entry.path()}) {
                rmdir(directory.c_str());
            }
        }
    }
    rmdir(ports.c_str());
    for (const fs::directory_entry& unit : fs::directory_iterator(store, ignored)) {
        if (unit.is_directory()) {
            rmdir(unit.path().c_str());
        }
    }
    rmdir(store.c_str());
}

}  // namespace mirvok::lab
