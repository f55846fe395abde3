// Who uses a drive: what the kernel has built on its block devices, from sysfs and /proc. No device is
// opened.
#pragma once

#include <cstdint>

#include "storage/device_model.h"

namespace mirvok {

constexpr uint32_t max_drive_users = 16;

struct drive_user {
    // "mount", "swap", "md", "lvm", "dm", "multipath", or "holder" for whatever else is built on a drive.
    const char* kind;
    // The mount point, or the block device where it is mounted out of this process's sight; the block device
    // of swap space; the holder's own name. Cut where it is longer.
    char name[128];
};

struct drive_users {
    bool known;      // false: none was found, and sysfs or /proc do not tell all, or the drive has no node
    uint32_t count;  // entries of `list` in use; users beyond its room are left out
    drive_user list[max_drive_users];
};

// Finds the users of the drive's block devices, of their partitions, and of what is built on either.
void find_drive_users(const _pd_info* pd, drive_users* users);

}  // namespace mirvok
