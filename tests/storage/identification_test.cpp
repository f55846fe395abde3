// Identification of a drive behind a node of the kernel's: which answers count, what is asked again, and how
// SMART is left.
#include "storage/identification.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/drive_node.h"
#include "transport/host_device.h"

using namespace mirvok;

namespace {

struct answer {
    bytes data = {};
    uint8_t status = 0;
    bytes sense = {};
    uint16_t host = 0;
    uint16_t driver = 0;
    int error = 0;
};

const answer check(uint8_t key, bytes data = {}) {
    return {std::move(data), 2, {0x70, 0, key}};
}

bytes identify_page(const char* level, bool smart_on) {
    bytes page(512);
    for (size_t i = 0; level[i] != '\0'; ++i) {
        page[46 + (i ^ 1)] = static_cast<uint8_t>(level[i]);
    }
    page[170] = smart_on ? 1 : 0;
    page[175] = 0x40;
    return page;
}

bytes inquiry_page(const char* level) {
    bytes page(512);
    put(page, 8, "ATA     ");
    put(page, 32, level);
    return page;
}

// A SATA drive with SMART: the first answers of a command stand in `first`, later ones are its own.
struct sata_drive : played_drive {
    bool smart_on;
    std::vector<std::pair<std::string, answer>> first;
    std::string asked;  // the names of the commands

    explicit sata_drive(bool on) : played_drive(VENDOR_HOST, PD_PROTOCOL_SATA), smart_on(on) {
        answers = {[this](sg_io_hdr* header) { return take(header); }, nullptr};
    }

    static std::string name_of(const uint8_t* cdb) {
        const bool non_data = cdb[0] == 0xA1 && cdb[1] == 6;
        return cdb[0] == 0x12   ? "inquiry"
               : cdb[9] == 0xEC ? "identify"
               : cdb[3] == 0xD5 ? "b0"
               : cdb[3] == 0xD8 ? (non_data ? "ENABLE" : "enable")
               : cdb[3] == 0xD9 ? (non_data ? "DISABLE" : "disable")
                                : "?";
    }

    int take(sg_io_hdr* header) {
        const std::string name = name_of(header->cmdp);
        asked += name + " ";
        if (name == "ENABLE" || name == "DISABLE") {
            EXPECT_EQ(header->cmdp[2], 0);
            EXPECT_EQ(header->dxfer_direction, SG_DXFER_NONE);
        }
        answer reply;
        const auto own = std::find_if(first.begin(), first.end(),
                                      [&](const auto& candidate) { return candidate.first == name; });
        if (own != first.end()) {
            reply = own->second;
            first.erase(own);
        } else if (name == "inquiry") {
            reply.data = inquiry_page("MVT9");
        } else if (name == "identify") {
            reply.data = identify_page("MVT9LONG", smart_on);
        } else if (name == "b0") {
            reply.data = {0, 0xB0};
        } else {
            smart_on = name == "enable" || name == "ENABLE";
        }
        std::copy(reply.data.begin(), reply.data.end(), static_cast<uint8_t*>(header->dxferp));
        std::copy(reply.sense.begin(), reply.sense.end(), header->sbp);
        header->status = reply.status;
        header->host_status = reply.host;
        header->driver_status = reply.driver;
        header->resid = static_cast<int>(header->dxfer_len - reply.data.size());
        errno = reply.error;
        return reply.error != 0 ? -1 : 0;
    }
};

bytes cut(bytes page, size_t length) {
    page.resize(length);
    return page;
}

TEST(Identification, AnAnswerCountsWhenItReachesOverTheLevel) {
    const bytes inquiry = inquiry_page("MVT8");
    const bytes identify = identify_page("MVT8", true);
    const std::tuple<const char*, answer, const char*, int> rows[] = {
        {"inquiry", {cut(inquiry, 36)}, "MVT9LONG", 0},
        {"inquiry", {cut(inquiry, 35)}, "MVT9LONG", 0},
        {"identify", {cut(identify, 176)}, "MVT8", 0},
        {"identify", {cut(identify, 175)}, "MVT9", 90020},
        {"identify", {bytes(512)}, "MVT9", 90020},
        {"identify", {}, "MVT9", 90020},
        {"identify", {identify, 0, {}, 0, 0, EIO}, "MVT9", 90020},
        {"identify", {identify, 0, {0x70, 0, 4}, 0, 8}, "MVT8", 0},
        {"identify", check(1, identify), "MVT8", 0},
        {"identify", check(1, cut(identify, 175)), "MVT9", 90020},
        {"identify", {identify, 2, {0x72, 1, 2}}, "MVT8", 0},
        {"identify", {identify, 2, {0x72, 2, 1}}, "MVT9", 90020},
    };
    for (const auto& [command, given, level, rc] : rows) {
        sata_drive drive(true);
        drive.first = {{command, given}};
        EXPECT_EQ(get_pd_information(&drive.pd), rc) << command;
        EXPECT_STREQ(drive.pd.code_level, level) << command;
        EXPECT_TRUE(drive.smart_on);
        EXPECT_EQ(drive.pd.handle, 0U);
    }
    for (const auto& [length, rc] : {std::pair(36, 0), {35, 1}}) {
        sata_drive drive(true);
        drive.first = {{"inquiry", {cut(inquiry, static_cast<size_t>(length))}}};
        EXPECT_EQ(get_pd_inquery_0(&(drive.pd.handle = 3, drive.pd)), rc);
        EXPECT_STREQ(drive.pd.code_level, rc == 0 ? "MVT8" : "");
    }
}

TEST(Identification, AnIdentifyControllerCountsWhenItReachesOverTheLevel) {
    for (const auto& [length, rc] : {std::pair(72, 0), {71, 1}, {0, 1}}) {
        played_drive drive(VENDOR_NVME, PD_PROTOCOL_NVME);
        std::strcpy(drive.pd.code_level, "OLD");
        bytes page(4096);
        std::fill_n(page.begin(), length, 'A');
        answers = {nullptr, [&](nvme_admin_cmd* command) {
                       std::memcpy(reinterpret_cast<void*>(command->addr), page.data(), command->data_len);
                       return 0;
                   }};
        EXPECT_EQ(get_nvme_identify(&(drive.pd.handle = 3, drive.pd)), rc);
        EXPECT_STREQ(drive.pd.code_level, rc == 0 ? "AAAAAAAA" : "OLD");
    }
}

TEST(Identification, AskedAgainAfterAUnitAttention) {
    for (const bytes& sense : {bytes{0x70, 0, 6}, bytes{0x72, 6, 0x29}, bytes{0x71, 0, 6}}) {
        sata_drive drive(true);
        const answer attention = {{}, 2, sense};
        drive.first = {{"inquiry", attention}, {"identify", attention}, {"b0", attention}};
        EXPECT_EQ(get_pd_information(&drive.pd), 0);
        EXPECT_EQ(drive.asked, "inquiry inquiry identify identify b0 b0 ");
        EXPECT_EQ(drive.pd.b0_valid, 1);
    }
    for (const answer& given : {check(5), {{}, 0, {0x70, 0, 6}}, {{}, 2, {0x72, 0, 6}}, {{}, 8}}) {
        sata_drive drive(true);
        drive.first = {{"identify", given}};
        EXPECT_EQ(get_pd_indentify(&(drive.pd.handle = 3, drive.pd)), 1);
        EXPECT_EQ(drive.asked, "identify ");
    }
    sata_drive drive(true);
    drive.first = {{"identify", check(6)}, {"identify", check(6)}};
    EXPECT_EQ(get_pd_indentify(&(drive.pd.handle = 3, drive.pd)), 1);
    EXPECT_EQ(drive.asked, "identify identify ");
}

TEST(Identification, SmartIsLeftAsItWasFound) {
    bytes unknown = identify_page("MVT9LONG", false);
    unknown[175] = 0;
    const answer none = check(5);
    const answer off = {identify_page("MVT9LONG", false)};
    const std::tuple<bool, std::vector<std::pair<std::string, answer>>, const char*> rows[] = {
        {true, {}, "identify b0 "},
        {false, {}, "identify enable identify b0 disable "},
        {true, {{"identify", none}}, "identify "},
        {true, {{"identify", {unknown}}}, "identify b0 "},
        {false, {{"identify", {unknown}}}, "identify b0 "},
        {false, {{"enable", none}, {"disable", none}}, "identify enable ENABLE identify b0 disable DISABLE "},
        {false,
         {{"enable", {{}, 0, {}, 0, 0, EIO}}, {"ENABLE", {{}, 0, {}, 7}}},
         "identify enable ENABLE b0 disable "},
        {false,
         {{"enable", check(1)}, {"disable", {{}, 0, {}, 0, 8}}},
         "identify enable identify b0 disable "},
        {false,
         {{"identify", off}, {"identify", none}, {"b0", none}},
         "identify enable identify b0 disable "},
    };
    for (const auto& [on, first, asked] : rows) {
        sata_drive drive(on);
        drive.first = first;
        get_pd_information(&drive.pd);
        EXPECT_EQ(drive.asked, std::string("inquiry ") + asked);
        EXPECT_EQ(drive.smart_on, on) << asked;
        EXPECT_STREQ(drive.pd.code_level, asked == std::string("identify ") ? "MVT9" : "MVT9LONG");
    }
}

TEST(HostDevice, AHandleIsNoStandardStream) {
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    const uint32_t handle = get_handle("/dev/null");
    EXPECT_GE(handle, 3U);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_EQ(fcntl(static_cast<int>(handle), F_GETFD), FD_CLOEXEC);
    close_handle(handle);
    dup2(kept, STDIN_FILENO);
    close(kept);
}

// Host status, SCSI status, sense key in fixed format, residual, errno; and how many of the 8 bytes came.
TEST(HostDevice, WhatDidNotComeIsZero) {
    const std::tuple<uint16_t, uint8_t, uint8_t, int, int, uint32_t> rows[] = {
        {0, 0, 0, 0, 0, 8},  {0, 0, 0, 3, 0, 5}, {0, 0, 0, 8, 0, 0}, {0, 0, 0, 9, 0, 0},
        {0, 0, 0, -1, 0, 8}, {3, 0, 0, 0, 0, 0}, {0, 2, 1, 0, 0, 8}, {0, 2, 0, 1, 0, 7},
        {0, 2, 2, 0, 0, 0},  {0, 8, 5, 0, 0, 0}, {0, 0, 5, 2, 0, 6}, {0, 0, 0, 0, EIO, 0},
    };
    for (const auto& [host, status, key, residual, error, received] : rows) {
        answers.scsi = [host = host, status = status, key = key, residual = residual,
                        error = error](sg_io_hdr* to) {
            std::memset(to->dxferp, 0xDA, to->dxfer_len);
            to->host_status = host;
            to->status = status;
            to->resid = residual;
            to->sbp[0] = 0x70;
            to->sbp[2] = key;
            errno = error;
            return error != 0 ? -1 : 0;
        };
        uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        _scsi_cmd_in in = {};
        in.direction = IO_DIR_IN;
        in.data = data;
        in.data_length = sizeof(data);
        _scsi_cmd_out out = {};
        EXPECT_EQ(scsi_command_host(3, &in, &out), error != 0 ? 1 : 0);
        EXPECT_EQ(out.received, received) << residual;
        bytes expected = repeat(received, 0xDA);
        expected.resize(8);
        EXPECT_EQ(bytes_of(data), expected) << residual;
    }
}

}  // namespace
