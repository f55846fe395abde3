#include "kernel.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace mirvok::lab {

namespace {

namespace fs = std::filesystem;

std::atomic<bool> running = false;

dev_t number_of_device(const std::string& text) {
    unsigned major = 0;
    unsigned minor = 0;
    require(std::sscanf(text.c_str(), "%u:%u", &major, &minor) == 2, "device number '" + text + "'");
    return makedev(major, minor);
}

// A /dev for this process and its children alone, without the computer's own drives.
void hide_nodes(const fs::path& place) {
    require(unshare(CLONE_NEWNS) == 0, "mount namespace");
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    fs::create_directories(place);
    require(mount("lab", place.c_str(), "tmpfs", 0, "mode=755") == 0, "tmpfs for /dev");
    for (const fs::directory_entry& entry : fs::directory_iterator("/dev")) {
        const std::string name = entry.path().filename();
        const fs::path copy = place / name;
        struct stat found {};
        if (name.starts_with("sg") || name.starts_with("nvme") || lstat(entry.path().c_str(), &found) != 0) {
            continue;
        }
        if (S_ISLNK(found.st_mode)) {
            fs::copy_symlink(entry.path(), copy);
        } else if (S_ISDIR(found.st_mode)) {
            fs::create_directory(copy);
            mount(entry.path().c_str(), copy.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
        } else if (!S_ISREG(found.st_mode)) {
            mknod(copy.c_str(), found.st_mode, found.st_rdev);
        }
    }
    require(mount(place.c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0, "mount of /dev");
    fs::remove(place);
}

[[noreturn]] void refuse(const std::string& what, const std::string& why) {
    throw std::runtime_error(what + ": " + why);
}

void check_machine() {
    const machine& m = the_machine();
    if (!m.description.value("controllers", json::array()).empty()) {
        throw std::runtime_error(
            "controllers' libraries have no kernel: --kernel takes drives with nodes alone");
    }
    if (m.nodes.empty()) {
        throw std::runtime_error("the machine has no node to offer to the kernel");
    }
    if (geteuid() != 0) {
        throw std::runtime_error("--kernel needs root");
    }
    for (const auto& [node, name] : m.nodes) {
        const bool nvme = node.starts_with("/dev/nvme");
        const bool fits = (text_of(m.drives.at(name).self, "protocol", "") == "nvme") == nvme;
        if (!fits || !(nvme || node.starts_with("/dev/sg"))) {
            refuse("node " + node, "the kernel has no such node for drive " + name);
        }
        const std::vector<std::string> modules =
            nvme ? std::vector<std::string>{"nvme_tcp"}
                 : std::vector<std::string>{"target_core_user", "tcm_loop", "sg"};
        for (const std::string& module : modules) {
            if (!fs::exists("/sys/module/" + module)) {
                refuse("modprobe " + module, "this module is not loaded");
            }
        }
    }
}

// One lab at a time: what is left of another one is taken down.
void lock_out_others() {
    const int lock = open("/run/mirvok-lab.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    require(lock >= 0, "/run/mirvok-lab.lock");
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error("another lab is at work behind this kernel");
    }
}

void take_down() {
    take_down_nvme();
    take_down_scsi();
}

// The child's end; signals that would end the lab are the program's meanwhile.
int wait_for(pid_t child, const sigset_t& awaited) {
    int status = 0;
    while (waitpid(child, &status, WNOHANG) != child) {
        int number = 0;
        sigwait(&awaited, &number);
        if (number != SIGCHLD) {
            kill(child, number);
        }
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

bool program_runs() {
    return running;
}

bool write_file(const fs::path& path, const std::string& text) {
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool written =
        file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    if (file >= 0) {
        close(file);
    }
    errno = error;
    return written;
}

std::string line_of(const fs::path& path) {
    std::string line;
    std::getline(std::ifstream(path), line);
    return line;
}

void require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what + ": " + std::strerror(errno));
    }
}

int open_device(const fs::path& dev) {
    const std::string node = "/dev/mirvok-lab";
    unlink(node.c_str());
    require(mknod(node.c_str(), S_IFCHR | 0600, number_of_device(line_of(dev))) == 0, node);
    const int descriptor = open(node.c_str(), O_RDWR | O_CLOEXEC);
    const int error = errno;
    unlink(node.c_str());
    errno = error;
    require(descriptor >= 0, dev.string());
    return descriptor;
}

void unplug(const std::string& node, const std::function<void()>& remove) {
    std::thread([node, remove] {
        unlink(node.c_str());
        remove();
    }).detach();
}

int run_behind_kernel(const fs::path& home, const std::function<void()>& start) {
    setenv(home_variable, home.c_str(), 1);
    check_machine();
    unsetenv(home_variable);
    lock_out_others();
    sigset_t awaited;
    sigset_t before;
    sigemptyset(&awaited);
    for (const int number : {SIGCHLD, SIGTERM, SIGHUP}) {
        sigaddset(&awaited, number);
    }
    pthread_sigmask(SIG_BLOCK, &awaited, &before);
    auto* const on_size_limit = std::signal(SIGXFSZ, SIG_IGN);  // the program's limit, not the lab's
    auto* const on_broken_pipe = std::signal(SIGPIPE, SIG_IGN);
    hide_nodes(home / "dev");
    if (!fs::exists("/sys/kernel/config/target")) {
        mount("lab", "/sys/kernel/config", "configfs", 0, nullptr);
    }
    answer_for_killed_lab();
    take_down();
    int status = 0;
    try {
        size_t index = 0;
        for (const auto& [node, name] : the_machine().nodes) {
            drive& d = *drive_named(name);
            const std::string number =
                node.starts_with("/dev/nvme") ? offer_nvme(d, node, index) : offer_scsi(d, node, index);
            require(mknod(node.c_str(), S_IFCHR | 0600, number_of_device(number)) == 0, node);
            ++index;
        }
        const std::lock_guard held(machine_lock());
        running = true;  // before the program's first command can come
        const pid_t child = fork();
        if (child == 0) {
            std::signal(SIGXFSZ, on_size_limit);
            std::signal(SIGPIPE, on_broken_pipe);
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            // Without the lab its drives are gone, and a program that is stopped would keep the run's lock.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            start();
        }
        require(child > 0, "fork");
        the_machine().program = child;
    } catch (...) {
        take_down();
        throw;
    }
    status = wait_for(the_machine().program, awaited);
    running = false;
    take_down();
    return status;
}

}  // namespace mirvok::lab
