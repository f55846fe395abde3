#include "transport/command_blocks.h"

#include "support/records.h"

using namespace mirvok;

namespace {

uint8_t data[131072];

struct scsi_row {
    uint16_t code, mode;
    uint32_t page, param, length;
    uint16_t cdb_length;
    io_direction_t direction;
    bytes cdb;
};

TEST(CommandBlocks, ScsiCdbs) {
    const scsi_row rows[] = {
        {SCSI_INQUIRY, 9, 0, 9, 512, 6, IO_DIR_IN, {0x12, 0, 0, 2, 0}},
        {SCSI_INQUIRY, 0, 0xC4, 0, 0x1FE, 6, IO_DIR_IN, {0x12, 1, 0xC4, 1, 0xFE}},
        {SCSI_LOG_SENSE, 0, 0x34, 5, 512, 10, IO_DIR_IN, {0x4D, 0, 0x74, 5, 0, 0, 0, 2, 0}},
        {SCSI_READ_CAPACITY_16,
         0,
         0,
         0,
         8,
         16,
         IO_DIR_IN,
         {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x20}},
        {SCSI_READ_CAPACITY_10, 0, 0, 0, 8, 10, IO_DIR_IN, {0x25}},
        {SCSI_WRITE_BUFFER,
         7,
         0,
         0x123456,
         0x8001,
         10,
         IO_DIR_OUT,
         {0x3B, 7, 0, 0x12, 0x34, 0x56, 0, 0x80, 1}},
    };
    for (const scsi_row& row : rows) {
        _scsi_cmd_in cmd = {};
        EXPECT_EQ(set_scsi_command(nullptr, row.code, &cmd, row.mode, row.page, row.param, data, row.length),
                  0);
        bytes cdb = row.cdb;
        cdb.resize(16);
        EXPECT_EQ(bytes_of(cmd.cdb), cdb) << row.code;
        EXPECT_EQ(cmd.cdb_length, row.cdb_length);
        EXPECT_EQ(cmd.direction, row.direction);
        EXPECT_EQ(cmd.data_length, row.length);
        EXPECT_EQ(cmd.data, data);
        EXPECT_EQ(cmd.timeout, 0);
    }
}

struct ata_row {
    uint16_t code, address, subcommand;
    uint32_t length;
    bool has_data;
    io_direction_t direction;
    bytes registers;  // features, sector count, LBA low, mid, high, device, command
    bytes cdb;        // first three bytes of the translation
};

TEST(CommandBlocks, AtaRegistersAndTheirTranslation) {
    const ata_row rows[] = {
        {ATA_IDENTIFY_DEVICE, 0, 0, 512, true, IO_DIR_IN, {0, 1, 0, 0x4F, 0xC2, 0, 0xEC}, {0xA1, 8, 0x0E}},
        {ATA_SMART_READ_DATA, 7, 7, 512, true, IO_DIR_IN, {0xD0, 1, 1, 0x4F, 0xC2, 0, 0xB0}, {0xA1, 8, 0x0E}},
        {ATA_SMART_READ_LOG,
         0x1B0,
         7,
         512,
         true,
         IO_DIR_IN,
         {0xD5, 1, 0xB0, 0x4F, 0xC2, 0, 0xB0},
         {0xA1, 8, 0x0E}},
        {ATA_SMART_ENABLE_OPERATIONS,
         7,
         7,
         9,
         false,
         IO_DIR_IN,
         {0xD8, 0, 1, 0x4F, 0xC2, 0, 0xB0},
         {0xA1, 8, 0x0E}},
        {ATA_SMART_DISABLE_OPERATIONS,
         7,
         7,
         9,
         false,
         IO_DIR_IN,
         {0xD9, 0, 1, 0x4F, 0xC2, 0, 0xB0},
         {0xA1, 8, 0x0E}},
        {ATA_SMART_RETURN_STATUS,
         7,
         7,
         32,
         true,
         IO_DIR_NONE,
         {0xDA, 0, 0, 0x4F, 0xC2, 0, 0xB0},
         {0xA1, 6, 0x24}},
        {ATA_DOWNLOAD_MICROCODE,
         0x1234,
         0x103,
         1000,
         true,
         IO_DIR_OUT,
         {3, 2, 0, 0x34, 0x12, 0, 0x92},
         {0xA1, 0x0A, 0xC6}},
        {ATA_DOWNLOAD_MICROCODE, 0, 3, 1024, true, IO_DIR_OUT, {3, 2, 0, 0, 0, 0, 0x92}, {0xA1, 0x0A, 0xC6}},
        {ATA_DOWNLOAD_MICROCODE,
         64,
         7,
         131072,
         true,
         IO_DIR_OUT,
         {7, 0, 1, 64, 0, 0, 0x92},
         {0xA1, 0x0A, 0xC6}},
        {ATA_DOWNLOAD_MICROCODE,
         64,
         7,
         131073,
         true,
         IO_DIR_OUT,
         {7, 1, 1, 64, 0, 0, 0x92},
         {0xA1, 0x0A, 0xC6}},
    };
    for (const ata_row& row : rows) {
        _ata_cmd_in ata = {};
        _scsi_cmd_in scsi = {};
        EXPECT_EQ(set_ata_command(nullptr, row.code, &ata, row.address, row.subcommand, data, row.length), 0);
        EXPECT_EQ((bytes{&ata.features, &ata.command + 1}), row.registers) << row.code;
        EXPECT_EQ(bytes_of(ata.previous), repeat(7, 0));
        EXPECT_EQ(set_ata_scsi_command(nullptr, &scsi, &ata), 0);
        bytes cdb = row.cdb;
        cdb.insert(cdb.end(), row.registers.begin(), row.registers.end());
        cdb.resize(16);
        EXPECT_EQ(bytes_of(scsi.cdb), cdb) << row.code;
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
    EXPECT_EQ(scsi.direction, IO_DIR_IN);
    EXPECT_EQ(scsi.data_length, 5U);
    EXPECT_EQ(scsi.data, data);
    EXPECT_EQ(set_ata_command(nullptr, 0x25, &ata, 1, 1, data, 5), 90012);
    _ata_cmd_in only_direction = {};
    only_direction.direction = IO_DIR_IN;
    EXPECT_EQ(bytes_of(ata), bytes_of(only_direction));
    EXPECT_EQ(set_nvme_command(nullptr, 4, &nvme, data, 5, 1, 1, nullptr), 90012);
    EXPECT_EQ(bytes_of(nvme), bytes_of(_nvme_cmd_in{}));
}

}  // namespace
