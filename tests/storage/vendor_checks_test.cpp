#include "storage/vendor_checks.h"

#include <cstring>

#include "support/records.h"

using namespace mirvok;

namespace {

_pd_info make_drive(uint32_t protocol, const char* part_number, const char* serial_number) {
    _pd_info pd = {};
    pd.protocol = protocol;
    pd.b0_valid = 1;
    std::strcpy(pd.part_number, part_number);
    std::strcpy(pd.serial_number, serial_number);
    return pd;
}

TEST(VendorChecks, TheMakersDrives) {
    const std::tuple<uint32_t, const char*, uint16_t> rows[] = {
        {1, "VELTRA-X", 0}, {1, "VELTRA-Y", 0}, {1, "KRV-ZSQS", 0}, {1, "KRV-ZSQ", 1}, {1, "veltra", 1},
        {1, "VTR", 1},      {1, "", 1},         {2, "VTR", 0},      {2, "VTRX", 0},    {2, "KRV", 0},
        {2, "KR", 1},       {2, "VELTRA", 1},   {5, "VTR", 0},      {7, "KRV", 0},     {5, "X", 1},
        {7, "", 1},         {4, "", 0},         {4, "X", 0},        {0, "VTR", 1},     {6, "VELTRA", 1},
        {8, "VTR", 1},      {3, "VTR", 1},
    };
    for (const auto& [protocol, vendor, rc] : rows) {
        _pd_info pd = {};
        pd.protocol = protocol;
        std::strcpy(pd.vendor_id, vendor);
        EXPECT_EQ(is_veltra_disk(&pd), rc) << protocol << vendor;
    }
}

TEST(VendorChecks, DigitsAndLetters) {
    for (int byte = 0; byte < 256; ++byte) {
        const char text[] = {'A', static_cast<char>(byte), '?', 0};
        const bool digit = byte >= 0x30 && byte <= 0x39;
        const bool letter = (byte >= 0x41 && byte <= 0x5A) || (byte >= 0x61 && byte <= 0x7A);
        EXPECT_EQ(is_digital(text[1]), digit ? 1 : 0);
        EXPECT_EQ(is_letter(text[1]), letter ? 1 : 0);
        EXPECT_EQ(is_digital_letter(text, 2), digit || letter ? 1 : 0);
        EXPECT_EQ(is_digital_letter(text, 1) + is_digital_letter(text, 0), 2);
        EXPECT_EQ(is_digital_letter(text, 3), 0);
    }
}

// Part number, serial number ("-" is none), and whether the two were there before.
TEST(VendorChecks, OneEntryForOneDrive) {
    for (const char* row :
         {"PN1 SERIAL01 0", "PN1 SERIAL01 1", "PN2 SERIAL01 0", "PN1 SERIAL0 0", "PN1 SERIAL02 0",
          "- SERIAL01 0", "- SERIAL01 1", "PN1 - 0", "PN1 - 0", "PN1 SERIAL012 0", "PN1 SERIAL012 0",
          "TWELVECHARS1 SERIAL01 0", "TWELVECHARS1 SERIAL01 1", "TWELVECHARS2 SERIAL01 0",
          "TWELVECHARS34 SERIAL01 0", "TWELVECHARS34 SERIAL01 0", "TWELVECHARS3 SERIAL01 0",
          "TWELVECHARS3 SERIAL01 1"}) {
        std::istringstream words(row);
        std::string part_number;
        std::string serial_number;
        int find = 0;
        words >> part_number >> serial_number >> find;
        _pd_info pd = make_drive(PD_PROTOCOL_SAS, part_number == "-" ? "" : part_number.c_str(),
                                 serial_number == "-" ? "" : serial_number.c_str());
        EXPECT_EQ(check_serial_number(&pd), find) << row;
    }
    EXPECT_EQ(sno_count, 14U);
    EXPECT_EQ(bytes_of(sno_list[6]), hex("50 4E 31", sizeof(sno_list[6])));
    EXPECT_EQ(std::string(sno_list[9].part_number, 20), "TWELVECHARS1SERIAL01");
    sno_count = max_drives;
    _pd_info pd = make_drive(PD_PROTOCOL_SAS, "PN", "NEW");
    EXPECT_EQ(check_serial_number(&pd), 0);
    EXPECT_EQ(sno_count, max_drives);
}

TEST(VendorChecks, SataSerialSubstitute) {
    const std::tuple<uint32_t, uint8_t, const char*, const char*, const char*> rows[] = {
        {2, 1, "SERIAL01", "ABCDEFGHIJKLMN", "SERIAL01"},
        {2, 0, "SERIAL01", "ABCDEFGHIJKLMN", "GHIJKLMN"},
        {2, 1, "SERIAL0", "ABCDEFGH", "ABCDEFGH"},
        {2, 1, "SERI-L01", "ABCDEFGH9", "BCDEFGH9"},
        {2, 0, "", "ABCDEFG", ""},
        {2, 0, "", "AB DEFGHIJ", ""},
        {2, 0, "", "ABCDEFGHI-", ""},
        {1, 0, "", "ABCDEFGH", ""},
        {5, 0, "", "ABCDEFGH", ""},
        {7, 0, "", "ABCDEFGH", ""},
    };
    for (const auto& [protocol, b0_valid, serial_number, device_serial, taken] : rows) {
        _pd_info pd = make_drive(protocol, "PN", serial_number);
        pd.b0_valid = b0_valid;
        std::strcpy(pd.device_serial, device_serial);
        check_serial_number(&pd);
        EXPECT_STREQ(pd.serial_number, taken);
    }
}

}  // namespace
