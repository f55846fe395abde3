// A drive behind a node of the kernel's: /dev/null is opened, and ioctl is answered by the test.
#pragma once

#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>

#include <functional>

#include "storage/device_model.h"
#include "support/records.h"

// What the requests of the next commands get; without one they fail.
struct node_answers {
    std::function<int(sg_io_hdr*)> scsi;
    std::function<int(nvme_admin_cmd*)> nvme;
};
extern node_answers answers;

// A drive of the given path whose node is /dev/null.
struct played_drive {
    mirvok::_ctrl_info ctrl = {};
    mirvok::_pd_info pd = {};
    explicit played_drive(uint32_t vendor, uint32_t protocol);
};
