// The C library calls of the program, answered for /dev/sg* and /dev/nvme* and passed on for everything else.
// A node's descriptor is a real one (of /dev/null), so that numbers and limits behave as on a real machine.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/nvme_ioctl.h>
#include <pthread.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "commands.h"
#include "host_files.h"
#include "memory.h"
#include "run.h"

using namespace mirvok::lab;

namespace {

constexpr uint8_t driver_sense = 0x08;
constexpr uint16_t kernel_sense_size = 96;

template <typename F>
F* next_function(const char* name) {
    return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

std::map<int, std::string>& open_nodes() {
    static auto* const nodes = new std::map<int, std::string>;  // still there when the library ends
    return *nodes;
}

std::string node_of(int descriptor) {
    const std::lock_guard held(machine_lock());
    const auto found = open_nodes().find(descriptor);
    return found == open_nodes().end() ? "" : found->second;
}

bool is_node(const char* path) {
    return path != nullptr &&
           (std::strncmp(path, "/dev/sg", 7) == 0 || std::strncmp(path, "/dev/nvme", 9) == 0);
}

int fail(int number) {
    errno = number;
    return -1;
}

int open_file(const char* path, int flags, mode_t mode) {
    using open_call = int(const char*, int, ...);
    static auto* const next = next_function<open_call>("open");
    // The lock of the machine's drives: every lab is a machine of its own.
    const char* home = std::getenv(home_variable);
    if (home != nullptr && path != nullptr && std::strcmp(path, "/run/mirvok.lock") == 0) {
        return next((std::string(home) + "/run.lock").c_str(), flags, mode);
    }
    return next(path, flags, mode);
}

// The driver's buffer of each node. It is handed back whole: behind what the drive sent stand the bytes of
// earlier commands, from its open on.
std::map<std::string, bytes>& driver_buffers() {
    static std::map<std::string, bytes> buffers;
    return buffers;
}

int open_node(const std::string& node, int flags) {
    const std::lock_guard held(machine_lock());
    drive* d = drive_at(node);
    json subject = {{"node", node}};
    if (d != nullptr) {
        subject["drive"] = d->name;
    }
    const std::string answer = text_of(due_fault(subject, "open"), "answer", "");
    if (d != nullptr && answer == "vanish") {
        d->vanished = true;
    }
    int error = d == nullptr || d->vanished ? ENOENT : 0;
    if (answer.starts_with("errno:")) {
        error = error_number(answer.substr(6));
    }
    int descriptor = -1;
    if (error == 0) {
        descriptor = open_file("/dev/null", O_RDWR, 0);
        error = descriptor < 0 ? errno : 0;
    }
    const std::string way =
        (flags & O_ACCMODE) == O_RDWR ? "" : " flags=" + std::to_string(flags & O_ACCMODE);
    journal("open " + node + way + " = " + (error == 0 ? "0" : error_name(error)));
    if (error != 0) {
        return fail(error);
    }
    driver_buffers()[node].clear();
    open_nodes()[descriptor] = node;
    return descriptor;
}

// What the driver refuses before a drive sees anything, or 0.
int sg_refusal(const sg_io_hdr& h) {
    if (h.interface_id != 'S') {
        return ENOSYS;
    }
    if (h.cmdp == nullptr || h.cmd_len < 6 || h.cmd_len > 252) {
        return EMSGSIZE;
    }
    return h.iovec_count != 0 || h.dxfer_direction < SG_DXFER_FROM_DEV || h.dxfer_direction > SG_DXFER_NONE
               ? EINVAL
               : 0;
}

void complete(sg_io_hdr& h, const reply& r) {
    h.status = static_cast<uint8_t>(r.status);
    h.masked_status = static_cast<uint8_t>(r.status >> 1 & 0x7F);
    h.msg_status = 0;
    h.host_status = r.host;
    h.driver_status = r.driver != 0 ? r.driver : r.sense.empty() ? 0 : driver_sense;
    h.sb_len_wr = 0;
    h.duration = 0;
    if (!r.sense.empty() && h.sbp != nullptr) {
        h.sb_len_wr =
            static_cast<uint8_t>(std::min<size_t>({h.mx_sb_len, kernel_sense_size, r.sense.size()}));
        copy_out(h.sbp, r.sense.data(), h.sb_len_wr);
    }
    h.resid = h.dxfer_direction == SG_DXFER_FROM_DEV ? static_cast<int>(h.dxfer_len - r.data.size()) : 0;
    h.info = h.masked_status != 0 || h.host_status != 0 || h.driver_status != 0 ? SG_INFO_CHECK : 0;
}

bool hand_back(const std::string& node, void* destination, uint32_t length, const bytes& data) {
    bytes& buffer = driver_buffers()[node];
    buffer.resize(std::max<size_t>(buffer.size(), length));
    std::ranges::copy(data, buffer.begin());
    return copy_out(destination, buffer.data(), length);
}

int sg_io(const std::string& node, void* argument) {
    sg_io_hdr h{};
    if (!copy_in(&h, argument, sizeof(h))) {
        return fail(EFAULT);
    }
    int refusal = sg_refusal(h);
    scsi_command c;
    if (refusal == 0) {
        c.way = h.dxfer_direction == SG_DXFER_FROM_DEV ? direction::in
                : h.dxfer_direction == SG_DXFER_TO_DEV ? direction::out
                                                       : direction::none;
        c.length = h.dxfer_len;
        c.cdb.resize(h.cmd_len);
        c.data.resize(c.way == direction::out ? c.length : 0);
        if (!copy_in(c.cdb.data(), h.cmdp, h.cmd_len) || !copy_in(c.data.data(), h.dxferp, c.data.size())) {
            refusal = EFAULT;
        }
    }
    if (refusal != 0) {
        journal("sg " + node + " refused = " + error_name(refusal));
        return fail(refusal);
    }
    drive& d = *drive_at(node);
    reply r = run_scsi(d, node, c);
    if (r.error == 0 && c.way == direction::in && !hand_back(node, h.dxferp, c.length, r.data)) {
        r.error = EFAULT;
    }
    const std::string extra = h.timeout == 0 && h.flags == 0
                                  ? ""
                                  : " timeout=" + std::to_string(h.timeout) + " flags=" + hex_number(h.flags);
    journal("sg " + node + " " + describe(c) + extra + " = " + describe(c, r));
    if (r.error != 0) {
        return fail(r.error);
    }
    complete(h, r);
    return copy_out(argument, &h, sizeof(h)) ? 0 : fail(EFAULT);
}

// Fields of the admin command that the program has no use for, when they are set all the same.
std::string unusual_fields(const nvme_admin_cmd& n) {
    const struct {
        const char* name;
        uint64_t value;
    } fields[] = {
        {"flags", n.flags}, {"rsvd1", n.rsvd1},        {"cdw2", n.cdw2},
        {"cdw3", n.cdw3},   {"metadata", n.metadata},  {"metadata_len", n.metadata_len},
        {"cdw12", n.cdw12}, {"cdw13", n.cdw13},        {"cdw14", n.cdw14},
        {"cdw15", n.cdw15}, {"timeout", n.timeout_ms}, {"result", n.result},
    };
    std::string text;
    for (const auto& field : fields) {
        if (field.value != 0) {
            text += std::string(" ") + field.name + "=" + hex_number(field.value);
        }
    }
    return text;
}

int nvme_admin(const std::string& node, void* argument) {
    nvme_admin_cmd n{};
    if (!copy_in(&n, argument, sizeof(n))) {
        return fail(EFAULT);
    }
    auto* const user =
        reinterpret_cast<void*>(n.addr);  // NOLINT(performance-no-int-to-ptr): the record's own
    nvme_command c{n.opcode, n.nsid, n.cdw10, n.cdw11, n.data_len, {}};
    c.data.resize(way_of(c) == direction::out ? n.data_len : 0);
    reply r;
    if (n.flags != 0) {
        r.error = EINVAL;
    } else if (!copy_in(c.data.data(), user, c.data.size())) {
        r.error = EFAULT;
    } else {
        r = run_nvme(*drive_at(node), node, c);
    }
    if (r.error == 0 && !copy_out(user, r.data.data(), r.data.size())) {
        r.error = EFAULT;
    }
    journal("nvme " + node + " " + describe(c, unusual_fields(n), r));
    return r.error != 0 ? fail(r.error) : static_cast<int>(r.status);
}

constexpr const char* libraries[] = {"storelib.so",   "storelibir.so", "storelibir-2.so", "storelibir-3.so",
                                     "storelibit.so", "libmvraid.so",  "liblddf.so"};

bool is_library(const char* path) {
    const std::string name = path == nullptr ? "" : path;
    return std::ranges::any_of(
        libraries, [&](const std::string& library) { return name == library || name == "./" + library; });
}

std::map<void*, std::string>& open_libraries() {
    static auto* const all = new std::map<void*, std::string>;
    return *all;
}

int node_ioctl(const std::string& node, unsigned long request, void* argument) {
    const bool nvme = node.starts_with("/dev/nvme");
    if (!nvme && request == SG_IO) {
        return sg_io(node, argument);
    }
    if (nvme && request == NVME_IOCTL_ADMIN_CMD) {
        return nvme_admin(node, argument);
    }
    journal("ioctl " + node + " " + hex_number(request) + " = ENOTTY");
    return fail(ENOTTY);
}

__attribute__((destructor)) void report_open_nodes() {
    for (const auto& [descriptor, node] : open_nodes()) {
        journal("left open " + node);
    }
}

}  // namespace

// The names under which a program reaches the C library (exports.map lets out no others).
extern "C" {

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return is_node(path) ? open_node(path, flags) : open_file(path, flags, mode);
}

// Offsets have 64 bits anyway.
int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int __open_2(const char* path, int flags) {
    return open(path, flags, 0);
}

int __open64_2(const char* path, int flags) {
    return open(path, flags, 0);
}

int openat(int directory, const char* path, int flags, ...) {
    using openat_call = int(int, const char*, int, ...);
    static auto* const next = next_function<openat_call>("openat");
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return is_node(path) ? open_node(path, flags) : next(directory, path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) __attribute__((alias("openat")));

int stat(const char* path, struct stat* status) noexcept {
    return stat_node(path, status) ? 0 : fstatat(AT_FDCWD, host_path(path).c_str(), status, 0);
}

// The name that programs call which were built with a C library before 2.33.
int __xstat(int /*version*/, const char* path, struct stat* status) noexcept {
    return stat(path, status);
}

std::FILE* fopen(const char* path, const char* mode) {
    using fopen_call = std::FILE*(const char*, const char*);
    static auto* const next = next_function<fopen_call>("fopen");
    return next(host_path(path).c_str(), mode);
}

DIR* opendir(const char* path) {
    static auto* const next = next_function<DIR*(const char*)>("opendir");
    return next(host_path(path).c_str());
}

int close(int descriptor) {
    static auto* const next = next_function<int(int)>("close");
    const std::lock_guard held(machine_lock());
    const auto found = open_nodes().find(descriptor);
    if (found != open_nodes().end()) {
        journal("close " + found->second);
        open_nodes().erase(found);
    }
    return next(descriptor);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
    using ioctl_call = int(int, unsigned long, ...);
    static auto* const next = next_function<ioctl_call>("ioctl");
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const std::string node = node_of(descriptor);
    if (node.empty()) {
        return next(descriptor, request, argument);
    }
    const int before = errno;
    take_time(*drive_at(node));
    const std::lock_guard held(machine_lock());
    const int result = node_ioctl(node, request, argument);
    errno = result < 0 ? errno : before;
    return result;
}

void* dlopen(const char* path, int mode) noexcept {
    static auto* const next = next_function<void*(const char*, int)>("dlopen");
    void* const handle = next(path, mode);
    if (!is_library(path)) {
        return handle;
    }
    constexpr int usual = RTLD_LAZY | RTLD_NODELETE;
    journal(std::string("dlopen ") + path + (mode == usual ? "" : " mode=" + std::to_string(mode)) +
            (handle != nullptr ? " = ok" : " = none"));
    if (handle == nullptr) {
        return next(path, mode);  // once more for dlerror, which the journal's own look-ups have cleared
    }
    open_libraries()[handle] = path;
    return handle;
}

int dlclose(void* handle) noexcept {
    static auto* const next = next_function<int(void*)>("dlclose");
    const int result = next(handle);
    const auto found = open_libraries().find(handle);
    if (found != open_libraries().end()) {
        journal("dlclose " + found->second + (result == 0 ? "" : " fails"));
    }
    return result;
}

unsigned int sleep(unsigned int seconds) {
    const std::lock_guard held(machine_lock());
    journal("sleep " + std::to_string(seconds));
    raise_as(text_of(due_fault(json::object(), "sleep"), "answer", ""));
    return 0;
}

// A thread that the system does not give.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    static auto* const next = next_function<decltype(pthread_create)>("pthread_create");
    const std::lock_guard held(machine_lock());
    const std::string answer = text_of(due_fault(json::object(), "thread"), "answer", "");
    return answer.starts_with("errno:") ? error_number(answer.substr(6))
                                        : next(thread, attributes, start, argument);
}

// A wait that a signal ends: it is over at once, too, and takes the signal that came by then.
int sigtimedwait(const sigset_t* set, siginfo_t* info, const struct timespec* timeout) {
    using wait_call = int(const sigset_t*, siginfo_t*, const struct timespec*);
    static auto* const next = next_function<wait_call>("sigtimedwait");
    sleep(static_cast<unsigned int>(timeout->tv_sec));
    const struct timespec now = {0, 0};
    return next(set, info, &now);
}

}  // extern "C"
