// What a download sends, command by command, and when it stops.
#include "storage/firmware_download.h"

#include <cerrno>
#include <cstring>

#include "support/drive_node.h"
#include "transport/host_device.h"

using namespace mirvok;

namespace {

struct sent_command {
    bytes cdb;
    bytes data;
    bool operator==(const sent_command&) const = default;
};

std::vector<sent_command> sent;

// Takes every command but the one of the number `failing`, counted from 0, which gets `refusal`.
int (*refuse)(sg_io_hdr*) = nullptr;
size_t failing = SIZE_MAX;

int take_scsi(sg_io_hdr* header) {
    EXPECT_EQ(header->interface_id, 'S');
    EXPECT_EQ(header->dxfer_direction, SG_DXFER_TO_DEV);
    EXPECT_EQ(header->mx_sb_len, 64);
    EXPECT_EQ(header->timeout, 0U);
    const auto* data = static_cast<const uint8_t*>(header->dxferp);
    sent.push_back({{header->cmdp, header->cmdp + header->cmd_len}, {data, data + header->dxfer_len}});
    return sent.size() - 1 == failing ? refuse(header) : 0;
}

int take_nvme(nvme_admin_cmd* command) {
    const auto* data = reinterpret_cast<const uint8_t*>(command->addr);
    EXPECT_EQ(command->addr % 4096, 0U);
    sent.push_back({{command->opcode}, {data, data + command->data_len}});
    return 0;
}

int fail(sg_io_hdr* /*header*/) {
    errno = EIO;
    return -1;
}

// What an image of `size` bytes is sent by: a CDB and a length each.
struct download_row {
    uint32_t size;
    uint16_t mode;
    uint32_t chunk;
    std::vector<std::pair<const char*, uint32_t>> pieces;
    size_t failing = SIZE_MAX;
    int rc = 0;
};

template <typename Download>
void run(const download_row& row, Download download) {
    played_drive drive(VENDOR_HOST, PD_PROTOCOL_UNKNOWN);
    answers = {take_scsi, nullptr};
    refuse = fail;
    bytes image(row.size);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    std::vector<sent_command> expected;
    auto from = image.begin();
    for (const auto& [cdb, length] : row.pieces) {
        expected.push_back({hex(cdb), {from, from + length}});
        from += length;
    }
    sent.clear();
    failing = row.failing;
    EXPECT_EQ(download(&drive.pd, image.data(), row.size, row.mode, row.chunk), row.rc) << row.size;
    EXPECT_TRUE(sent == expected) << row.size;
    EXPECT_EQ(drive.pd.handle, 0U);
    std::strcpy(drive.pd.dev_name, "/nonexistent");
    sent.clear();
    EXPECT_EQ(download(&drive.pd, image.data(), row.size, row.mode, row.chunk), 999);
    EXPECT_TRUE(sent.empty());
}

TEST(FirmwareDownload, WriteBuffer) {
    const std::pair<const char*, uint32_t> first = {"3B 07 00 00 00 00 00 80 00 00", 32768};
    const std::pair<const char*, uint32_t> second = {"3B 07 00 00 80 00 00 80 00 00", 32768};
    const download_row rows[] = {
        {32768, 7, 512, {first}},
        {65537, 7, 512, {first, second, {"3B 07 00 01 00 00 00 00 01 00", 1}}},
        {5, 7, 512, {{"3B 07 00 00 00 00 00 00 05 00", 5}}},
        {70000, 5, 512, {{"3B 05 00 00 00 00 01 11 70 00", 70000}}},
        {1025, 6, 1024, {{"3B 06 00 00 00 00 00 04 00 00", 1024}, {"3B 06 00 00 04 00 00 00 01 00", 1}}},
        {65537, 7, 512, {first, second}, 1, 1},
        {0, 5, 0, {}},
    };
    for (const download_row& row : rows) {
        run(row, flash_disk_fw_sas);
    }
}

TEST(FirmwareDownload, DownloadMicrocode) {
    const std::pair<const char*, uint32_t> first = {"A1 0A C6 03 40 00 00 00 00 92 00 00", 32768};
    const std::pair<const char*, uint32_t> second = {"A1 0A C6 03 40 00 40 00 00 92 00 00", 32768};
    const std::pair<const char*, uint32_t> two_blocks = {"A1 0A C6 03 02 00 00 00 00 92 00 00", 1024};
    const download_row rows[] = {
        {32768, 3, 32768, {first}},
        {65537, 3, 32768, {first, second, {"A1 0A C6 03 01 00 80 00 00 92 00 00", 1}}},
        {150000, 7, 512, {{"A1 0A C6 07 25 01 00 00 00 92 00 00", 150000}}},
        {1025, 5, 1024, {two_blocks, {"A1 0A C6 03 01 00 02 00 00 92 00 00", 1}}},
        {1001, 3, 600, {{two_blocks.first, 600}, {"A1 0A C6 03 01 00 02 00 00 92 00 00", 401}}},
        {65537, 3, 32768, {first}, 0, 1},
        {0, 7, 0, {}},
    };
    for (const download_row& row : rows) {
        run(row, flash_disk_fw_ata);
    }
}

// The second of three pieces; what is taken is followed by the third.
TEST(FirmwareDownload, EndsWithThePieceThatWasNotTaken) {
    // SCSI status, sense bytes 0 to 2, driver and host byte, and whether the piece counts as taken.
    struct given {
        uint8_t status, sense[3];
        uint16_t driver, host;
        bool taken;
    };
    static given row;
    const given rows[] = {
        {0, {0, 0, 0}, 0, 3, false},    {0x08, {0, 0, 0}, 0, 0, false}, {0x40, {0, 0, 0}, 0, 0, false},
        {0, {0, 0, 0}, 8, 0, true},     {2, {0x70, 0, 0}, 0, 0, true},  {2, {0x70, 0, 0x21}, 0, 0, true},
        {2, {0xF0, 0, 2}, 0, 0, false}, {2, {0x72, 1, 6}, 0, 0, true},  {2, {0x72, 6, 0}, 0, 0, false},
        {0, {0x72, 6, 0}, 0, 0, false}, {0, {0x73, 1, 0}, 0, 0, true},  {2, {0x73, 1, 0}, 0, 0, false},
        {2, {0x72, 1, 0}, 0, 0, true},  {0, {0x74, 6, 0}, 0, 0, true},
    };
    refuse = [](sg_io_hdr* header) {
        header->status = row.status;
        header->driver_status = row.driver;
        header->host_status = row.host;
        std::copy(std::begin(row.sense), std::end(row.sense), header->sbp);
        return 0;
    };
    uint8_t image[65537] = {};
    answers = {take_scsi, nullptr};
    failing = 1;
    for (const given& next : rows) {
        for (const bool sas : {false, true}) {
            played_drive drive(VENDOR_HOST, PD_PROTOCOL_SATA);
            sent.clear();
            row = next;
            const int rc = sas ? flash_disk_fw_sas(&drive.pd, image, sizeof(image), 7, 32768)
                               : flash_disk_fw_ata(&drive.pd, image, sizeof(image), 3, 32768);
            EXPECT_EQ(rc == 0, row.taken) << &next - rows;
            EXPECT_EQ(sent.size(), row.taken ? 3U : 2U) << &next - rows;
        }
    }
}

TEST(FirmwareDownload, AnNvmeImageTravelsFromPageBoundaries) {
    alignas(4096) static uint8_t room[8192];
    for (size_t i = 0; i < sizeof(room); ++i) {
        room[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    answers = {nullptr, take_nvme};
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
    answers = {take_scsi, take_nvme};
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
