#include "host_files.h"

#include <sys/sysmacros.h>

#include <fstream>

#include "machine.h"

namespace mirvok::lab {

namespace {

namespace fs = std::filesystem;

constexpr unsigned int sg_major = 21;
constexpr unsigned int nvme_major = 240;

dev_t number_of_node(const std::string& node) {
    const auto number = static_cast<unsigned int>(std::stoul(node.substr(node.find_first_of("0123456789"))));
    return makedev(node.starts_with("/dev/sg") ? sg_major : nvme_major, number);
}

// A drive that nothing is built on, then the machine's own files; null takes one away.
fs::path lay_files() {
    const machine& m = the_machine();
    fs::path root = m.home / "host";
    fs::remove_all(root);
    for (const auto& [node, name] : m.nodes) {
        const dev_t number = number_of_node(node);
        const std::string place = std::to_string(major(number)) + ":" + std::to_string(minor(number));
        fs::create_directories(root / "sys/dev/char" / place / "device/block");
    }
    fs::create_directories(root / "proc/self");
    json files = {{"/proc/self/mountinfo", ""}, {"/proc/swaps", ""}};
    files.update(m.description.value("host", json::object()));
    for (const auto& [path, content] : files.items()) {
        const fs::path file = root / path.substr(1);
        if (content.is_null()) {
            fs::remove_all(file);
        } else {
            fs::create_directories(file.parent_path());
            std::ofstream(file) << content.get<std::string>();  // "." is its folder alone
        }
    }
    return root;
}

const fs::path& root() {
    static const auto* const path = new fs::path(lay_files());
    return *path;
}

}  // namespace

std::string host_path(const char* path) {
    const std::string text = path;
    const bool played = text.starts_with("/sys/") || text == "/proc/self/mountinfo" || text == "/proc/swaps";
    return played ? (root() / text.substr(1)).string() : text;
}

bool stat_node(const char* path, struct stat* status) {
    const std::string text = path;
    if (!text.starts_with("/dev/") || text.starts_with(the_machine().home.string())) {
        return false;
    }
    unsigned int device_major = 0;
    unsigned int device_minor = 0;
    char colon = 0;
    if (const drive* d = drive_at(text); d != nullptr && !d->vanished) {
        *status = {};
        status->st_mode = S_IFCHR;
        status->st_rdev = number_of_node(text);
        return true;
    }
    if (std::ifstream(root() / text.substr(1)) >> device_major >> colon >> device_minor) {
        *status = {};
        status->st_mode = S_IFBLK;
        status->st_rdev = makedev(device_major, device_minor);
        return true;
    }
    return false;
}

}  // namespace mirvok::lab
