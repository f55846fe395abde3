#include "storage/drive_use.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "common/text.h"

namespace mirvok {

namespace {

constexpr uint32_t max_block_devices = 256;

// The drive's block devices, their partitions, and what is built on them.
struct block_devices {
    dev_t numbers[max_block_devices];
    uint32_t count;
};

using name_visitor = bool (*)(const char* folder, const char* name, block_devices*, drive_users*);

// Joins the parts of a path. Returns whether they fit.
template <size_t Capacity>
bool make_path(char (&path)[Capacity], std::initializer_list<const char*> parts) {
    size_t length = 0;
    for (const char* part : parts) {
        const size_t room = Capacity - length;
        const size_t part_length = std::strlen(part);
        if (part_length >= room) {
            return false;
        }
        std::memcpy(path + length, part, part_length + 1);
        length += part_length;
    }
    return true;
}

// Calls `visit` for every name of a folder until one call fails. A folder that cannot be read fails too.
bool visit_names(const char* folder, name_visitor visit, block_devices* devices, drive_users* users) {
    DIR* directory = opendir(folder);
    if (directory == nullptr) {
        return false;
    }
    bool complete = true;
    const dirent* entry = nullptr;
    while (complete && (entry = readdir(directory)) != nullptr) {
        if (entry->d_name[0] != '.') {
            complete = visit(folder, entry->d_name, devices, users);
        }
    }
    closedir(directory);
    return complete;
}

// The first line of a small file, without its line feed. Returns whether there is one.
template <size_t Capacity>
bool read_line(const char* path, char (&line)[Capacity]) {
    std::FILE* file = std::fopen(path, "re");
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

bool holds(const block_devices* devices, dev_t number) {
    for (uint32_t i = 0; i < devices->count; ++i) {
        if (devices->numbers[i] == number) {
            return true;
        }
    }
    return false;
}

// Device-mapper devices tell by their identifier who made them.
void add_mapped_device(drive_users* users, const char* name) {
    struct maker {
        const char* prefix;
        const char* kind;
    };
    constexpr maker makers[] = {{"LVM-", "lvm"}, {"mpath-", "multipath"}};
    char path[512];
    char uuid[256] = {};
    char mapped_name[256] = {};
    const char* kind = "dm";
    if (make_path(path, {"/sys/class/block/", name, "/dm/uuid"}) && read_line(path, uuid)) {
        for (const maker& row : makers) {
            kind = begins_with(uuid, row.prefix) ? row.kind : kind;
        }
    }
    const bool named =
        make_path(path, {"/sys/class/block/", name, "/dm/name"}) && read_line(path, mapped_name);
    add_user(users, kind, named ? mapped_name : name);
}

bool add_block_device(const char* folder, const char* name, block_devices* devices, drive_users* users);

bool add_holder(const char* folder, const char* name, block_devices* devices, drive_users* users) {
    char path[512];
    struct stat status = {};
    if (make_path(path, {"/sys/class/block/", name, "/dm"}) && stat(path, &status) == 0) {
        add_mapped_device(users, name);
    } else {
        const bool array = make_path(path, {"/sys/class/block/", name, "/md"}) && stat(path, &status) == 0;
        add_user(users, array ? "md" : "holder", name);
    }
    return add_block_device(folder, name, devices, users);
}

bool add_partition(const char* folder, const char* name, block_devices* devices, drive_users* users) {
    char path[1024];
    struct stat status = {};
    return !make_path(path, {folder, "/", name, "/partition"}) || stat(path, &status) != 0 ||
           add_block_device(folder, name, devices, users);
}

// False when the device's number is not told, or there are more devices than can be looked after.
bool add_block_device(const char* /*folder*/, const char* name, block_devices* devices, drive_users* users) {
    char path[512];
    char line[32];
    unsigned int device_major = 0;
    unsigned int device_minor = 0;
    if (!make_path(path, {"/sys/class/block/", name, "/dev"}) || !read_line(path, line) ||
        std::sscanf(line, "%u:%u", &device_major, &device_minor) != 2) {
        return false;
    }
    const dev_t number = makedev(device_major, device_minor);
    if (holds(devices, number)) {
        return true;
    }
    if (devices->count == max_block_devices) {
        return false;
    }
    devices->numbers[devices->count++] = number;
    return make_path(path, {"/sys/class/block/", name, "/holders"}) &&
           visit_names(path, add_holder, devices, users) && make_path(path, {"/sys/class/block/", name}) &&
           visit_names(path, add_partition, devices, users);
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

bool is_device_of(const block_devices* devices, const char* path) {
    struct stat status = {};
    return path[0] == '/' && stat(path, &status) == 0 && S_ISBLK(status.st_mode) &&
           holds(devices, status.st_rdev);
}

// A line of mountinfo: "36 35 8:1 / /mnt rw,noatime shared:1 - ext4 /dev/sda1 rw". File systems on several
// devices have a number of their own there; the device that they were mounted by is named behind the hyphen.
void take_mount(char* line, const block_devices* devices, drive_users* users) {
    unsigned int device_major = 0;
    unsigned int device_minor = 0;
    int point = 0;
    if (std::sscanf(line, "%*u %*u %u:%u %*s %n", &device_major, &device_minor, &point) != 2 || point == 0) {
        return;
    }
    char* source = std::strstr(line + point, " - ");
    if (source != nullptr) {
        *source = '\0';
        source += 3;
        source += std::strcspn(source, " ");
        source += *source == ' ' ? 1 : 0;
        source[std::strcspn(source, " \n")] = '\0';
        unescape(source);
    }
    char* mount_point = line + point;
    mount_point[std::strcspn(mount_point, " ")] = '\0';
    unescape(mount_point);
    if (holds(devices, makedev(device_major, device_minor)) ||
        (source != nullptr && is_device_of(devices, source))) {
        add_user(users, "mount", mount_point);
    }
}

void take_swap(char* line, const block_devices* devices, drive_users* users) {
    line[std::strcspn(line, " \t\n")] = '\0';
    unescape(line);
    if (is_device_of(devices, line)) {
        add_user(users, "swap", line);
    }
}

// Returns whether the file could be read.
bool visit_lines(const char* path, void (*take)(char*, const block_devices*, drive_users*),
                 const block_devices* devices, drive_users* users) {
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

bool find_block_devices(const _pd_info* pd, block_devices* devices, drive_users* users) {
    char path[128];
    struct stat status = {};
    if (begins_with(pd->dev_name, "/dev/sg")) {
        // Without a disk driver the drive has no block device, and nobody can use one.
        return make_path(path, {"/sys/class/scsi_generic/", pd->dev_name + 5, "/device"}) &&
               stat(path, &status) == 0 &&
               make_path(path, {"/sys/class/scsi_generic/", pd->dev_name + 5, "/device/block"}) &&
               (stat(path, &status) != 0 || visit_names(path, add_block_device, devices, users));
    }
    return begins_with(pd->dev_name, "/dev/nvme") &&
           make_path(path, {"/sys/class/nvme/", pd->dev_name + 5}) && stat(path, &status) == 0 &&
           visit_names(path, add_namespace, devices, users);
}

}  // namespace

void find_drive_users(const _pd_info* pd, drive_users* users) {
    users->count = 0;
    block_devices devices;
    devices.count = 0;
    struct stat status = {};
    users->known = find_block_devices(pd, &devices, users) &&
                   visit_lines("/proc/self/mountinfo", take_mount, &devices, users) &&
                   (visit_lines("/proc/swaps", take_swap, &devices, users) ||
                    stat("/proc/swaps", &status) != 0);  // a kernel without swap space has no such file
}

}  // namespace mirvok
