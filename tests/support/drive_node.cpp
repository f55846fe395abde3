#include "support/drive_node.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

node_answers answers;

played_drive::played_drive(uint32_t vendor, uint32_t protocol) {
    ctrl.vendor = vendor;
    pd.ctrl = &ctrl;
    pd.protocol = protocol;
    std::strcpy(pd.dev_name, "/dev/null");
}

extern "C" int ioctl(int /*descriptor*/, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == SG_IO && answers.scsi) {
        return answers.scsi(static_cast<sg_io_hdr*>(argument));
    }
    if (request == NVME_IOCTL_ADMIN_CMD && answers.nvme) {
        return answers.nvme(static_cast<nvme_admin_cmd*>(argument));
    }
    errno = ENOTTY;
    return -1;
}
