#include "transport/command_blocks.h"

#include "common/bytes.h"
#include "common/diagnostics.h"

namespace mirvok {

namespace {

constexpr uint8_t ata_smart = 0xB0;
constexpr uint8_t ata_identify = 0xEC;
// Every SMART command carries this signature in LBA mid and LBA high, or the drive aborts it (ACS-3, 7.48).
constexpr uint8_t smart_lba_mid = 0x4F;
constexpr uint8_t smart_lba_high = 0xC2;

// The registers that an ATA code sets, and what its data phase is.
struct ata_registers {
    uint16_t code;
    uint8_t command;
    uint8_t features;
    uint8_t sector_count;
    uint8_t lba_low;
    bool has_data;  // the caller's buffer travels with the block
    io_direction_t direction;
};

constexpr ata_registers ata_table[] = {
    {ATA_IDENTIFY_DEVICE, ata_identify, 0, 1, 0, true, IO_DIR_IN},
    {ATA_SMART_READ_DATA, ata_smart, 0xD0, 1, 1, true, IO_DIR_IN},
    {ATA_SMART_READ_LOG, ata_smart, 0xD5, 1, 0, true, IO_DIR_IN},
    {ATA_SMART_ENABLE_OPERATIONS, ata_smart, 0xD8, 0, 1, false, IO_DIR_IN},
    {ATA_SMART_DISABLE_OPERATIONS, ata_smart, 0xD9, 0, 1, false, IO_DIR_IN},
    {ATA_SMART_RETURN_STATUS, ata_smart, 0xDA, 0, 0, true, IO_DIR_NONE},
};

// ATA PASS-THROUGH (12): protocol in byte 1, transfer flags in byte 2 (SAT-3, 12.2.2).
constexpr uint8_t pass_through_12 = 0xA1;
constexpr uint8_t protocol_non_data = 3 << 1;
constexpr uint8_t protocol_pio_in = 4 << 1;
constexpr uint8_t protocol_pio_out = 5 << 1;
constexpr uint8_t flags_data_in = 0x0E;  // T_DIR from the device, BYT_BLOK, T_LENGTH in the sector count
constexpr uint8_t flags_data_out =
    0xC6;  // OFF_LINE 3, T_DIR to the device, BYT_BLOK, T_LENGTH in the sector count
constexpr uint8_t flags_return_status = 0x24;  // CK_COND, BYT_BLOK: the registers come back in the sense data

// Bytes 1 and 2 of ATA PASS-THROUGH (12), by direction.
struct transfer {
    io_direction_t direction;
    uint8_t protocol;
    uint8_t flags;
};
constexpr transfer transfers[] = {
    {IO_DIR_OUT, protocol_pio_out, flags_data_out},
    {IO_DIR_IN, protocol_pio_in, flags_data_in},
    {IO_DIR_NONE, protocol_non_data, 0},
};

bool is_return_status(const _ata_cmd_in* ata) {
    return ata->direction == IO_DIR_NONE && ata->command == ata_smart &&
           ata->features == ATA_SMART_RETURN_STATUS;
}

void fill_download_microcode(_ata_cmd_in* cmd, uint16_t subcommand, uint16_t block_offset, uint32_t length) {
    const uint32_t blocks = count_blocks(length);
    cmd->command = ATA_DOWNLOAD_MICROCODE;
    cmd->features = static_cast<uint8_t>(subcommand);
    cmd->sector_count = static_cast<uint8_t>(blocks);
    cmd->lba_low = static_cast<uint8_t>(blocks >> 8);
    cmd->lba_mid = static_cast<uint8_t>(block_offset);
    cmd->lba_high = static_cast<uint8_t>(block_offset >> 8);
    cmd->direction = IO_DIR_OUT;
}

void fill_pass_through(uint8_t* cdb, const _ata_cmd_in* ata) {
    cdb[0] = pass_through_12;
    for (const transfer& row : transfers) {
        if (row.direction == ata->direction) {
            cdb[1] = row.protocol;
            cdb[2] = is_return_status(ata) ? flags_return_status : row.flags;
        }
    }
    cdb[3] = ata->features;
    cdb[4] = ata->sector_count;
    cdb[5] = ata->lba_low;
    cdb[6] = ata->lba_mid;
    cdb[7] = ata->lba_high;
    cdb[8] = ata->device;
    cdb[9] = ata->command;
}

}  // namespace

void fill_write_buffer_cdb(uint8_t* cdb, uint16_t mode, uint32_t offset, uint32_t length) {
    cdb[0] = SCSI_WRITE_BUFFER;
    cdb[1] = static_cast<uint8_t>(mode);
    store_be24(cdb + 3, offset);
    store_be24(cdb + 6, length);
}

void fill_download_microcode_cdb(uint8_t* cdb, uint16_t subcommand, uint16_t block_offset, uint32_t length) {
    _ata_cmd_in ata = {};
    fill_download_microcode(&ata, subcommand, block_offset, length);
    fill_pass_through(cdb, &ata);
}

int set_scsi_command(_pd_info* /*pd*/, uint16_t code, _scsi_cmd_in* cmd, uint16_t mode, uint32_t page,
                     uint32_t param, void* data, uint32_t data_length) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    cmd->direction = IO_DIR_IN;
    cmd->data = data;
    cmd->data_length = data_length;
    uint8_t* cdb = cmd->cdb;
    switch (code) {
        case SCSI_INQUIRY:
            cmd->cdb_length = 6;
            cdb[0] = SCSI_INQUIRY;
            cdb[1] = page != 0 ? 1 : 0;
            cdb[2] = static_cast<uint8_t>(page);
            store_be16(cdb + 3, data_length);
            break;
        case SCSI_LOG_SENSE:
            cmd->cdb_length = 10;
            cdb[0] = SCSI_LOG_SENSE;
            // Page control 01b: cumulative values.
            cdb[2] = static_cast<uint8_t>(0x40 + page);
            cdb[3] = static_cast<uint8_t>(param);
            store_be16(cdb + 7, data_length);
            break;
        case SCSI_READ_CAPACITY_16:
            cmd->cdb_length = 16;
            cdb[0] = SCSI_READ_CAPACITY_16;
            cdb[1] = 0x10;
            cdb[13] = 0x20;
            break;
        case SCSI_READ_CAPACITY_10:
            cmd->cdb_length = 10;
            cdb[0] = SCSI_READ_CAPACITY_10;
            break;
        case SCSI_WRITE_BUFFER:
            cmd->cdb_length = 10;
            fill_write_buffer_cdb(cdb, mode, param, data_length);
            cmd->direction = IO_DIR_OUT;
            break;
        default:
            TRACE_PRINT("SCSI comamnd(%d) is not supported", code);
            rc = RESULT_UNKNOWN_COMMAND;
            break;
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int set_ata_command(_pd_info* /*pd*/, uint16_t code, _ata_cmd_in* cmd, uint16_t address, uint16_t subcommand,
                    void* data, uint32_t data_length) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = RESULT_UNKNOWN_COMMAND;
    cmd->direction = IO_DIR_IN;
    for (const ata_registers& row : ata_table) {
        if (row.code != code) {
            continue;
        }
        cmd->command = row.command;
        cmd->features = row.features;
        cmd->sector_count = row.sector_count;
        cmd->lba_low = code == ATA_SMART_READ_LOG ? static_cast<uint8_t>(address) : row.lba_low;
        cmd->lba_mid = smart_lba_mid;
        cmd->lba_high = smart_lba_high;
        cmd->direction = row.direction;
        if (row.has_data) {
            cmd->data = data;
            cmd->data_length = data_length;
        }
        rc = 0;
    }
    if (code == ATA_DOWNLOAD_MICROCODE) {
        fill_download_microcode(cmd, subcommand, address, data_length);
        cmd->data = data;
        cmd->data_length = data_length;
        rc = 0;
    }
    if (rc != 0) {
        TRACE_PRINT("ATA comamnd(%d) is not supported", code);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int set_ata_scsi_command(_pd_info* /*pd*/, _scsi_cmd_in* scsi, const _ata_cmd_in* ata) {
    TRACE_PRINT("Entering %s", __func__);
    scsi->direction = ata->direction;
    scsi->data = ata->data;
    scsi->data_length = ata->data_length;
    scsi->cdb_length = 12;
    fill_pass_through(scsi->cdb, ata);
    if (is_return_status(ata)) {
        TRACE_PRINT("cmd2:0x%X", scsi->cdb[2]);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

int set_nvme_command(_pd_info* /*pd*/, uint16_t code, _nvme_cmd_in* cmd, void* buffer, uint32_t buffer_size,
                     uint16_t selector, uint32_t /*offset*/, const char* /*name*/) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    // Number of dwords, counted from zero.
    const uint32_t numd = buffer_size / 4 - 1;
    switch (code) {
        case NVME_IDENTIFY_CONTROLLER:
            cmd->opcode = 0x06;
            cmd->nsid = 0;
            cmd->cdw10 = 1;
            break;
        case NVME_IDENTIFY_NAMESPACE:
            cmd->opcode = 0x06;
            cmd->nsid = 1;
            cmd->cdw10 = selector;
            break;
        case NVME_GET_LOG_PAGE:
            cmd->opcode = 0x02;
            cmd->nsid = 0xFFFFFFFF;
            cmd->cdw10 = (selector & 0xFFU) | numd << 16;
            cmd->cdw11 = numd >> 16;
            break;
        default:
            TRACE_PRINT("NVME comamnd(%d) is not supported", code);
            rc = RESULT_UNKNOWN_COMMAND;
            break;
    }
    if (rc == 0) {
        cmd->direction = IO_DIR_IN;
        cmd->buffer = buffer;
        cmd->buffer_size = buffer_size;
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
