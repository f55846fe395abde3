#include "storage/drive_node.h"

#include "transport/host_device.h"

namespace mirvok {

bool open_node(_pd_info* pd) {
    pd->handle = get_handle(pd->dev_name);
    return pd->handle != 0;
}

void close_node(_pd_info* pd) {
    close_handle(pd->handle);
    pd->handle = 0;
}

}  // namespace mirvok
