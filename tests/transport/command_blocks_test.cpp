#include "transport/command_blocks.h"

#include "support/records.h"

using namespace mirvok;

namespace {

uint8_t data[131072];

TEST(CommandBlocks, ScsiCdbs) {
    struct {
        uint16_t code, mode;
        uint32_t page, param, length;
        uint16_t cdb_length;
        io_direction_t direction;
        const char* cdb;
    } const rows[] = {
        {SCSI_INQUIRY, 9, 0, 9, 512, 6, IO_DIR_IN, "12 00 00 02 00"},
        {SCSI_INQUIRY, 0, 0xC4, 0, 0x1FE, 6, IO_DIR_IN, "12 01 C4 01 FE"},
        {SCSI_LOG_SENSE, 0, 0x34, 5, 512, 10, IO_DIR_IN, "4D 00 74 05 00 00 00 02 00"},
        {SCSI_READ_CAPACITY_16, 1, 2, 3, 8, 16, IO_DIR_IN, "9E 10 00 00 00 00 00 00 00 00 00 00 00 20"},
        {SCSI_READ_CAPACITY_10, 1, 2, 3, 8, 10, IO_DIR_IN, "25"},
        {SCSI_WRITE_BUFFER, 7, 0, 0x123456, 0x8001, 10, IO_DIR_OUT, "3B 07 00 12 34 56 00 80 01"},
    };
    for (const auto& row : rows) {
        _scsi_cmd_in cmd = {};
        EXPECT_EQ(set_scsi_command(nullptr, row.code, &cmd, row.mode, row.page, row.param, data, row.length),
                  0);
        EXPECT_EQ(bytes_of(cmd.cdb), hex(row.cdb, 16)) << row.code;
        EXPECT_EQ(cmd.cdb_length, row.cdb_length);
        EXPECT_EQ(cmd.direction, row.direction);
        EXPECT_EQ(cmd.data_length, row.length);
        EXPECT_EQ(cmd.data, data);
        EXPECT_EQ(cmd.timeout, 0);
    }
}

// Registers: features, sector count, LBA low, mid, high, device, command; they follow three bytes in the CDB.
TEST(CommandBlocks, AtaRegistersAndTheirTranslation) {
    struct {
        uint16_t code, address, subcommand;
        uint32_t length;
        bool has_data;
        io_direction_t direction;
        const char *start, *registers;
    } const rows[] = {
        {ATA_IDENTIFY_DEVICE, 0, 0, 512, true, IO_DIR_IN, "A1 08 0E ", "00 01 00 4F C2 00 EC"},
        {ATA_SMART_READ_DATA, 7, 7, 512, true, IO_DIR_IN, "A1 08 0E ", "D0 01 01 4F C2 00 B0"},
        {ATA_SMART_READ_LOG, 0x1B0, 7, 512, true, IO_DIR_IN, "A1 08 0E ", "D5 01 B0 4F C2 00 B0"},
        {ATA_SMART_ENABLE_OPERATIONS, 7, 7, 9, false, IO_DIR_IN, "A1 08 0E ", "D8 00 01 4F C2 00 B0"},
        {ATA_SMART_DISABLE_OPERATIONS, 7, 7, 9, false, IO_DIR_IN, "A1 08 0E ", "D9 00 01 4F C2 00 B0"},
        {ATA_SMART_RETURN_STATUS, 7, 7, 32, true, IO_DIR_NONE, "A1 06 24 ", "DA 00 00 4F C2 00 B0"},
        {ATA_DOWNLOAD_MICROCODE, 0x1234, 0x103, 1000, true, IO_DIR_OUT, "A1 0A C6 ", "03 02 00 34 12 00 92"},
        {ATA_DOWNLOAD_MICROCODE, 0, 3, 1024, true, IO_DIR_OUT, "A1 0A C6 ", "03 02 00 00 00 00 92"},
        {ATA_DOWNLOAD_MICROCODE, 64, 7, 131072, true, IO_DIR_OUT, "A1 0A C6 ", "07 00 01 40 00 00 92"},
        {ATA_DOWNLOAD_MICROCODE, 64, 7, 131073, true, IO_DIR_OUT, "A1 0A C6 ", "07 01 01 40 00 00 92"},
    };
    for (const auto& row : rows) {
        _ata_cmd_in ata = {};
        _scsi_cmd_in scsi = {};
        EXPECT_EQ(set_ata_command(nullptr, row.code, &ata, row.address, row.subcommand, data, row.length), 0);
        EXPECT_EQ((bytes{&ata.features, &ata.command + 1}), hex(row.registers)) << row.code;
        EXPECT_EQ(bytes_of(ata.previous), repeat(7, 0));
        EXPECT_EQ(set_ata_scsi_command(nullptr, &scsi, &ata), 0);
        EXPECT_EQ(bytes_of(scsi.cdb), hex(std::string(row.start) + row.registers, 16)) << row.code;
        EXPECT_EQ(scsi.cdb_length, 12);
        EXPECT_EQ(ata.direction, row.direction);
        EXPECT_EQ(scsi.direction, row.direction);
        EXPECT_EQ(scsi.data, row.has_data ? data : nullptr);
        EXPECT_EQ(scsi.data_length, row.has_data ? row.length : 0);
    }
}

TEST(CommandBlocks, NvmeDwords) {
    struct {
        uint16_t code, selector;
        uint32_t size;
        uint16_t opcode;
        uint32_t nsid, cdw10, cdw11;
    } const rows[] = {
        {NVME_IDENTIFY_CONTROLLER, 9, 4096, 6, 0, 1, 0},
        {NVME_IDENTIFY_NAMESPACE, 0, 4096, 6, 1, 0, 0},
        {NVME_GET_LOG_PAGE, 0x102, 512, 2, 0xFFFFFFFF, 127U << 16 | 2, 0},
        {NVME_GET_LOG_PAGE, 0xE0, 1024, 2, 0xFFFFFFFF, 255U << 16 | 0xE0, 0},
        {NVME_GET_LOG_PAGE, 2, 0xC0000, 2, 0xFFFFFFFF, 0xFFFFU << 16 | 2, 2},
    };
    for (const auto& row : rows) {
        _nvme_cmd_in cmd = {};
        EXPECT_EQ(set_nvme_command(nullptr, row.code, &cmd, data, row.size, row.selector, 5, "x"), 0);
        _nvme_cmd_in expected = {};
        expected.opcode = row.opcode;
        expected.nsid = row.nsid;
        expected.cdw10 = row.cdw10;
        expected.cdw11 = row.cdw11;
        expected.direction = IO_DIR_IN;
        expected.buffer_size = row.size;
        expected.buffer = data;
        EXPECT_EQ(bytes_of(cmd), bytes_of(expected)) << row.code;
    }
}

TEST(CommandBlocks, UnknownCodesAreRefused) {
    _scsi_cmd_in scsi = {};
    _ata_cmd_in ata = {};
    _nvme_cmd_in nvme = {};
    EXPECT_EQ(set_scsi_command(nullptr, 0x28, &scsi, 1, 1, 1, data, 5), 90012);
    EXPECT_EQ(bytes_of(scsi.cdb), repeat(16, 0));
    EXPECT_EQ(set_ata_command(nullptr, 0x25, &ata, 1, 1, data, 5), 90012);
    EXPECT_EQ(ata.command, 0);
    EXPECT_EQ(set_nvme_command(nullptr, 4, &nvme, data, 5, 1, 1, nullptr), 90012);
    EXPECT_EQ(bytes_of(nvme), bytes_of(_nvme_cmd_in{}));
}

}  // namespace
