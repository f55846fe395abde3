// NVMe drives for the kernel's NVMe driver: controllers over TCP on the loopback interface. Layouts:
// NVMe 1.4; NVMe over Fabrics 1.1, clauses 2, 3 and 7.4.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "commands.h"
#include "common/bytes.h"
#include "kernel.h"
#include "pages.h"
#include "run.h"

namespace mirvok::lab {

namespace {

namespace fs = std::filesystem;

const std::string subsystem = "nqn.2018-07.lab.mirvok:";

enum pdu : uint8_t { ic_request, ic_response, capsule_command = 4, capsule_response = 5, data_to_host = 7 };

constexpr uint32_t op_set_features = 0x09;
constexpr uint32_t op_async_event = 0x0C;
constexpr uint32_t op_keep_alive = 0x18;
constexpr uint32_t op_fabrics = 0x7F;
constexpr uint32_t internal_error = 0x4006;
constexpr uint32_t version = 0x00010400;

struct controller {
    drive* d;
    std::string node;
    uint16_t id;
    int listener;
    std::string device;                 // the controller's directory in sysfs, once it is there
    std::atomic<uint32_t> settings{0};  // property CC
    std::atomic<bool> live{false};      // its I/O queue is connected: the kernel has got to know it
};

struct completion {
    bool parked = false;  // no answer, now or ever
    uint64_t result = 0;
    reply answer;
};

bool receive(int connection, uint8_t* to, size_t length) {
    return recv(connection, to, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

bool send_pdu(int connection, pdu type, uint8_t flags, uint8_t header, bytes content) {
    bytes whole = {type, flags, header, static_cast<uint8_t>(type == data_to_host ? header : 0), 0, 0, 0, 0};
    whole.insert(whole.end(), content.begin(), content.end());
    store_le32(&whole[4], static_cast<uint32_t>(whole.size()));
    return send(connection, whole.data(), whole.size(), 0) == static_cast<ssize_t>(whole.size());
}

// Identify Controller as Linux takes it to go on: the drive's names, and the controller id, keep alive,
// queues and SGLs of a fabric.
reply identify_for_kernel(const controller& self) {
    reply r;
    r.data = page_of(*self.d, "controller", 72);
    r.data.resize(4096);
    uint8_t* const page = r.data.data();
    store_le16(page + 78, self.id);
    store_le32(page + 80, version);
    page[111] = 1;                       // an I/O controller
    store_le16(page + 320, 10);          // KAS
    store_le16(page + 512, 0x4466);      // SQES, CQES
    store_le16(page + 514, 128);         // MAXCMD
    page[516] = 1;                       // NN
    store_le32(page + 536, 0x00100001);  // SGLS: with an offset into the capsule
    const std::string name = subsystem + self.node.substr(5);
    std::copy(name.begin(), name.end(), page + 768);
    page[1792] = 4;  // IOCCSZ and IORCSZ in units of 16 bytes, MSDBD
    page[1796] = 1;
    page[1803] = 1;
    return r;
}

completion run_fabrics(controller& self, const uint8_t* sqe) {
    completion done;
    const uint32_t offset = load_le32(sqe + 44);
    switch (sqe[4]) {
        case 0x00:  // Property Set: only CC is there to be written
            self.settings = load_le32(sqe + 48);
            break;
        case 0x01:  // Connect
            if (load_le16(sqe + 42) == 0) {
                self.live = false;
                const std::lock_guard held(machine_lock());
                if (self.d->lasting.contains("next_level")) {
                    const json level = self.d->lasting["next_level"];
                    self.d->lasting.erase("next_level");
                    remember(*self.d, "level", level);
                }
            } else {
                self.live = true;
            }
            done.result = self.id;
            break;
        case 0x04: {  // Property Get: CAP, VS, CC, CSTS
            const uint32_t cc = self.settings;
            const uint64_t ready = (cc & 1) | ((cc & 0xC000) != 0 ? 8U : 0U);
            done.result = offset == 0      ? uint64_t{1} << 37 | 20U << 24 | 1U << 16 | 127
                          : offset == 8    ? version
                          : offset == 0x14 ? cc
                          : offset == 0x1C ? ready
                                           : 0;
            break;
        }
        default:
            done.answer.status = 0x4002;
    }
    return done;
}

// What the kernel sends for itself: whatever comes before the program runs or the I/O queue is there,
// features, and every Identify but those of controller and namespace 1.
bool is_kernels_own(const controller& self, const nvme_command& c) {
    return !program_runs() || !self.live || c.opcode == op_set_features || c.opcode == op_keep_alive ||
           (c.opcode == 0x06 && (c.cdw10 & 0xFF) > 1);
}

reply answer_kernel(controller& self, const nvme_command& c) {
    reply r;
    if (c.opcode == op_keep_alive || c.opcode == op_set_features) {
        return r;  // number of queues: one of each, which is written 0
    }
    if (c.opcode == 0x06 && (c.cdw10 & 0xFF) == 1) {
        return identify_for_kernel(self);
    }
    if (c.opcode == 0x06 && (c.cdw10 & 0xFF) == 2) {
        r.data.resize(c.length);  // no namespace is active
        return r;
    }
    return answer(*self.d, c);
}

completion run(controller& self, const uint8_t* sqe, const uint8_t* data, size_t data_length) {
    nvme_command c{sqe[0], load_le32(sqe + 4), load_le32(sqe + 40), load_le32(sqe + 44), load_le32(sqe + 32),
                   {}};
    if (c.opcode == op_fabrics) {
        return run_fabrics(self, sqe);
    }
    if (c.opcode == op_async_event) {
        return {.parked = true, .result = 0, .answer = {}};
    }
    c.data.assign(data, data + (way_of(c) == direction::out ? data_length : 0));
    const bool own = is_kernels_own(self, c);
    if (!own) {
        take_time(*self.d);
    }
    const std::lock_guard held(machine_lock());
    const bool there = !self.d->vanished;
    completion done;
    if (way_of(c) == direction::out && c.data.size() != c.length) {
        done.answer.status = 0x4002;  // more than a capsule carries
    } else {
        done.answer = own ? answer_kernel(self, c) : run_nvme(*self.d, self.node, c);
    }
    journal((own ? "kernel nvme " : "nvme ") + self.node + " " + describe(c, "", done.answer));
    if (there && self.d->vanished) {
        unplug(self.node, [path = self.device + "/delete_controller"] { write_file(path, "1"); });
    }
    done.parked = self.d->vanished && !own;
    return done;
}

bool complete(int connection, const uint8_t* sqe, const completion& done) {
    if (done.parked) {
        return true;
    }
    const bytes& data = done.answer.data;
    if (!data.empty()) {
        bytes content(16);
        std::copy_n(sqe + 2, 2, content.begin());
        store_le32(&content[8], static_cast<uint32_t>(data.size()));
        content.insert(content.end(), data.begin(), data.end());
        if (!send_pdu(connection, data_to_host, 0x04, 24, content)) {
            return false;
        }
    }
    bytes entry(16);
    store_le32(entry.data(), static_cast<uint32_t>(done.result));
    store_le32(&entry[4], static_cast<uint32_t>(done.result >> 32));
    std::copy_n(sqe + 2, 2, &entry[12]);
    store_le16(&entry[14], (done.answer.error != 0 ? internal_error : done.answer.status) << 1);
    return send_pdu(connection, capsule_response, 0, 24, entry);
}

// Whether the connection goes on.
bool serve_pdu(controller& self, int connection) {
    bytes pdu(8);
    if (!receive(connection, pdu.data(), 8)) {
        return false;
    }
    const uint32_t length = load_le32(&pdu[4]);
    if (length < 72 || length > 65536) {
        return false;
    }
    pdu.resize(length);
    if (!receive(connection, &pdu[8], length - 8)) {
        return false;
    }
    if (pdu[0] == ic_request) {
        bytes content(120);
        content[6] = 1;  // 64 KiB a piece
        return send_pdu(connection, ic_response, 0, 128, content);
    }
    const size_t from = pdu[3] >= 72 ? std::min<size_t>(pdu[3], length) : length;
    return pdu[0] == capsule_command &&
           complete(connection, &pdu[8], run(self, &pdu[8], pdu.data() + from, length - from));
}

void listen_for(controller* self) {
    for (int connection = 0; (connection = accept4(self->listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        std::thread([self, connection] {
            while (serve_pdu(*self, connection)) {
            }
            close(connection);
        }).detach();
    }
}

// A port of the kernel's choice, so that none is in use. Returns its number.
uint16_t listen_on_loopback(int listener) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const general = reinterpret_cast<sockaddr*>(&address);
    require(bind(listener, general, size) == 0 && listen(listener, 4) == 0 &&
                getsockname(listener, general, &size) == 0,
            "a port of the loopback interface");
    return ntohs(address.sin_port);
}

}  // namespace

std::string offer_nvme(drive& d, const std::string& node, size_t index) {
    auto* const self = new controller{&d, node, static_cast<uint16_t>(index + 1),
                                      socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), ""};
    const uint16_t port = listen_on_loopback(self->listener);
    std::thread(listen_for, self).detach();
    const std::string options = "transport=tcp,traddr=127.0.0.1,trsvcid=" + std::to_string(port) +
                                ",nqn=" + subsystem + node.substr(5) +
                                ",nr_io_queues=1,keep_alive_tmo=0,hostnqn=" + subsystem +
                                "host,hostid=6d697276-6f6b-4000-8000-000000000001";
    const int fabrics = open_device("/sys/class/misc/nvme-fabrics/dev");
    require(write(fabrics, options.data(), options.size()) == static_cast<ssize_t>(options.size()),
            "NVMe controller for " + node);
    char text[64] = {};
    [[maybe_unused]] const ssize_t got = read(fabrics, text, sizeof(text) - 1);
    close(fabrics);
    int instance = -1;
    require(std::sscanf(text, "instance=%d", &instance) == 1, "instance of " + node);
    self->device = "/sys/class/nvme/nvme" + std::to_string(instance);
    return line_of(self->device + "/dev");
}

void take_down_nvme() {
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/class/nvme", ignored)) {
        if (line_of(entry.path() / "subsysnqn").starts_with(subsystem)) {
            write_file(entry.path() / "delete_controller", "1");
        }
    }
}

}  // namespace mirvok::lab
