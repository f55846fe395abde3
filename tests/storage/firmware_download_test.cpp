// What a download sends, command by command, and when it stops.
#include "storage/firmware_download.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/signals.h"
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
    played_drive drive(VENDOR_HOST, PD_PROTOCOL_UNKNOWN);
    _pd_info& pd = drive.pd;
    answers = {take_scsi, nullptr};
    refuse = fail;
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

// The second of three pieces; what is taken is followed by the third.
TEST(FirmwareDownload, EndsWithThePieceThatWasNotTaken) {
    struct {
        int (*answer)(sg_io_hdr*);
        bool taken;
    } const rows[] = {
        {fail, false},
        {[](sg_io_hdr* h) { return h->host_status = 3, 0; }, false},
        {[](sg_io_hdr* h) { return h->status = 0x08, 0; }, false},
        {[](sg_io_hdr* h) { return h->status = 0x40, 0; }, false},
        {[](sg_io_hdr* h) { return h->driver_status = 8, 0; }, true},
        {[](sg_io_hdr* h) { return h->status = 2, h->sbp[0] = 0x70, h->sbp[2] = 0, 0; }, true},
        {[](sg_io_hdr* h) { return h->status = 2, h->sbp[0] = 0x70, h->sbp[2] = 0x21, 0; }, true},
        {[](sg_io_hdr* h) { return h->status = 2, h->sbp[0] = 0xF0, h->sbp[2] = 2, 0; }, false},
        {[](sg_io_hdr* h) { return h->status = 2, h->sbp[0] = 0x72, h->sbp[1] = 1, h->sbp[2] = 6, 0; }, true},
        {[](sg_io_hdr* h) { return h->status = 2, h->sbp[0] = 0x72, h->sbp[1] = 6, 0; }, false},
        {[](sg_io_hdr* h) { return h->status = 0, h->sbp[0] = 0x72, h->sbp[1] = 6, 0; }, false},
        {[](sg_io_hdr* h) { return h->status = 0, h->sbp[0] = 0x73, h->sbp[1] = 1, 0; }, true},
        {[](sg_io_hdr* h) { return h->status = 2, h->sbp[0] = 0x73, h->sbp[1] = 1, 0; }, false},
        {[](sg_io_hdr* h) { return h->status = 2, h->sbp[0] = 0x72, h->sbp[1] = 1, 0; }, true},
        {[](sg_io_hdr* h) { return h->status = 0, h->sbp[0] = 0x74, h->sbp[1] = 6, 0; }, true},
    };
    uint8_t image[65537] = {};
    answers = {take_scsi, nullptr};
    failing = 1;
    for (const auto& row : rows) {
        for (const bool sas : {false, true}) {
            played_drive drive(VENDOR_HOST, PD_PROTOCOL_SATA);
            sent.clear();
            refuse = row.answer;
            const int rc = sas ? flash_disk_fw_sas(&drive.pd, image, sizeof(image), 7, 32768)
                               : flash_disk_fw_ata(&drive.pd, image, sizeof(image), 3, 32768);
            EXPECT_EQ(rc == 0, row.taken) << &row - rows;
            EXPECT_EQ(sent.size(), row.taken ? 3U : 2U) << &row - rows;
        }
    }
}

TEST(FirmwareDownload, DoesNotBeginAfterASignal) {
    answers = {take_scsi, take_nvme};
    sent.clear();
    hold_signals();
    raise(SIGTERM);
    profile_record record = {};
    for (const uint32_t vendor : {VENDOR_HOST, VENDOR_AVAGO, VENDOR_MV, VENDOR_NVME}) {
        played_drive drive(vendor, PD_PROTOCOL_SATA);
        EXPECT_EQ(flash_pd_fw(&drive.pd, &record), int{RESULT_CONTROLLER_REFUSES});
    }
    EXPECT_TRUE(sent.empty());
    std::signal(SIGTERM, SIG_IGN);  // still held when the process ends
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
