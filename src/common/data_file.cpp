#include "common/data_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace mirvok {

std::FILE* open_data_file(const char* path) {
    const int descriptor = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat status = {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(descriptor);
        errno = EINVAL;
        return nullptr;
    }
    return fdopen(descriptor, "rb");
}

}  // namespace mirvok
