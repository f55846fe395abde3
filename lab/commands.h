// What a drive answers to a command, whichever path brings it. Requests are checked as strictly as a drive
// would; faults are laid over the answer here.
#pragma once

#include <string>

#include "machine.h"

namespace mirvok::lab {

enum class direction : uint8_t { none, in, out };

struct scsi_command {
    bytes cdb;
    direction way = direction::none;
    uint32_t length = 0;  // bytes that the caller moves
    bytes data;           // what goes to the drive
};

struct nvme_command {
    uint32_t opcode = 0;
    uint32_t nsid = 0;
    uint32_t cdw10 = 0;
    uint32_t cdw11 = 0;
    uint32_t length = 0;
    bytes data;
};

struct reply {
    int error = 0;        // error number; nothing else counts then
    uint32_t status = 0;  // SCSI status, or NVMe status as the driver returns it
    uint8_t host = 0;     // the kernel's host byte
    uint8_t driver = 0;   // the kernel's driver byte, where it is not the one that goes with sense data
    bytes sense;
    bytes data;  // what comes from the drive
};

// The short names that journal and faults use: "inquiry", "c4", "identify", "b0", "download", ...
std::string name_of(const scsi_command& c);
std::string name_of(const nvme_command& c);
direction way_of(const nvme_command& c);

// Run one command; `node` is empty behind a controller.
reply run_scsi(drive& d, const std::string& node, const scsi_command& c);
reply run_nvme(drive& d, const std::string& node, const nvme_command& c);

// The same without faults, which none of them is counted for.
reply answer(drive& d, const scsi_command& c);
reply answer(drive& d, const nvme_command& c);

// For the journal: "inquiry cdb=12 00 00 02 00 00 in 512", "out 32768 crc=0123ABCD" and what came back.
std::string describe(const scsi_command& c);
std::string describe_data(direction way, uint32_t length, const bytes& data);
std::string describe(const scsi_command& c, const reply& r);
std::string describe(const nvme_command& c, const std::string& extra, const reply& r);

// The name of an error number and the number of a name ("EIO").
std::string error_name(int number);
int error_number(const std::string& name);

reply check_condition(uint8_t key, uint8_t asc, uint8_t ascq);

}  // namespace mirvok::lab
