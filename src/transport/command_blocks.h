// Protocol command blocks and their builders: SCSI CDBs, ATA register sets and their translation into ATA
// PASS-THROUGH (12), NVMe admin commands. Callers zero every block before they build into it; data buffers
// stay the caller's, the blocks only point at them.
#pragma once

#include <cstdint>

#include "storage/device_model.h"

namespace mirvok {

enum io_direction_t : uint32_t {
    IO_DIR_OUT = 0,   // data goes to the device
    IO_DIR_IN = 1,    // data comes from the device
    IO_DIR_NONE = 2,  // no data phase
};

// SCSI codes are operation codes; ATA codes are the command or, for SMART, the feature value; NVMe codes are
// our own.
enum command_code_t : uint16_t {
    SCSI_INQUIRY = 0x12,
    SCSI_READ_CAPACITY_10 = 0x25,
    SCSI_WRITE_BUFFER = 0x3B,
    SCSI_LOG_SENSE = 0x4D,
    SCSI_READ_CAPACITY_16 = 0x9E,
    ATA_DOWNLOAD_MICROCODE = 0x92,
    ATA_SMART_READ_DATA = 0xD0,
    ATA_SMART_READ_LOG = 0xD5,
    ATA_SMART_ENABLE_OPERATIONS = 0xD8,
    ATA_SMART_DISABLE_OPERATIONS = 0xD9,
    ATA_SMART_RETURN_STATUS = 0xDA,
    ATA_IDENTIFY_DEVICE = 0xEC,
    NVME_IDENTIFY_CONTROLLER = 1,
    NVME_IDENTIFY_NAMESPACE = 2,
    NVME_GET_LOG_PAGE = 3,
};

struct _scsi_cmd_in {
    uint8_t cdb[16];
    uint16_t cdb_length;
    uint16_t timeout;  // left 0: the transport's default
    io_direction_t direction;
    uint32_t data_length;
    void* data;  // may be null when data_length is 0
};

struct _scsi_cmd_out {
    uint32_t scsi_status;  // written by the storelib route only
    uint8_t sense[64];
    uint32_t received;    // bytes of data that came from the device
    bool refused;         // the command was not carried out, whoever says so
    bool unit_attention;  // a unit attention condition came in its place: sent again, it is taken
};

struct _ata_cmd_in {
    uint8_t previous[7];
    uint8_t features;
    uint8_t sector_count;
    uint8_t lba_low;
    uint8_t lba_mid;
    uint8_t lba_high;
    uint8_t device;
    uint8_t command;
    io_direction_t direction;
    uint32_t data_length;
    void* data;
};

// Returned registers, in the order of the register set above.
struct _ata_cmd_out {
    uint8_t registers[7];
};

struct _nvme_cmd_in {
    uint16_t opcode;
    uint32_t nsid;
    uint32_t cdw10;
    uint32_t cdw11;
    uint32_t cdw12;
    uint32_t cdw13;
    uint32_t cdw14;
    uint32_t cdw15;
    io_direction_t direction;
    uint32_t buffer_size;
    void* buffer;
};

// Zeroed and passed along by the callers; no transport fills it.
struct _nvme_cmd_out {
    uint8_t completion[8];
};

// Builds a CDB (SPC-4, SBC-3). mode: WRITE BUFFER mode. page: INQUIRY VPD page or LOG SENSE page. param: LOG
// SENSE subpage or WRITE BUFFER offset in bytes. Returns 0, or RESULT_UNKNOWN_COMMAND (direction and data are
// set then too).
int set_scsi_command(_pd_info* pd, uint16_t code, _scsi_cmd_in* cmd, uint16_t mode, uint32_t page,
                     uint32_t param, void* data, uint32_t data_length);

// Blocks of 512 bytes that `length` bytes fill, the last one partly.
constexpr uint32_t count_blocks(uint32_t length) {
    return length / 512 + (length % 512 != 0 ? 1 : 0);
}

// The CDBs of a firmware download, into at least 12 cleared bytes: WRITE BUFFER (SPC-4, 6.49) at `offset` in
// bytes, and ATA PASS-THROUGH (12) with DOWNLOAD MICROCODE (ACS-3), which counts 16 bits of blocks, at
// `block_offset`.
void fill_write_buffer_cdb(uint8_t* cdb, uint16_t mode, uint32_t offset, uint32_t length);
void fill_download_microcode_cdb(uint8_t* cdb, uint16_t subcommand, uint16_t block_offset, uint32_t length);

// DOWNLOAD MICROCODE subcommands, and WRITE BUFFER modes of the same meaning.
constexpr uint16_t download_microcode_offsets = 3;  // download with offsets and save
constexpr uint16_t download_microcode_whole = 7;    // download and save
constexpr uint16_t write_buffer_whole = 5;          // download microcode and save
constexpr uint16_t write_buffer_offsets = 7;        // download microcode with offsets, save and activate

// Builds an ATA register set (ACS-3). address: SMART READ LOG log address, or DOWNLOAD MICROCODE offset in
// blocks of 512 bytes. subcommand: DOWNLOAD MICROCODE feature value. Returns 0 or RESULT_UNKNOWN_COMMAND.
int set_ata_command(_pd_info* pd, uint16_t code, _ata_cmd_in* cmd, uint16_t address, uint16_t subcommand,
                    void* data, uint32_t data_length);

// Translates a built ATA block into ATA PASS-THROUGH (12) (SAT-3, 12.2.2). Returns 0.
int set_ata_scsi_command(_pd_info* pd, _scsi_cmd_in* scsi, const _ata_cmd_in* ata);

// Builds an NVMe admin command (NVMe 1.4, 5.14 and 5.15). selector: Identify CNS value or log page
// identifier; buffer_size in bytes, a multiple of 4 for log pages. offset and name serve no command yet.
// Returns 0 or RESULT_UNKNOWN_COMMAND.
int set_nvme_command(_pd_info* pd, uint16_t code, _nvme_cmd_in* cmd, void* buffer, uint32_t buffer_size,
                     uint16_t selector, uint32_t offset, const char* name);

}  // namespace mirvok
