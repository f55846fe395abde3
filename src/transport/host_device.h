// Drives that the Linux kernel presents itself: device handles, SG_IO, the NVMe admin pass-through and the
// NVMe firmware update.
#pragma once

#include <cstdint>

#include "transport/command_blocks.h"

namespace mirvok {

// Opens a device node for reading and writing. Returns its descriptor, which the caller closes with
// close_handle, or 0 with the reason in errno when it cannot be opened. A handle is never a standard stream's
// descriptor.
uint32_t get_handle(const char* name);

// Closes a handle; 0 is ignored.
void close_handle(uint32_t handle);

// One SCSI command through SG_IO. Returns 0 when the kernel carried the command out, whatever its SCSI
// status, with the sense data in out->sense; 1 when the ioctl itself failed.
int scsi_command_host(uint32_t handle, _scsi_cmd_in* in, _scsi_cmd_out* out);

// One NVMe admin command that reads data; the buffer is cleared first. Returns 0, or 1 for a system error or
// an NVMe error status.
int nvme_command_host(uint32_t handle, uint16_t code, _nvme_cmd_in* in, _nvme_cmd_out* out);

// The host adapter has no direct ATA transport: performs nothing and reports failure (1).
int ata_command_host(uint32_t handle, _ata_cmd_in* in, _ata_cmd_out* out);

// Downloads `size` bytes of firmware (a multiple of 4, not 0) to the controller open on `handle` and commits
// them with commit action 1 (NVMe 1.4, 5.11 and 5.12). An image that is not aligned to a page is sent from a
// copy. Returns 0, 1 for a wrong size, an error number when memory is short, or what the ioctl of the
// first failed chunk returned; nothing is committed then. *committed, unless it is null,
// tells whether the controller took the
// commit.
int nvme_update_fw(uint32_t handle, const uint8_t* image, uint32_t size, bool* committed = nullptr);

}  // namespace mirvok
