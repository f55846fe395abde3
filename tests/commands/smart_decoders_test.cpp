#include "commands/smart_decoders.h"

#include <algorithm>

#include "common/diagnostics.h"
#include "support/records.h"

namespace mirvok {
namespace {

_smart_profile_record ids(uint16_t life, uint16_t temperature, uint16_t written, uint16_t smart_type = 0) {
    return {"", "", 0, 0, life, 0, written, 0, temperature, smart_type};
}

// Life, temperature and bytes written, each "-" when it was not found (and then 0).
std::string show(const _smart_info& info) {
    const auto value = [](uint16_t valid, uint64_t number) {
        return valid == 1 ? std::to_string(number) : valid == 0 && number == 0 ? "-" : "invalid";
    };
    return value(info.life_valid, info.life) + " " + value(info.temperature_valid, info.temperature) + " " +
           value(info.written_valid, info.written_raw);
}

std::string ata(const bytes& data, const _smart_profile_record& record, unsigned int kind = 0xD0) {
    _smart_info info = {};
    parse_veltra_smart_info_ata(data.data(), kind, &info, &record);
    return show(info);
}

std::string sas(const bytes& data, const _smart_profile_record& record, unsigned int page = 0x34) {
    _smart_info info = {};
    parse_veltra_smart_info_sas(data.data(), page, &info, &record);
    return show(info);
}

TEST(SmartDecoders, DecodeAtaAttributes) {
    bytes data = hex_at(2, "E9 71 72 3D 3E 81 82 83 84 85 86 87 C2 0 0 3F 40 28 1 2 3 4 5 6");
    data = hex_at(338, "E9 0 0 41 42 29 1 2 3 4 5 6 F1 0 0 43 44 F1 F2 F3 F4 F5 F6 FF", data);
    data = hex_at(362, "AA 0 0 45 46 2A 1 2 3 4 5 6", data);  // behind the table
    EXPECT_EQ(ata(data, ids(0xE9, 0xC2, 0xF1)), "65 40 271536237048561");
    EXPECT_EQ(ata(data, ids(0xF1, 0xE9, 0xC2)), "67 41 5514788471080");
    EXPECT_EQ(ata(data, ids(0xC2, 0xC2, 0xC2)), "63 - -");
    EXPECT_EQ(ata(data, ids(0xAA, 0xE9, 0xE9)), "- 41 -");
    EXPECT_EQ(ata(data, ids(0xAA, 0, 0)), "- 0 -");
    EXPECT_EQ(ata(data, ids(0x1E9, 0xAA, 0)), "- - 0");
    EXPECT_EQ(ata(data, ids(0xE9, 0xC2, 0xF1), 0xD5), "- - -");
    set_debug(1);
    EXPECT_NE(output_of([&] { ata(data, ids(0, 0, 0xF1)); })
                  .find("SMART::\n  0000  E9 00 00 41 42 29 01 02 03 04 05 06              ...AB)......\n"
                        "STORAGE_LIB: host write lbal:F6F5F4F3F2F1h\n"
                        "Logs::\n  0000  F1 00 00 00 00 00 00 00 43 00 00 00 00 00 00 00  ........C.......\n"
                        "  0010  44 00 00 00 00 00 00 00 F1 F2 F3 F4 F5 F6 00 00  D...............\n"),
              std::string::npos);
}

// The value of each id by layout, for the entry bytes below; a row without ids is that of all others.
const std::string entry_bytes = "01 06 0B 10 15 1A 1F 24 29 2E 33 38 3D 42 47 4C";
const struct {
    uint16_t smart_type;
    std::vector<int> ids;
    uint64_t value;
} value_rows[] = {
    {1, {}, 0x1F24292E},
    {2, {}, 0},
    {2, {5, 9, 12, 100, 170, 172, 174}, 0x1F24292E},
    {2, {1, 13, 195, 198}, 0x1F2429},
    {2, {190, 194}, 0x1F},
    {2, {231}, 69},
    {2, {233, 241}, 0x1F24292E33383D42},
    {3, {}, 0},
    {3, {1, 13}, 0x0B1015},
    {3, {5, 9, 12, 100, 170, 172, 174, 177, 184, 187, 195, 196, 198, 199, 245, 247}, 0x0B10151A},
    {3, {32, 33, 171, 241, 242}, 0x1F24292E},
    {3, {190, 194, 246}, 0x0B},
    {3, {230}, 0x06},
    {3, {231}, 89},
    {3, {232}, 0x0B10},
    {5, {}, 0x1F24292E},
    {5, {231}, 79},
    {5, {194}, 0x1F},
    {5, {233}, 0x1F24292E33383D42},
};

TEST(SmartDecoders, DecodeSasLayouts) {
    for (const uint16_t layout : {uint16_t{1}, uint16_t{2}, uint16_t{3}, uint16_t{5}}) {
        const size_t size = layout == 3 ? 12 : 16;
        for (uint16_t id = 0; id < 256; ++id) {
            SCOPED_TRACE("layout " + std::to_string(layout) + ", id " + std::to_string(id));
            uint64_t value = 0;
            for (const auto& row : value_rows) {
                const bool named = row.ids.empty() || std::count(row.ids.begin(), row.ids.end(), id) != 0;
                value = row.smart_type == layout && named ? row.value : value;
            }
            // Every slot of the page is used; the last id stands behind the table.
            const size_t at = 4 + size * (id == 255 ? 30U : id % 30U);
            bytes data = hex_at(at, entry_bytes.substr(0, size * 3));
            data[layout == 3 ? at : at + 1] = static_cast<uint8_t>(id);
            const bool found = id != 0 && id != 255;
            const std::string low = found ? std::to_string(value & 0xFFFF) : "-";
            EXPECT_EQ(sas(data, ids(0, 0, id, layout)), "- - " + (found ? std::to_string(value) : "-"));
            EXPECT_EQ(sas(data, ids(999, id, id, layout)), "- " + low + " -");
            EXPECT_EQ(sas(data, ids(id, id, id, layout)), low + " - -");
        }
    }
    const std::pair<std::string, std::string> lives[] = {{"63", "1 - -"}, {"64", "0 - -"}, {"FF", "0 - -"}};
    for (const auto& [used, found] : lives) {  // the second entry of the id wins
        EXPECT_EQ(sas(hex_at(5, "E7 0 0 0 0 1", hex_at(21, "E7 0 0 0 0 " + used)), ids(231, 0, 0, 2)), found);
        EXPECT_EQ(sas(hex_at(4, "E7 0 1", hex_at(16, "E7 0 " + used)), ids(231, 0, 0, 3)), found);
        EXPECT_EQ(sas(hex_at(5, "E7 0 0 1", hex_at(21, "E7 0 0 " + used)), ids(231, 0, 0, 5)), found);
    }
    for (const int unknown : {0, 4, 6, 65535}) {
        EXPECT_EQ(sas(bytes(512, 7), ids(7, 7, 7, static_cast<uint16_t>(unknown))), "- - -");
    }
    EXPECT_EQ(sas(bytes(512, 7), ids(7, 7, 7, 1), 0x2F), "- - -");
}

TEST(SmartDecoders, DumpWhatFollowsSasEntries) {
    bytes data(512);
    std::generate(data.begin(), data.end(), [byte = uint8_t{0}]() mutable { return byte += 7; });
    for (const auto& [layout, first] : {std::pair<uint16_t, size_t>{1, 29}, {2, 0}, {3, 30}, {5, 0}}) {
        const auto record = ids(999, 999, 999, layout);
        std::string expected;
        for (size_t i = first; i < 30; ++i) {
            expected += output_of([&] { hexDump("SMART:", &data[20 + 16 * i], 16); });
        }
        set_verbose(3);
        EXPECT_EQ(output_of([&] { sas(data, record); }), "");
        set_verbose(4);
        EXPECT_EQ(output_of([&] { sas(data, record); }), expected) << "layout " << layout;
    }
}

TEST(SmartDecoders, DecodeNvmeHealthLog) {
    const std::string ones = "FF FF FF FF FF FF FF FF ";
    const std::string rows[][3] = {
        // From byte 1: kelvin, spare, its threshold, percentage used. Then the units written and what is
        // found.
        {"3E 1 64 0A 03", "10 32 54 76 98 BA DC FE", "97 44 18364758544493064720"},
        {"00 0 64 0A 64", "", "0 65263 0"},
        {"FF FF 64 0A 65", ones, "0 65261 18446744073709551615"},
        {"75 1 64 0A FF", "0 0 0 0 0 0 0 0 1", "0 99 18446744073709551615"},
        {"12 1 64 0A 00", ones + ones, "100 0 18446744073709551615"},
    };
    for (const auto& row : rows) {
        _smart_info info = {};
        parse_veltra_smart_info_nvme(hex_at(1, row[0], hex_at(48, row[1])).data(), &info);
        EXPECT_EQ(show(info), row[2]);
    }
}

TEST(SmartDecoders, TakeRegistersFromSense) {
    const std::string list = "72 1 0 1D 0 0 0 ";
    const std::string registers = "9 C 0 0 0 0 0 31 0 F4 0 2C A0 50 ";
    const std::string filler = "2 8 1 1 1 1 1 1 1 1 ";
    const std::string fillers = filler + filler + filler + filler;
    const std::string fixed = " 31 F4 2C ";
    const std::pair<std::string, bool> rows[] = {
        {list + "E " + registers, true},
        {"F3 1 0 1D 0 0 0 E " + registers, true},
        {list + "D " + registers, false},  // the sense data end inside the descriptor
        {list + "0 " + registers, false},
        {"74 1 0 1D 0 0 0 E " + registers, false},
        {list + "E 9 B" + registers.substr(3), false},
        {list + "E A C" + registers.substr(3), false},
        {list + "FF 9 0 " + filler + registers + "9 C 0 0 0 0 0 0 0 1 0 1 0 0 ", true},
        {list + "38 " + fillers + "3 0 " + registers, true},  // ends with the 64 bytes
        {list + "FF " + fillers + "3 1 0 " + registers.substr(0, 30), false},
        {list + "FF 3 FF", false},
        {"70 0 1 0 50 A0 0 6 0" + fixed + "0 1D", true},
        {"F1 0 1 0 50 A0 0 A 0" + fixed + "0 1D", true},
        {"70 0 1 0 50 A0 0 5 0" + fixed + "0 1D", false},  // the sense data end before ASCQ
        {"70 0 1 0 50 A0 0 A 0" + fixed + "0 1C", false},
        {"70 0 1 0 50 A0 0 A 0" + fixed + "1 1D", false},
        {"6F 0 1 0 50 A0 0 A 0" + fixed + "0 1D", false},
    };
    for (const auto& [sense, found] : rows) {
        bytes status(32);
        take_returned_registers(hex(sense, 64).data(), status.data());
        EXPECT_EQ(status, hex_at(3, found ? "F4 2C" : "", bytes(32))) << sense;
    }
}

TEST(SmartDecoders, JudgeReturnedStatus) {
    for (const uint32_t vendor : {VENDOR_HOST, VENDOR_AVAGO, VENDOR_MV, VENDOR_CSMI}) {
        for (const auto& [mid, high, trip, known] : {std::tuple{"F4", "2C", 1, 1},
                                                     {"F4", "C2", 0, 0},
                                                     {"4F", "2C", 0, 0},
                                                     {"4F", "C2", 0, 1},
                                                     {"00", "00", 0, 0}}) {
            _ctrl_info ctrl = {};
            ctrl.vendor = vendor;
            _pd_info pd = {};
            pd.ctrl = &ctrl;
            _smart_drive drive = {&pd, {}, nullptr, {}};
            const bool host = vendor == VENDOR_HOST;
            const bytes status = hex_at(host ? 3 : 17, mid, hex_at(host ? 4 : 19, high));
            parse_veltra_smart_returnStatus_sata(status.data(), &drive);
            EXPECT_EQ(drive.info.pfa_trip, trip) << vendor << ": " << mid << " " << high;
            EXPECT_EQ(drive.info.health.prediction_valid, known) << vendor << ": " << mid << " " << high;
        }
    }
}

}  // namespace
}  // namespace mirvok
