#include "transport/host_device.h"

#include <fcntl.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/signals.h"
#include "transport/command_results.h"

namespace mirvok {

static_assert(sizeof(nvme_admin_cmd) == 72);

namespace {

constexpr uint8_t nvme_firmware_commit = 0x10;
constexpr uint8_t nvme_firmware_image_download = 0x11;
// Commit action 1: the image replaces the one in the slot and is activated at the next controller reset;
// firmware slot 0 lets the controller choose.
constexpr uint32_t commit_action_1_slot_0 = 0x08;
// Statuses of a commit that was taken (NVMe 1.4, 5.11.1): what starts the image.
constexpr int needs_conventional_reset = 0x10B;
constexpr int needs_subsystem_reset = 0x110;
constexpr int needs_controller_reset = 0x111;

int transfer_direction(io_direction_t direction) {
    switch (direction) {
        case IO_DIR_IN:
            return SG_DXFER_FROM_DEV;
        case IO_DIR_OUT:
            return SG_DXFER_TO_DEV;
        default:
            return SG_DXFER_NONE;
    }
}

// A drive must never get descriptor 0, 1 or 2: 0 means no handle, and what is written to a standard stream
// that somebody closed would reach the drive. Such a descriptor is exchanged; 0 when none is free.
uint32_t to_handle(int descriptor) {
    constexpr int first = STDERR_FILENO + 1;
    if (descriptor >= first) {
        return static_cast<uint32_t>(descriptor);
    }
    const int exchanged = fcntl(descriptor, F_DUPFD_CLOEXEC, first);
    const int reason = errno;
    close(descriptor);
    errno = reason;
    return exchanged < 0 ? 0 : static_cast<uint32_t>(exchanged);
}

// Descriptor 0 is no drive's: without a handle the request fails as on a closed descriptor.
int device_ioctl(uint32_t handle, unsigned long request, void* argument) {
    if (handle == 0) {
        errno = EBADF;
        return -1;
    }
    return ioctl(static_cast<int>(handle), request, argument);
}

int admin_ioctl(uint32_t handle, nvme_admin_cmd* command) {
    errno = 0;
    return device_ioctl(handle, NVME_IOCTL_ADMIN_CMD, command);
}

// Bytes that came from the device. Data beside "recovered error" are an answer; a driver byte beside GOOD, as
// older kernels set it with sense data, says nothing.
uint32_t count_received(const sg_io_hdr& header) {
    const uint32_t missing = header.resid > 0 ? static_cast<uint32_t>(header.resid) : 0;
    if (header.host_status != 0 || (header.status != 0 && !is_carried_out(header.sbp)) ||
        missing > header.dxfer_len) {
        return 0;
    }
    return header.dxfer_len - missing;
}

void print_admin_cmd(const nvme_admin_cmd* command) {
    TRACE_PRINT("opcode: %d", command->opcode);
    TRACE_PRINT("flags: %d", command->flags);
    TRACE_PRINT("rsvd1: %d", command->rsvd1);
    TRACE_PRINT("nsid: %d", static_cast<int>(command->nsid));
    TRACE_PRINT("cdw2: %d", static_cast<int>(command->cdw2));
    TRACE_PRINT("cdw3: %d", static_cast<int>(command->cdw3));
    TRACE_PRINT("metada: %lld", static_cast<long long>(command->metadata));
    TRACE_PRINT("addr: %lld", static_cast<long long>(command->addr));
    TRACE_PRINT("addr: %llX", static_cast<unsigned long long>(command->addr));
    TRACE_PRINT("metadata_len: %d", static_cast<int>(command->metadata_len));
    TRACE_PRINT("data_len: %d", static_cast<int>(command->data_len));
    TRACE_PRINT("cdw10: %d", static_cast<int>(command->cdw10));
    TRACE_PRINT("cdw11: %d", static_cast<int>(command->cdw11));
    TRACE_PRINT("cdw12: %d", static_cast<int>(command->cdw12));
    TRACE_PRINT("cdw13: %d", static_cast<int>(command->cdw13));
    TRACE_PRINT("cdw14: %d", static_cast<int>(command->cdw14));
    TRACE_PRINT("cdw15: %d", static_cast<int>(command->cdw15));
    TRACE_PRINT("timeout_ms: %d", static_cast<int>(command->timeout_ms));
    TRACE_PRINT("result: %d", static_cast<int>(command->result));
}

// Sends the whole image in order, a page at a time. Returns 0 when the controller took every chunk, otherwise
// what the ioctl of the first failed chunk returned.
int download_firmware_image(uint32_t handle, const uint8_t* image, uint32_t size, uint32_t page_size) {
    int result = 0;
    uint32_t offset = 0;
    while (offset < size) {
        const uint32_t remaining = size - offset;
        const uint32_t transfer = page_size < remaining ? page_size : remaining;
        nvme_admin_cmd command = {};
        command.opcode = nvme_firmware_image_download;
        command.addr = reinterpret_cast<uintptr_t>(image + offset);
        command.data_len = transfer;
        command.cdw10 = transfer / 4 - 1;
        command.cdw11 = offset / 4;
        const int rc = admin_ioctl(handle, &command);
        if (rc != 0) {
            TRACE_PRINT("ioctl returned %d", rc);
            result = result == 0 ? rc : result;
        }
        TRACE_PRINT("offset:%#x transfer size:%#x", offset, transfer);
        offset += transfer;
        progress_sent(offset, size);
        note_stop_signal();
    }
    return result;
}

bool commit_firmware(uint32_t handle) {
    TRACE_PRINT("Activating Firmware");
    nvme_admin_cmd command = {};
    command.opcode = nvme_firmware_commit;
    command.cdw10 = commit_action_1_slot_0;
    // Many controllers answer a commit that succeeded with "reset required", a status that is not 0.
    const int rc = admin_ioctl(handle, &command);
    if (rc != 0) {
        TRACE_PRINT("ioctl returned %d", rc);
    }
    const int status = rc & 0x7FF;  // without the bits that tell of retries and of more information
    return rc == 0 || (rc > 0 && (status == needs_conventional_reset || status == needs_subsystem_reset ||
                                  status == needs_controller_reset));
}

// Aligns *image to a page: an image that is not aligned is copied, and the caller frees *copy. Returns 0 or
// the allocator's error number.
int align_image(const uint8_t** image, uint32_t size, uint32_t page_size, void** copy) {
    TRACE_PRINT("Calling posix_memalign");
    if (reinterpret_cast<uintptr_t>(*image) % page_size == 0) {
        return 0;
    }
    errno = 0;
    const int rc = posix_memalign(copy, page_size, size);
    if (rc != 0) {
        print_system_error("Error allocating buffer");
        return rc;
    }
    std::memcpy(*copy, *image, size);
    *image = static_cast<const uint8_t*>(*copy);
    return 0;
}

int send_and_commit(uint32_t handle, const uint8_t* image, uint32_t size, bool* committed) {
    // An empty image would leave nothing but its commit.
    if (size == 0 || size % 4 != 0) {
        TRACE_PRINT("File size is wrong: %d", static_cast<int>(size));
        return 1;
    }
    const auto page_size = static_cast<uint32_t>(getpagesize());
    void* copy = nullptr;
    int rc = align_image(&image, size, page_size, &copy);
    if (rc != 0) {
        return rc;
    }
    TRACE_PRINT("Sending firmwarem, size = %#x", size);
    rc = download_firmware_image(handle, image, size, page_size);
    std::free(copy);
    if (rc == 0) {
        *committed = commit_firmware(handle);
    }
    return rc;
}

}  // namespace

uint32_t get_handle(const char* name) {
    TRACE_PRINT("Entering %s, dev_name:%s", __func__, name);
    const int descriptor = open(name, O_RDWR | O_CLOEXEC);
    const uint32_t handle = descriptor < 0 ? 0 : to_handle(descriptor);
    const int reason = errno;
    if (descriptor < 0) {
        TRACE_PRINT("open device %s fail,return:0x%X", name, static_cast<unsigned int>(descriptor));
    }
    TRACE_PRINT("Exiting %s, rc = %d, handle = %d", __func__, static_cast<int>(handle), descriptor);
    errno = reason;
    return handle;
}

void close_handle(uint32_t handle) {
    TRACE_PRINT("Entering %s", __func__);
    if (handle != 0) {
        close(static_cast<int>(handle));
    }
    TRACE_PRINT("Exiting %s", __func__);
}

int scsi_command_host(uint32_t handle, _scsi_cmd_in* in, _scsi_cmd_out* out) {
    TRACE_PRINT("Entering linux %s", __func__);
    sg_io_hdr header = {};
    header.interface_id = 'S';
    header.dxfer_direction = transfer_direction(in->direction);
    header.cmd_len = static_cast<unsigned char>(in->cdb_length);
    header.mx_sb_len = sizeof(out->sense);
    header.dxfer_len = in->data_length;
    header.dxferp = in->data;
    header.cmdp = in->cdb;
    header.sbp = out->sense;
    header.timeout = in->timeout;
    if (get_debug() != 0) {
        hexDump("cmd:", in->cdb, in->cdb_length);
    }
    // A SCSI status is an answer (ATA registers come back with CHECK CONDITION); only a failed ioctl is a
    // failure.
    const int rc = device_ioctl(handle, SG_IO, &header) < 0 ? 1 : 0;
    if (in->direction == IO_DIR_IN && in->data_length > 0) {
        // The driver hands back its whole buffer, with an earlier command's data where the drive sent none.
        out->received = rc == 0 ? count_received(header) : 0;
        std::memset(static_cast<uint8_t*>(in->data) + out->received, 0, in->data_length - out->received);
    }
    out->refused = rc != 0 || header.host_status != 0 || is_refused(header.status, out->sense);
    out->unit_attention = is_unit_attention(header.status, out->sense);
    TRACE_PRINT(
        "status:%d, masked status:%d,msg_status:%d,host_status:%d,driver_status:%d, info:%d, duration:%d",
        header.status, header.masked_status, header.msg_status, header.host_status, header.driver_status,
        static_cast<int>(header.info), static_cast<int>(header.duration));
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int nvme_command_host(uint32_t handle, uint16_t /*code*/, _nvme_cmd_in* in, _nvme_cmd_out* /*out*/) {
    TRACE_PRINT("Entering %s -- linux ,fd= %d", __func__, static_cast<int>(handle));
    if (in->buffer_size > 0) {
        std::memset(in->buffer, 0, in->buffer_size);
    }
    nvme_admin_cmd command = {};
    command.opcode = static_cast<uint8_t>(in->opcode);
    command.nsid = in->nsid;
    command.addr = reinterpret_cast<uintptr_t>(in->buffer);
    command.data_len = in->buffer_size;
    command.cdw10 = in->cdw10;
    command.cdw11 = in->cdw11;
    command.cdw12 = in->cdw12;
    command.cdw13 = in->cdw13;
    command.cdw14 = in->cdw14;
    command.cdw15 = in->cdw15;
    if (get_debug() != 0) {
        print_admin_cmd(&command);
    }
    const int returned = admin_ioctl(handle, &command);
    const int rc = returned != 0 ? 1 : 0;
    if (rc != 0) {
        TRACE_PRINT("IOCTL NVME(%d) Fail:0x%X", in->opcode, static_cast<unsigned int>(returned));
        if (get_debug() != 0) {
            print_system_error("IOCTL_ERROR--");
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int ata_command_host(uint32_t /*handle*/, _ata_cmd_in* /*in*/, _ata_cmd_out* /*out*/) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 1);
    return 1;
}

int nvme_update_fw(uint32_t handle, const uint8_t* image, uint32_t size, bool* committed) {
    TRACE_PRINT("Entering %s -- linux", __func__);
    TRACE_PRINT("Entering %s", __func__);
    bool taken = false;
    const int rc = send_and_commit(handle, image, size, &taken);
    if (committed != nullptr) {
        *committed = taken;
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    TRACE_PRINT("Exiting %s", __func__);
    return rc;
}

}  // namespace mirvok
