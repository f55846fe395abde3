#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "common/bytes.h"
#include "raid/played_library.h"
#include "raid/storelib_devices.h"
#include "raid/storelib_firmware.h"
#include "raid/storelib_library.h"

namespace {

using namespace mirvok;

using std::to_string;

class storelib : public played_test {};

bytes le32(uint32_t value) {
    bytes stored(4);
    store_le32(stored.data(), value);
    return stored;
}

std::string repeat(int times, const std::string& text) {
    return times == 0 ? "" : text + repeat(times - 1, text);
}

std::string init() {
    return run([] {
        init_avago(lib_info_avago);
        int loaded = 0;
        for (const lib_info_entry& entry : lib_info_avago) {
            loaded = loaded * 10 + static_cast<int>(entry.loaded);
        }
        return loaded;
    });
}

std::string un_init() {
    return run([] { return un_init_avago(lib_info_avago), static_cast<int>(lib_info_avago[3].loaded); });
}

TEST_F(storelib, libraries_are_loaded_asked_and_released) {
    missing = {"storelib.so"};
    answers["0.4"] = {
        {0, {{0, {'1', '6', '.', '2'}}, {7, {'S', 'L', '7'}}}}, {9, {}}, {0, {{0, bytes(15, 'x')}}}};
    for (const std::string version : {"SL7.16.2", "", "xxxxxxxx.xxxxxxx"}) {
        EXPECT_EQ(
            init(),
            "open storelibir.so | 0.0 R c0 d0 68: 00*68 | no storelib.so | open ./storelib.so | 0.0 M c0 d0 "
            "260: 00*260 | open storelibir-2.so | 0.0 2 c0 d0 260: 00*260 | open storelibir-3.so | 0.0 3 c0 "
            "d0 260: 00*260 | open storelibit.so | 0.0 T c0 d0 260: 00*260 | 0.4 T c0 d0 15: 00*15 | " +
                (version.empty() ? "" : "library version:" + version + " | ") + "= 11111; ");
        EXPECT_EQ(lib_info_avago[4].version, version);
        EXPECT_EQ(un_init(),
                  "0.9 R c0 d0 0:  | close storelibir.so | 0.9 M c0 d0 0:  | close storelib.so | 0.9 3 c0 d0 "
                  "0:  | close storelibir-3.so | 0.9 2 c0 d0 0:  | close storelibir-2.so | 0.9 T c0 d0 0:  | "
                  "close storelibit.so | = 0; ");
        EXPECT_EQ(un_init(), "= 0; ");
    }
    // No entry, a failing init and no file: the three stay out.
    missing = {"storelibir.so", "ProcessLibCommand", "storelibit.so", "./storelibit.so"};
    answers = {{"0.0", {{0, {}}, {0x8001, {}}, {0, {}}}}, {"1.0", {{0xFFFFFFFF, {}}}}};
    EXPECT_EQ(init(),
              "no storelibir.so | open ./storelibir.so | 0.0 R c0 d0 68: 00*68 | open storelib.so | error: "
              "no ProcessLibCommand in storelib.so | close storelib.so | open storelibir-2.so | 0.0 2 c0 d0 "
              "260: 00*260 | init of storelibir-2.so failed, status: 32769 | close storelibir-2.so | open "
              "storelibir-3.so | 0.0 3 c0 d0 260: 00*260 | no storelibit.so | no ./storelibit.so | "
              "storelibit.so | Library 6 is not loaded | library version:. | = 110; ");
    const char* const calls[] = {"Unknown ctrl_type: 1 | = 0; ", "Library 2 is not loaded | = 0; ",
                                 "1.0 R c5 d6 0:  | = -1; ",     "Library 4 is not loaded | = 0; ",
                                 "1.0 3 c5 d6 0:  | = -1; ",     "Library 6 is not loaded | = 0; ",
                                 "Unknown ctrl_type: 7 | = 0; "};
    _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_controller_info, 5, 6, nullptr, 0);
    for (uint32_t type = 1; type <= 7; ++type) {
        EXPECT_EQ(run([&] { return ProcessLibCommandCall(&param, type); }), calls[type - 1]);
    }
    EXPECT_EQ(run([] { return unload_avago_dlls(CTRL_TYPE_IR3), 0; }),
              "0.9 3 c0 d0 0:  | close storelibir-3.so | = 0; ");
    EXPECT_EQ(un_init(), "0.9 R c0 d0 0:  | close storelibir.so | = 0; ");
}

TEST_F(storelib, lists_are_cut_at_the_room) {
    load_dlls_avago(lib_info_avago);
    bytes ids;
    for (uint8_t i = 0; i < 64; ++i) {
        ids.insert(ids.end(), {i, 2, 3, 4});
    }
    const std::string exceeded = "exceed supported max controller num | ";
    const auto list_controllers = [&](uint32_t status, uint32_t listed, uint32_t room, uint32_t taken,
                                      const std::string& trace) {
        answers["0.3"] = {{status, {{0, le32(listed)}, {4, ids}}}};
        std::vector<_ctrl_info> table(taken, ctrl);
        uint32_t count = 77;
        EXPECT_EQ(run([&] { return get_ctrl_list_avago(CTRL_TYPE_IT, &count, table.data(), room, 10); }),
                  "0.3 T c0 d0 260: 00*260 | " + trace + " | = " + to_string(status) + "; ");
        EXPECT_EQ(count, taken);
        for (uint32_t i = 0; i < taken; ++i) {
            EXPECT_TRUE(table[i].vendor == VENDOR_AVAGO && table[i].ctrl_id == 0x04030200 + i &&
                        table[i].ctrl_num == 10 + i && table[i].type == CTRL_TYPE_IT &&
                        table[i].pd_count == 0);
        }
    };
    list_controllers(0, 0, 64, 0, "count:0");
    list_controllers(0, 3, 3, 3, "count:3");
    list_controllers(0, 4, 3, 3, exceeded + "count:3");
    list_controllers(0, 64, 99, 64, "count:64");
    list_controllers(0, 65535, 99, 64, exceeded + "count:64");
    list_controllers(5, 3, 64, 0, "count:0");
    // A disk, an enclosure, a disk.
    const patches entries = {
        {8, {0x0C, 1, 9, 9, 9, 4, 0, 9}}, {32, {13, 0, 9, 9, 9, 5, 13}}, {56, {255, 255, 9, 9, 9, 6}}};
    const std::string two =
        "HDD Type:0, slotnumber:4,p->device_id:268 | HDD Type:13, slotnumber:5,p->device_id:13 | ";
    const std::string all = two + "HDD Type:0, slotnumber:6,p->device_id:65535 | ",
                      cut = "Exceed max support drives | ";
    const auto list_drives = [&](uint32_t status, uint32_t listed, uint32_t room, uint32_t disks,
                                 const std::string& trace) {
        answers["1.4"] = {{status, entries}};
        answers["1.4"][0].second.emplace_back(4, le32(listed));
        std::vector<_pd_info> table(disks, pd);
        pd.size = 77;
        EXPECT_EQ(run([&] { return get_pd_list_avago(&ctrl, table.data(), room); }),
                  "1.4 T c261 d0 " + trace);
        EXPECT_EQ(ctrl.pd_count, disks);
        for (uint32_t i = 0; i < disks; ++i) {
            EXPECT_TRUE(table[i].device_id == (i == 0 ? 0x10C : 0xFFFF) && table[i].slot_id == 4 + 2 * i &&
                        table[i].ctrl == &ctrl && table[i].size == 0);
        }
    };
    list_drives(0, 3, 3, 2, "80: 00*80 | pd count:3 | pPDlist: | . . " + all + "= 0; ");
    list_drives(0, 3, 2, 1, "56: 00*56 | pd count:3 | pPDlist: | . . " + two + cut + "= 0; ");
    list_drives(0, 0, 1, 0, "32: 00*32 | pd count:0 | pPDlist: | . . = 0; ");
    list_drives(0, 1, 0, 0, "8: 00*8 | pd count:1 | pPDlist: | . " + cut + "= 0; ");
    list_drives(0, 0xFFFFFFFF, 3, 2, "80: 00*80 | pd count:-1 | pPDlist: | . . " + all + cut + "= 0; ");
    list_drives(7, 3, 3, 0, "80: 00*80 | pd count:3 | pPDlist: | . . = 7; ");
    EXPECT_EQ(run([] { return get_pd_list_avago(&ctrl, nullptr, 0xFFFFFFFF / 24 + 1); }), "= 90004; ");
}

TEST_F(storelib, drive_information_gives_protocol_state_and_permission) {
    load_dlls_avago(lib_info_avago);
    const std::string head = "device_id:268, ctrl_id:261, type:6 | 2.0 T c261 d268 512: 00*512 | ";
    const auto get = [&](uint32_t status, uint32_t state, uint8_t interface, uint8_t flags) {
        answers["2.0"] = {{status, {{184, le32(state)}, {189, {interface}}, {362, {flags}}}}};
        pd.protocol = pd.status = pd.fw_download_not_allowed = 77;
        const std::string log = run([] { return get_pd_info_avago(&pd); });
        return log + to_string(pd.protocol) + " " + to_string(pd.status) + " " +
               to_string(pd.fw_download_not_allowed);
    };
    EXPECT_EQ(get(12, 0, 0x20, 1), head + "= 12; 77 77 77");
    const auto ask = [&](uint32_t state, uint8_t interface, uint8_t flags, const std::string& trace,
                         const std::string& taken) {
        EXPECT_EQ(get(0, state, interface, flags), head + "drive status:" + trace +
                                                       " | pd fw download allowed:" + taken.back() +
                                                       " | = 0; " + taken);
    };
    ask(0x00, 0x0F, 0xFE, " DRVIE_FW_STATE_UNCONFIGURED_GOOD", "0 1 0");
    ask(0x01, 0x1F, 0x01, " DRVIE_FW_STATE_UNCONFIGURED_BAD", "6 6 1");
    ask(0x02, 0x2F, 0xFE, " DRVIE_FW_STATE_HOT_SPARE", "1 5 0");
    ask(0x10, 0x3F, 0xFE, " DRVIE_FW_STATE_OFFLINE", "2 4 0");
    ask(0x11, 0x4F, 0xFE, " DRVIE_FW_STATE_FAILED", "8 7 0");
    ask(0x14, 0x5F, 0xFE, "DRVIE_FW_STATE_REBUILD", "4 8 0");
    ask(0x18, 0x6F, 0xFE, " DRVIE_FW_STATE_ONLINE", "77 2 0");
    ask(0x40, 0xFF, 0xFE, " DRVIE_FW_STATE_JBOD", "77 3 0");
    ask(0x20, 0x20, 0xFE, " DRVIE_FW_STATE_UNKNOWN", "1 0 0");
    ask(0x118, 0x20, 0xFE, " DRVIE_FW_STATE_UNKNOWN", "1 0 0");
}

TEST_F(storelib, pass_through_frames_and_their_completions) {
    load_dlls_avago(lib_info_avago);
    const std::string cdb = "3C 00 00 10 12 01 C4 00*12 99 ";
    const std::string out_4 =
        "6.0 T c261 d268 68: 0C 01 01 00 01 00 00 00 " + cdb + "00*32 04 00 00 00 61 62 63 64 | ";
    const std::string in_4 = "6.0 T c261 d268 68: 0C 01 01 00 02 00 00 00 " + cdb + "00*32 04 00*7 | ";
    const std::string in_0 = "6.0 T c261 d268 64: 0C 01 01 00 02 00 00 00 " + cdb + "00*36 | ";
    const std::string none_4 = "6.0 T c261 d268 64: 0C 01 01 00*5 " + cdb + "00*36 | ";
    const auto send = [&](io_direction_t direction, uint32_t length, uint32_t status, uint8_t scsi_status,
                          uint32_t returned, const std::string& expected) {
        bytes data = {'a', 'b', 'c', 'd'}, sense(33, 0x51);
        data.resize(std::min<size_t>(length, 4));
        sense.front() = 0x50;
        _scsi_cmd_in in = {{0x12, 0x01, 0xC4}, 16, 0, direction, length, data.data()};
        in.cdb[15] = 0x99;
        _scsi_cmd_out out = {99, {}};
        answers["6.0"] = {{status, {{10, {scsi_status}}, {28, sense}, {60, le32(returned)}}}};
        if (direction == IO_DIR_IN) {
            answers["6.0"][0].second.push_back({64, {0xD0, 0xD1, 0xD2, 0xD3}});
        }
        const std::string log = run([&] { return scsi_passthru_avago(&pd, &in, &out); });
        EXPECT_EQ(log + hex(data.data(), data.size()) + ", " + to_string(out.scsi_status) + ", " +
                      hex(out.sense, 64),
                  expected);
    };
    send(IO_DIR_OUT, 4, 0, 0, 4, out_4 + "= 0; 61 62 63 64, 0, 00*64");
    send(IO_DIR_IN, 4, 0, 0, 4, in_4 + "= 0; D0 D1 D2 D3, 0, 00*64");
    send(IO_DIR_IN, 4, 0, 0, 2, in_4 + "= 0; D0 D1 63 64, 0, 00*64");
    send(IO_DIR_IN, 4, 0, 0, 0xFFFFFFFF, in_4 + "= 0; D0 D1 D2 D3, 0, 00*64");
    send(IO_DIR_IN, 0, 0, 0, 4, in_0 + "= 0; , 0, 00*64");
    send(IO_DIR_NONE, 4, 0, 0, 0, none_4 + "= 0; 50 51 51 51, 0, 00*64");
    send(IO_DIR_IN, 4, 0, 2, 4, in_4 + "= 2; 61 62 63 64, 2, 50 51*31 00*32");
    send(IO_DIR_NONE, 4, 0x4045, 0, 0, none_4 + "= 0; 50 51 51 51, 0, 50 51*31 00*32");
    send(IO_DIR_IN, 4, 0x4045, 2, 4, in_4 + "= 16453; 61 62 63 64, 2, 50 51*31 00*32");
    send(IO_DIR_OUT, 4, 0x4044, 0, 4, out_4 + "= 16452; 61 62 63 64, 0, 50 51*31 00*32");
    send(IO_DIR_OUT, 0xFFFFFFC0, 0, 0, 0, "MALLOC Fail | = 90004; 61 62 63 64, 99, 00*64");
}

const std::string begun = "2.0 T c261 d268 512: 00*512 | device_id:268 | ";
const std::string poll = "1.0 T c261 d0 2384: 00*2384 | ";
const patches allowed = {{1528, {0x01}}}, disabled = {{1528, {0xFE}}};

// An announcement by the first 8 bytes of its data block: the number of chunks and the image size.
std::string announcement(int chunks, const std::string& block) {
    return "params.cdbCount:" + to_string(chunks) +
           " | 6.3 T c261 d0 36: 28 00*4 02 13 01 00*4 01 00 00 00 " + "0C 01 00*10 -> " + block +
           ", 00*32 | ";
}

std::string path() {
    return testing::TempDir() + "storelib_image_" + to_string(getpid());
}

int download() {
    return FlashPdFW_BRCM(0x105, 6, 0x10C, path().c_str(), 7);
}

// Flashes an image whose first 16 KiB are 01h, the next 02h and so on.
std::string flash(size_t size, int interface = 2) {
    std::string image(size, 0);
    for (size_t i = 0; i < size; ++i) {
        image[i] = static_cast<char>(i / 16384 + 1);
    }
    std::ofstream(path(), std::ios::binary) << image;
    load_dlls_avago(lib_info_avago);
    answers["2.0"] = {{0, {{189, {static_cast<uint8_t>(interface << 4 | 0xF)}}}}};
    return run(download);
}

TEST_F(storelib, images_go_out_in_chunks) {
    answers["1.0"] = {{0, allowed}};
    answers["6.0"] = {{0, {{10, {0xAA}}, {28, {0xBB}}}}};  // gone from the frame of the next chunk
    const std::string announced = begun + announcement(3, "03 00 00 00 01 00 01 00") + poll;
    const std::string first = "count:1, dataLength:0x8000, offset:0x0 | read_cnt=8000h | cdb: | . ";
    const std::string second = "count:2, dataLength:0x8000, offset:0x8000 | read_cnt=8000h | cdb: | . ";
    const std::string third = "count:3, dataLength:0x1, offset:0x10000 | read_cnt=1h | cdb: | . ";
    const std::string large = "6.0 T c261 d268 32832: 0C 01 01 00 01 00*6 ",
                      small = "6.0 T c261 d268 65: 0C 01 01 00 01 00*6 ";
    // WRITE BUFFER, also to NVMe drives.
    const std::string write_buffer =
        first + large + "10 3B 07 00*5 80 00*41 80 00 00 01*16384 02*16384 | " + second + large +
        "10 3B 07 00 00 80 00 00 80 00*41 80 00 00 03*16384 04*16384 | " + third + small +
        "10 3B 07 00 01 00*4 01 00*39 01 00 00 00 05 | sleep 60 | = 0; ";
    EXPECT_EQ(flash(65537, 2), announced + write_buffer);
    EXPECT_EQ(flash(65537, 5), announced + write_buffer);
    // DOWNLOAD MICROCODE.
    EXPECT_EQ(flash(65537, 3),
              announced + first + large + "0C A1 0A C6 03 40 00*4 92 00*39 80 00 00 01*16384 02*16384 | " +
                  second + large + "0C A1 0A C6 03 40 00 40 00 00 92 00*39 80 00 00 03*16384 04*16384 | " +
                  third + small + "0C A1 0A C6 03 01 00 80 00 00 92 00*38 01 00 00 00 05 | sleep 60 | = 0; ");
    answers["6.0"] = {{0x8000, {{10, {0x02}}}}};
    EXPECT_EQ(flash(65537, 2), announced + write_buffer.substr(0, write_buffer.find("count:2")) +
                                   "rval: 8000h, Scsi status: 0x2 |  | sleep 60 | = 1; ");
    std::remove(path().c_str());
}

TEST_F(storelib, what_cannot_be_sent_is_refused) {
    answers["1.0"] = {{0, allowed}};
    const std::string whole_chunk = begun + announcement(1, "01 00*4 80 00 00") + poll + "count:1, ";
    EXPECT_EQ(flash(32768).substr(0, whole_chunk.size()), whole_chunk);
    const std::string largest = begun + announcement(255, "FF 00*4 80 7F 00") + poll + "count:1, ";
    EXPECT_EQ(flash(8355840).substr(0, largest.size()), largest);
    EXPECT_EQ(flash(8355841), begun + "= 90014; ");
    EXPECT_EQ(flash(0), begun + "= 90015; ");
    for (const int interface : {0, 1, 4, 6, 15}) {
        EXPECT_EQ(flash(0, interface),
                  begun + "Device type should be either SAS or SATA or NVMe |  | = 90019; ");
    }
    flash(10);
    std::FILE* file = std::fopen(path().c_str(), "rb");
    std::string log;
    for (const uint32_t length : {32769U, 11U, 10U}) {
        std::rewind(file);
        log += run([&] { return DoPDFWDownload(0x105, 0x10C, 6, 5, file, length, 0x123456, 5); });
    }
    EXPECT_EQ(log,
              "= 32789; read_cnt=Ah | cdb: | . = 90015; read_cnt=Ah | cdb: | . 6.0 T c261 d268 74: 0C 01 01 "
              "00 01 00*6 10 3B 05 00 12 34 56 00 00 0A 00*39 0A 00 00 00 01*10 | = 0; ");
    // A file that is no longer as long as it was.
    for (const uint32_t size : {9U, 11U}) {
        std::rewind(file);
        EXPECT_EQ(run([&] { return DoPDFWDownload_7(7, 0x10C, 6, 5, file, size); }),
                  "count:1, dataLength:0x" + std::string(size == 9 ? "9" : "B") + ", offset:0x0 | = 1; ");
    }
    std::fclose(file);
    std::remove(path().c_str());
    EXPECT_EQ(run(download), begun + "Invalid file name " + path() + " | = 90010; ");
    answers["2.0"] = {{12, {}}};
    EXPECT_EQ(run(download),
              begun.substr(0, begun.find("device")) + "GetPdInfo returned rval: 12 |  | = 90017; ");
}

TEST_F(storelib, controllers_are_asked_until_they_allow_the_download) {
    const std::string announced = announcement(1, "01 00 00 00 01 00 00 00");
    const std::string wait = poll + "supportPDFWDownload disabled, wait 10s | sleep 5 | ";
    // Refused once, then ten polls without permission, then a failed poll whose bit counts for nothing.
    answers["6.3"] = {{2, {}}, {0, {}}};
    answers["1.0"] = std::deque<std::pair<uint32_t, patches>>(10, {0, disabled});
    answers["1.0"].insert(answers["1.0"].end(), {{9, allowed}, {0, allowed}});
    const std::string log = flash(1);
    EXPECT_EQ(log.substr(0, log.find("count:1, ")),
              begun + announced + "sleep 30 | " + announced + repeat(10, wait) + announced + poll + poll);
    const auto refused = [&](const std::string& reply) {
        return begun + repeat(15, announced + reply) + "Ctrl PD Download disabled | = 90016; ";
    };
    answers["1.0"] = {{0, disabled}};
    EXPECT_EQ(flash(1), refused(repeat(10, wait)));
    const std::map<uint32_t, std::string> texts = {
        {1, "FW doesn't support microcode update to multiple PDs"},
        {3, "One or more input parameters is invalid"},
        {12, "DeviceId is invalid"},
        {32, "FW can't allocate sufficient memory - try again later"},
        {50, "Microcode update already in progress"},
        {64, "Simultaneous updates to multiple PDs in same array is not allowed"}};
    for (const auto& [status, text] : texts) {
        answers["6.3"] = {{status, {}}};
        EXPECT_EQ(flash(1), refused(text + " |  | sleep 30 | "));
    }
    std::remove(path().c_str());
}

}  // namespace
