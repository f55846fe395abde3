#include "common/descriptors.h"

#include <fcntl.h>

namespace mirvok {

bool occupy_standard_descriptors() {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            return false;
        }
    }
    return true;
}

}  // namespace mirvok
