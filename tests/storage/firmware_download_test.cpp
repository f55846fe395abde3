// What a download sends, command by command, and when it stops: ioctl is played here, /dev/null is the
// drive's node.
#include "storage/firmware_download.h"

#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "support/records.h"
#include "transport/host_device.h"

using namespace mirvok;

namespace {

struct sent_command {
    bytes cdb;
    bytes data;
    bool operator==(const sent_command&) const = default;
};

std::vector<sent_command> sent;
size_t failing = SIZE_MAX;  // the command that fails, counted from 0

}  // namespace

extern "C" int ioctl(int /*descriptor*/, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    const void* argument = va_arg(arguments, const void*);
    va_end(arguments);
    if (request == NVME_IOCTL_ADMIN_CMD) {
        const auto* command = static_cast<const nvme_admin_cmd*>(argument);
        const auto* data = reinterpret_cast<const uint8_t*>(command->addr);
        EXPECT_EQ(command->addr % 4096, 0U);
        sent.push_back({{command->opcode}, {data, data + command->data_len}});
        return 0;
    }
    const auto* header = static_cast<const sg_io_hdr*>(argument);
    EXPECT_EQ(request, static_cast<unsigned long>(SG_IO));
    EXPECT_EQ(header->interface_id, 'S');
    EXPECT_EQ(header->dxfer_direction, SG_DXFER_TO_DEV);
    EXPECT_EQ(header->mx_sb_len, 64);
    EXPECT_EQ(header->timeout, 0U);
    const auto* data = static_cast<const uint8_t*>(header->dxferp);
    sent.push_back({{header->cmdp, header->cmdp + header->cmd_len}, {data, data + header->dxfer_len}});
    errno = EIO;
    return sent.size() - 1 == failing ? -1 : 0;
}

namespace {

struct download_row {
    const char* name;
    uint32_t size;
    uint16_t mode;
    uint32_t chunk;
    std::vector<bytes> cdbs;
    std::vector<uint32_t> lengths;
    size_t failing = SIZE_MAX;
    int rc = 0;
};

bytes write_buffer(uint8_t mode, uint32_t offset, uint32_t length) {
    const auto byte = [](uint32_t value, int shift) { return static_cast<uint8_t>(value >> shift); };
    return {0x3B,
            mode,
            0,
            byte(offset, 16),
            byte(offset, 8),
            byte(offset, 0),
            byte(length, 16),
            byte(length, 8),
            byte(length, 0),
            0};
}

bytes microcode(uint8_t subcommand, uint8_t blocks, uint8_t blocks_high, uint8_t offset) {
    return {0xA1, 0x0A, 0xC6, subcommand, blocks, blocks_high, offset, 0, 0, 0x92, 0, 0};
}

void run(const download_row& row, bool sas) {
    _ctrl_info ctrl = {};
    ctrl.vendor = VENDOR_HOST;
    _pd_info pd = {};
    pd.ctrl = &ctrl;
    std::strcpy(pd.dev_name, "/dev/null");
    bytes image(row.size);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    std::vector<sent_command> expected;
    uint32_t offset = 0;
    for (size_t i = 0; i < row.cdbs.size(); ++i) {
        expected.push_back({row.cdbs[i], {image.begin() + offset, image.begin() + offset + row.lengths[i]}});
        offset += row.lengths[i];
    }
    sent.clear();
    failing = row.failing;
    const int rc = sas ? flash_disk_fw_sas(&pd, image.data(), row.size, row.mode, row.chunk)
                       : flash_disk_fw_ata(&pd, image.data(), row.size, row.mode, row.chunk);
    EXPECT_EQ(rc, row.rc) << row.name;
    EXPECT_TRUE(sent == expected) << row.name;
    EXPECT_EQ(pd.handle, 0U);
    std::strcpy(pd.dev_name, "/nonexistent");
    sent.clear();
    EXPECT_EQ(sas ? flash_disk_fw_sas(&pd, image.data(), row.size, row.mode, row.chunk)
                  : flash_disk_fw_ata(&pd, image.data(), row.size, row.mode, row.chunk),
              999);
    EXPECT_TRUE(sent.empty());
}

TEST(FirmwareDownload, WriteBuffer) {
    const download_row rows[] = {
        {"one chunk", 32768, 7, 512, {write_buffer(7, 0, 32768)}, {32768}},
        {"three chunks",
         65537,
         7,
         512,
         {write_buffer(7, 0, 32768), write_buffer(7, 32768, 32768), write_buffer(7, 65536, 1)},
         {32768, 32768, 1}},
        {"less than a chunk", 5, 7, 512, {write_buffer(7, 0, 5)}, {5}},
        {"whole", 70000, 5, 512, {write_buffer(5, 0, 70000)}, {70000}},
        {"own chunk", 1025, 6, 1024, {write_buffer(6, 0, 1024), write_buffer(6, 1024, 1)}, {1024, 1}},
        {"second fails",
         65537,
         7,
         512,
         {write_buffer(7, 0, 32768), write_buffer(7, 32768, 32768)},
         {32768, 32768},
         1,
         1},
        {"nothing", 0, 5, 0, {}, {}},
    };
    for (const download_row& row : rows) {
        run(row, true);
    }
}

TEST(FirmwareDownload, DownloadMicrocode) {
    const download_row rows[] = {
        {"one chunk", 32768, 3, 32768, {microcode(3, 64, 0, 0)}, {32768}},
        {"three chunks",
         65537,
         3,
         32768,
         {microcode(3, 64, 0, 0), microcode(3, 64, 0, 64), microcode(3, 1, 0, 128)},
         {32768, 32768, 1}},
        {"whole", 150000, 7, 512, {microcode(7, 37, 1, 0)}, {150000}},
        {"another subcommand", 1025, 5, 1024, {microcode(3, 2, 0, 0), microcode(3, 1, 0, 2)}, {1024, 1}},
        {"odd chunk", 1001, 3, 600, {microcode(3, 2, 0, 0), microcode(3, 1, 0, 2)}, {600, 401}},
        {"first fails", 65537, 3, 32768, {microcode(3, 64, 0, 0)}, {32768}, 0, 1},
        {"nothing", 0, 7, 0, {}, {}},
    };
    for (const download_row& row : rows) {
        run(row, false);
    }
}

TEST(FirmwareDownload, AnNvmeImageTravelsFromPageBoundaries) {
    alignas(4096) static uint8_t room[8192];
    for (size_t i = 0; i < sizeof(room); ++i) {
        room[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    for (const uint8_t* image : {room, room + 4, room + 2048}) {
        sent.clear();
        EXPECT_EQ(nvme_update_fw(3, image, 6000), 0);
        const std::vector<sent_command> expected = {
            {{0x11}, {image, image + 4096}}, {{0x11}, {image + 4096, image + 6000}}, {{0x10}, {}}};
        EXPECT_TRUE(sent == expected);
    }
}

TEST(FirmwareDownload, WithoutAHandleNothingIsSent) {
    sent.clear();
    uint8_t data[8] = {};
    _scsi_cmd_in scsi = {};
    _scsi_cmd_out out = {};
    _nvme_cmd_in nvme = {};
    nvme.buffer = data;
    _nvme_cmd_out nvme_out = {};
    EXPECT_EQ(scsi_command_host(0, &scsi, &out), 1);
    EXPECT_EQ(nvme_command_host(0, 1, &nvme, &nvme_out), 1);
    EXPECT_EQ(nvme_update_fw(0, data, 8), -1);
    EXPECT_EQ(nvme_update_fw(0, data, 10), 1);
    EXPECT_TRUE(sent.empty());
}

}  // namespace
