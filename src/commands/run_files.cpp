#include "commands/run_files.h"

#include <ftw.h>
#include <sys/stat.h>

#include <climits>
#include <cstring>
#include <initializer_list>

#include "common/text.h"

namespace mirvok {

namespace {

constexpr int directories_at_once = 8;

// The file and its directory; without a file the directory stands for both.
struct stat wanted;
struct stat wanted_directory;

bool is_same(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

int is_wanted(const char* path, const struct stat* /*itself*/, int /*type*/, struct FTW* /*place*/) {
    struct stat status = {};  // of what a link leads to
    return stat(path, &status) == 0 && (is_same(status, wanted) || is_same(status, wanted_directory)) ? 1 : 0;
}

}  // namespace

bool is_run_file(const char* path, const char* profile) {
    const char* slash = std::strrchr(path, '/');
    char directory[PATH_MAX] = ".";
    if (slash != nullptr) {
        copy_field(directory, path, static_cast<size_t>(slash + 1 - path));
    }
    if (stat(directory, &wanted_directory) != 0) {
        return false;
    }
    if (stat(path, &wanted) != 0) {
        wanted = wanted_directory;
    }
    for (const char* name : {profile, "flashdrv.bin", "sizes.bin", "talvex.bin"}) {
        struct stat status = {};
        if (stat(name, &status) == 0 && is_same(status, wanted)) {
            return true;
        }
    }
    return nftw("files/.", is_wanted, directories_at_once, 0) == 1;
}

}  // namespace mirvok
