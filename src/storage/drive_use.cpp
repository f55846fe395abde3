#include "storage/drive_use.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "common/text.h"
#include "storage/drive_paths.h"

namespace mirvok {

namespace {

constexpr uint32_t max_block_devices = 256;

struct block_device {
    dev_t number;
    char name[64];
    bool mounted;  // and its mount point known
};

// The drive's block devices, their partitions, and what is built on them.
struct block_devices {
    block_device list[max_block_devices];
    uint32_t count;
    bool unseen_swap;  // a swap space is on a node that is not there
};

using name_visitor = bool (*)(const char* folder, const char* name, block_devices*, drive_users*);

// Joins the parts of a path. Returns whether they fit.
template <size_t Capacity>
bool make_path(char (&path)[Capacity], std::initializer_list<const char*> parts) {
    size_t length = 0;
    for (const char* part : parts) {
        const size_t part_length = std::strlen(part);
        if (part_length >= Capacity - length) {
            return false;
        }
        std::memcpy(path + length, part, part_length + 1);
        length += part_length;
    }
    return true;
}

bool exists(std::initializer_list<const char*> parts) {
    char path[1024];
    struct stat status = {};
    return make_path(path, parts) && stat(path, &status) == 0;
}

// Calls `visit` for every name of a folder until one call fails. A folder that cannot be read fails too.
bool visit_names(std::initializer_list<const char*> parts, name_visitor visit, block_devices* devices,
                 drive_users* users) {
    char folder[512];
    DIR* directory = make_path(folder, parts) ? opendir(folder) : nullptr;
    if (directory == nullptr) {
        return false;
    }
    bool complete = true;
    errno = 0;
    for (const dirent* entry = nullptr; complete && (entry = readdir(directory)) != nullptr; errno = 0) {
        complete = entry->d_name[0] == '.' || visit(folder, entry->d_name, devices, users);
    }
    complete = complete && errno == 0;
    closedir(directory);
    return complete;
}

// The first line of a small file, without its line feed. Returns whether there is one.
template <size_t Capacity>
bool read_line(std::initializer_list<const char*> parts, char (&line)[Capacity]) {
    char path[512];
    std::FILE* file = make_path(path, parts) ? std::fopen(path, "re") : nullptr;
    const bool there = file != nullptr && std::fgets(line, Capacity, file) != nullptr;
    if (file != nullptr) {
        std::fclose(file);
    }
    if (there) {
        line[std::strcspn(line, "\n")] = '\0';
    }
    return there;
}

void add_user(drive_users* users, const char* kind, const char* name) {
    if (users->count < max_drive_users) {
        drive_user& user = users->list[users->count++];
        user.kind = kind;
        copy_text(user.name, name);
    }
}

block_device* find_device(block_devices* devices, dev_t number) {
    for (uint32_t i = 0; i < devices->count; ++i) {
        if (devices->list[i].number == number) {
            return &devices->list[i];
        }
    }
    return nullptr;
}

// Device-mapper devices tell by their identifier who made them.
void add_mapped_device(drive_users* users, const char* name) {
    struct maker {
        const char* prefix;
        const char* kind;
    };
    constexpr maker makers[] = {{"LVM-", "lvm"}, {"mpath-", "multipath"}};
    char uuid[256] = {};
    char mapped_name[256] = {};
    const char* kind = "dm";
    if (read_line({"/sys/class/block/", name, "/dm/uuid"}, uuid)) {
        for (const maker& row : makers) {
            kind = begins_with(uuid, row.prefix) ? row.kind : kind;
        }
    }
    const bool named = read_line({"/sys/class/block/", name, "/dm/name"}, mapped_name);
    add_user(users, kind, named ? mapped_name : name);
}

bool add_block_device(const char* folder, const char* name, block_devices* devices, drive_users* users);

bool add_holder(const char* folder, const char* name, block_devices* devices, drive_users* users) {
    if (exists({"/sys/class/block/", name, "/dm"})) {
        add_mapped_device(users, name);
    } else {
        add_user(users, exists({"/sys/class/block/", name, "/md"}) ? "md" : "holder", name);
    }
    return add_block_device(folder, name, devices, users);
}

bool add_partition(const char* folder, const char* name, block_devices* devices, drive_users* users) {
    return !exists({folder, "/", name, "/partition"}) || add_block_device(folder, name, devices, users);
}

// False when the device's number is not told, or there are more devices than can be looked after.
bool add_block_device(const char* /*folder*/, const char* name, block_devices* devices, drive_users* users) {
    char line[32];
    unsigned int major_number = 0;
    unsigned int minor_number = 0;
    if (!read_line({"/sys/class/block/", name, "/dev"}, line) ||
        std::sscanf(line, "%u:%u", &major_number, &minor_number) != 2) {
        return false;
    }
    const dev_t number = makedev(major_number, minor_number);
    if (find_device(devices, number) != nullptr) {
        return true;
    }
    if (devices->count == max_block_devices) {
        return false;
    }
    block_device& device = devices->list[devices->count++];
    device.number = number;
    copy_text(device.name, name);
    device.mounted = false;
    return visit_names({"/sys/class/block/", name, "/holders"}, add_holder, devices, users) &&
           visit_names({"/sys/class/block/", name}, add_partition, devices, users);
}

// A namespace of a controller, nvme0n1; where the kernel joins several paths to one, the path's own name is
// nvme0c1n1, and the block device that is used is called nvme0n1.
bool add_namespace(const char* folder, const char* name, block_devices* devices, drive_users* users) {
    unsigned int subsystem = 0;
    unsigned int controller = 0;
    unsigned int number = 0;
    int length = 0;
    if (std::sscanf(name, "nvme%un%u%n", &subsystem, &number, &length) == 2 && name[length] == '\0') {
        return add_block_device(folder, name, devices, users);
    }
    if (std::sscanf(name, "nvme%uc%un%u%n", &subsystem, &controller, &number, &length) == 3 &&
        name[length] == '\0') {
        char head[64];
        std::snprintf(head, sizeof(head), "nvme%un%u", subsystem, number);
        return add_block_device(folder, head, devices, users);
    }
    return true;
}

// mountinfo and swaps write blanks, tabs, line feeds and backslashes of a name as \ooo.
void unescape(char* text) {
    char* to = text;
    for (const char* from = text; *from != '\0'; ++to) {
        unsigned int byte = 0;
        if (*from == '\\' && std::sscanf(from + 1, "%3o", &byte) == 1 && byte <= 0xFF) {
            *to = static_cast<char>(byte);
            from += 4;
        } else {
            *to = *from++;
        }
    }
    *to = '\0';
}

// The drive's device whose node this is, or null. Only nodes are looked at: a name elsewhere may be one of a
// server that does not answer.
block_device* device_of_node(block_devices* devices, const char* path) {
    struct stat status = {};
    const bool node = begins_with(path, "/dev/") && stat(path, &status) == 0 && S_ISBLK(status.st_mode);
    return node ? find_device(devices, status.st_rdev) : nullptr;
}

// A line of mountinfo: "36 35 8:1 / /mnt rw,noatime shared:1 - ext4 /dev/sda1 rw". File systems on several
// devices have a number of their own there; the device that they were mounted by is named behind the hyphen.
void take_mount(char* line, block_devices* devices, drive_users* users) {
    unsigned int major_number = 0;
    unsigned int minor_number = 0;
    int point = 0;
    if (std::sscanf(line, "%*u %*u %u:%u %*s %n", &major_number, &minor_number, &point) != 2 || point == 0) {
        return;
    }
    char* mount_point = line + point;
    block_device* device = find_device(devices, makedev(major_number, minor_number));
    char* source = major_number == 0 ? std::strstr(mount_point, " - ") : nullptr;
    if (source != nullptr) {
        source += 3;
        source += std::strcspn(source, " ");
        source += *source == ' ' ? 1 : 0;
        source[std::strcspn(source, " \n")] = '\0';
        unescape(source);
        device = device_of_node(devices, source);
    }
    if (device != nullptr) {
        mount_point[std::strcspn(mount_point, " ")] = '\0';
        unescape(mount_point);
        add_user(users, "mount", mount_point);
        device->mounted = true;
    }
}

void take_swap(char* line, block_devices* devices, drive_users* users) {
    line[std::strcspn(line, " \t\n")] = '\0';
    unescape(line);
    const block_device* device = device_of_node(devices, line);
    if (device != nullptr) {
        add_user(users, "swap", device->name);
    } else if (begins_with(line, "/dev/") && !exists({line})) {
        devices->unseen_swap = true;
    }
}

// Returns whether the file could be read.
bool visit_lines(const char* path, void (*take)(char*, block_devices*, drive_users*), block_devices* devices,
                 drive_users* users) {
    std::FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, file) >= 0) {
        take(line, devices, users);
    }
    std::free(line);
    const bool complete = std::ferror(file) == 0;
    std::fclose(file);
    return complete;
}

// A mounted btrfs names all of its devices, mountinfo one of them.
bool take_btrfs(const char* folder, const char* name, block_devices* devices, drive_users* users) {
    for (uint32_t i = 0; i < devices->count; ++i) {
        block_device& device = devices->list[i];
        if (!device.mounted && exists({folder, "/", name, "/devices/", device.name})) {
            add_user(users, "mount", device.name);
            device.mounted = true;
        }
    }
    return true;
}

// File systems that are mounted where this process does not see it, in another mount namespace.
void take_unseen_mounts(block_devices* devices, drive_users* users) {
    visit_names({"/sys/fs/btrfs"}, take_btrfs, devices, users);
    for (uint32_t i = 0; i < devices->count; ++i) {
        const block_device& device = devices->list[i];
        for (const char* type : {"ext4", "xfs", "f2fs"}) {
            if (!device.mounted && exists({"/sys/fs/", type, "/", device.name})) {
                add_user(users, "mount", device.name);
            }
        }
    }
}

// The node's number tells which device it is, whatever its name.
bool find_block_devices(const _pd_info* pd, block_devices* devices, drive_users* users) {
    struct stat status = {};
    if (pd->dev_name[0] == '\0' || stat(pd->dev_name, &status) != 0 || !S_ISCHR(status.st_mode)) {
        return false;
    }
    char node[64];
    std::snprintf(node, sizeof(node), "/sys/dev/char/%u:%u", major(status.st_rdev), minor(status.st_rdev));
    if (path_of(pd->ctrl).has_namespaces) {
        return visit_names({node}, add_namespace, devices, users);
    }
    // A drive without a block device may be a member of a volume that its adapter makes.
    return visit_names({node, "/device/block"}, add_block_device, devices, users);
}

}  // namespace

void find_drive_users(const _pd_info* pd, drive_users* users) {
    users->count = 0;
    block_devices devices;
    devices.count = 0;
    devices.unseen_swap = false;
    const bool complete = find_block_devices(pd, &devices, users) &&
                          visit_lines("/proc/self/mountinfo", take_mount, &devices, users) &&
                          (visit_lines("/proc/swaps", take_swap, &devices, users) ||
                           !exists({"/proc/swaps"}));  // a kernel without swap space has no such file
    take_unseen_mounts(&devices, users);
    users->known = (complete && !devices.unseen_swap) || users->count > 0;
}

}  // namespace mirvok
