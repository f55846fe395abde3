// The senders: each hands a built command block to the transport that serves the drive's controller.
#pragma once

#include "storage/device_model.h"
#include "transport/command_blocks.h"

namespace mirvok {

// Sends a SCSI block along the drive's path and returns the transport's result, 0 for success. A path that no
// route serves reports 0 and sends nothing.
int send_scsi_command(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out);

// Sends a command that changes nothing on the drive, and sends it once more where a unit attention condition
// came in its place. Returns the transport's result.
int read_scsi_command(_pd_info* pd, _scsi_cmd_in* in, _scsi_cmd_out* out);

// Sends a command that changes something, once; with `again`, once more where a unit attention condition came
// in its place. Returns 0 only when the drive took it: otherwise the transport's result, or 1 where the
// transport reports none.
int perform_scsi_command(_pd_info* pd, _scsi_cmd_in* in, bool again = false);

// Sends an NVMe admin block through the drive's open handle: 0 for success.
int send_nvme_command(_pd_info* pd, uint16_t code, _nvme_cmd_in* in, _nvme_cmd_out* out);

// Sends an ATA block without translation. No path of this system carries it: the callers translate instead.
int send_ata_command(_pd_info* pd, _ata_cmd_in* in, _ata_cmd_out* out);

}  // namespace mirvok
