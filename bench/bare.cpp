// What an operation costs beyond the drives' own time. With OPERATION (find or smart): sends the commands
// that it sends, and does nothing else. With RUNS PROGRAM OPERATION: runs itself bare and the program in
// turn, and prints the medians, and the program's peak memory.

#include <fcntl.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int nodes = 64;
constexpr int smart_nodes[] = {2, 5};  // SATA drives that the virtual machine's SMART profile knows
uint8_t data[4096];

uint8_t inquiry[] = {0x12, 0, 0, 2, 0, 0};
uint8_t identify[] = {0xA1, 8, 14, 0, 1, 0, 0x4F, 0xC2, 0, 0xEC, 0, 0};
uint8_t log_b0[] = {0xA1, 8, 14, 0xD5, 1, 0xB0, 0x4F, 0xC2, 0, 0xB0, 0, 0};
uint8_t smart_data[] = {0xA1, 8, 14, 0xD0, 1, 1, 0x4F, 0xC2, 0, 0xB0, 0, 0};
uint8_t smart_status[] = {0xA1, 6, 0x24, 0xDA, 0, 0, 0x4F, 0xC2, 0, 0xB0, 0, 0};

int open_node(const char* kind, int index) {
    char name[32];
    std::snprintf(name, sizeof(name), "/dev/%s%d", kind, index);
    return open(name, O_RDWR);
}

template <size_t length>
void scsi(int node, uint8_t (&cdb)[length], int direction = SG_DXFER_FROM_DEV) {
    uint8_t sense[64];
    std::memset(data, 0, 512);
    sg_io_hdr header = {};
    header.interface_id = 'S';
    header.dxfer_direction = direction;
    header.cmd_len = length;
    header.mx_sb_len = sizeof(sense);
    header.dxfer_len = 512;
    header.dxferp = data;
    header.cmdp = cdb;
    header.sbp = sense;
    ioctl(node, SG_IO, &header);
}

void nvme(int node, uint8_t opcode, uint32_t nsid, uint32_t cdw10, uint32_t size) {
    std::memset(data, 0, size);
    nvme_admin_cmd command = {};
    command.opcode = opcode;
    command.nsid = nsid;
    command.cdw10 = cdw10;
    command.addr = reinterpret_cast<uintptr_t>(data);
    command.data_len = size;
    ioctl(node, NVME_IOCTL_ADMIN_CMD, &command);
}

void send_what_is_sent(bool smart) {
    bool sata[nodes] = {};
    bool flash[nodes] = {};
    for (int i = 0; i < nodes; ++i) {
        if (const int node = open_node("sg", i); node >= 0) {
            scsi(node, inquiry);
            sata[i] =
                std::memcmp(data + 8, "ATA ", 4) == 0 && std::memcmp(data + 16, "Brackenfold M.2", 15) != 0;
            close(node);
        }
    }
    for (int i = 0; i < nodes; ++i) {
        if (const int node = open_node("nvme", i); node >= 0) {
            flash[i] = true;
            close(node);
        }
    }
    for (int i = 0; i < nodes; ++i) {
        if (sata[i]) {
            const int node = open_node("sg", i);
            scsi(node, inquiry);
            scsi(node, identify);
            scsi(node, log_b0);
            if (smart &&
                std::find(std::begin(smart_nodes), std::end(smart_nodes), i) != std::end(smart_nodes)) {
                scsi(node, smart_data);
                scsi(node, smart_status, SG_DXFER_NONE);
            }
            close(node);
        }
    }
    for (int i = 0; i < nodes; ++i) {
        if (flash[i]) {
            const int node = open_node("nvme", i);
            nvme(node, 0x06, 0, 1, 4096);
            nvme(node, 0x06, 1, 0, 4096);
            for (const uint32_t log : {0xE0U, 0x03U, 0x02U}) {
                nvme(node, 0x02, 0xFFFFFFFF, 255U << 16 | log, 1024);
            }
            if (smart) {
                nvme(node, 0x02, 0xFFFFFFFF, 127U << 16 | 0x02, 512);
            }
            close(node);
        }
    }
}

// Microseconds that the command takes; *peak receives its peak memory in KB.
double run(char* const* command, long* peak) {
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    int status = 0;
    rusage usage = {};
    if (posix_spawnp(&child, command[0], &quiet, nullptr, command, environ) != 0 ||
        wait4(child, &status, 0, &usage) != child || WIFSIGNALED(status)) {
        std::fprintf(stderr, "%s failed\n", command[0]);
        std::exit(1);
    }
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
    posix_spawn_file_actions_destroy(&quiet);
    *peak = usage.ru_maxrss;
    return taken.count();
}

// The lower quartile: what else the computer does makes a run longer, never shorter.
double quartile(std::vector<double>& times) {
    const auto at = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 4);
    std::nth_element(times.begin(), at, times.end());
    return *at;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        send_what_is_sent(argc == 2 && std::strcmp(argv[1], "smart") == 0);
        return 0;
    }
    char* const bare[] = {argv[0], argv[3], nullptr};
    std::vector<double> times;
    std::vector<double> bare_times;
    long peak = 0;
    for (int runs = std::max(std::atoi(argv[1]), 1); runs > 0; --runs) {
        bare_times.push_back(run(bare, &peak));
        times.push_back(run(argv + 2, &peak));
    }
    const double taken = quartile(times);
    const double bare_taken = quartile(bare_times);
    std::printf("%s: %.0f us, bare %.0f us, ratio %.3f, peak memory %ld KB\n", argv[3], taken, bare_taken,
                taken / bare_taken, peak);
    return 0;
}
