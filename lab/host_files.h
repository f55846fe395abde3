// What the computer's kernel tells of the drives' users: files that stand for its sysfs and /proc.
#pragma once

#include <sys/stat.h>

#include <string>

namespace mirvok::lab {

// The file that stands for one of /sys, /proc/self/mountinfo or /proc/swaps; any other path as it is.
std::string host_path(const char* path);

// What stat tells of a node: of a drive its device number, of a block device the number that its file has.
// False for any other path.
bool stat_node(const char* path, struct stat* status);

}  // namespace mirvok::lab
