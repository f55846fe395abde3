// What drives return, decoded: every field distinct, at its borders, the whole record compared.
#include <cstring>

#include "common/diagnostics.h"
#include "profiles/drive_sizes.h"
#include "support/records.h"
#include "transport/nvme_data.h"
#include "transport/scsi_ata_data.h"

using namespace mirvok;

namespace {

template <size_t Capacity>
void set(char (&field)[Capacity], const char* text) {
    std::memset(field, 0, Capacity);
    std::strncpy(field, text, Capacity - 1);
}

// A page in which every byte differs from its neighbours: whatever is read one byte off shows.
bytes marked_page(size_t size) {
    bytes page(size);
    for (size_t i = 0; i < size; ++i) {
        page[i] = static_cast<uint8_t>('0' + i % 75);
    }
    return page;
}

std::string text_of(const bytes& page, size_t offset, size_t width) {
    return {page.begin() + static_cast<std::ptrdiff_t>(offset),
            page.begin() + static_cast<std::ptrdiff_t>(offset + width)};
}

TEST(DriveData, InquiryByVendorAndType) {
    const std::tuple<const char*, uint8_t, uint32_t, const char*> rows[] = {
        {"ATA     ", 0, PD_PROTOCOL_SATA, "kept"},    {"NVMe    ", 0, PD_PROTOCOL_NVME, "kept"},
        {"VELTRA-X", 0, PD_PROTOCOL_SAS, "VELTRA-X"}, {"VELTRA  ", 0, PD_PROTOCOL_SAS, "VELTRA  "},
        {"NVMe-   ", 0, PD_PROTOCOL_SAS, "NVMe-   "}, {"ATAX    ", 0, PD_PROTOCOL_SAS, "ATAX    "},
    };
    for (const auto& [vendor, type, protocol, vendor_id] : rows) {
        bytes page = marked_page(512);
        page[0] = type;
        put(page, 8, vendor);
        put(page, 16, " Model with tail");
        put(page, 32, "1A  ");
        put(page, 114, "\n FRU\n 456 \n");
        _pd_info pd = {};
        set(pd.vendor_id, "kept");
        _pd_info expected = pd;
        expected.protocol = protocol;
        set(expected.vendor_id, vendor_id);
        set(expected.product_id, " Model with tail");
        set(expected.code_level, "1A");
        set(expected.device_serial, text_of(page, 36, 8).c_str());
        set(expected.fru, "FRU\n 456");
        set(expected.dummy, text_of(page, 136, 12).c_str());
        parse_inquery(&pd, page.data(), 512);
        EXPECT_EQ(bytes_of(pd), bytes_of(expected)) << vendor;
    }
    for (const uint8_t peripheral : bytes{0x0D, 0x20, 0x7F}) {
        bytes other = marked_page(512);
        other[0] = peripheral;
        _pd_info pd = {};
        pd.protocol = PD_PROTOCOL_SATA;
        parse_inquery(&pd, other.data(), 512);
        EXPECT_EQ(bytes_of(pd), bytes_of(_pd_info{}));
    }
}

TEST(DriveData, VendorPageC4ByRevisionAndLength) {
    const std::tuple<uint8_t, uint8_t, uint8_t, uint32_t> rows[] = {
        {0xC4, 1, 36, 0}, {0xC4, 1, 35, 90006}, {0xC4, 2, 96, 0},     {0xC4, 2, 36, 90006},
        {0xC4, 3, 0, 0},  {0xC4, 0, 255, 0},    {0xC3, 1, 36, 90005}, {0, 0, 0, 90005}};
    for (const auto& [code, revision, length, rc] : rows) {
        bytes page = marked_page(512);
        page[1] = code;
        page[3] = length;
        page[11] = revision;
        put(page, 28, "  PN12345678");
        _pd_info pd = {};
        set(pd.part_number_8s, "8S");
        _pd_info expected = pd;
        if (rc == 0) {
            expected.c4_valid = 1;
            set(expected.serial_number, text_of(page, 12, 8).c_str());
            set(expected.part_number, "PN12345678");
            set(expected.part_number_8s, "");
        }
        EXPECT_EQ(parse_vpd_c4(&pd, page.data(), 512), rc);
        EXPECT_EQ(bytes_of(pd), bytes_of(expected)) << int{revision};
    }
}

TEST(DriveData, SmartLogB0) {
    bytes page = marked_page(512);
    _pd_info pd = {};
    set(pd.part_number, "old");
    _pd_info expected = pd;
    EXPECT_EQ(parse_vpd_b0(&pd, page.data(), 512), 90005U);
    EXPECT_EQ(bytes_of(pd), bytes_of(expected));
    page[1] = 0xB0;
    EXPECT_EQ(parse_vpd_b0(&pd, page.data(), 512), 0U);
    expected.b0_valid = 1;
    set(expected.serial_number, text_of(page, 12, 8).c_str());
    set(expected.part_number, text_of(page, 28, 12).c_str());
    set(expected.part_number_8s, text_of(page, 107, 12).c_str());
    EXPECT_EQ(bytes_of(pd), bytes_of(expected));
}

TEST(DriveData, IdentifyDevice) {
    bytes page = marked_page(512);
    bytes text = marked_page(92);
    put(text, 34, " Product name with 20FRU 4567PART 890VTR1");
    put(text, 26, "LEVEL  1");
    for (size_t i = 0; i < text.size(); ++i) {
        page[20 + (i ^ 1)] = text[i];
    }
    page = hex_at(200, "78 56 34 12 02 01 00 00", page);
    drive_sizes[0] = {0x102, 0x12345678, 960};
    drive_sizes_size = 1;
    _pd_info pd = {};
    _pd_info expected = {};
    set(expected.device_serial, text_of(text, 0, 20).c_str());
    set(expected.code_level, "LEVEL  1");
    set(expected.product_id, "Product name with 2");
    set(expected.fru, "0FRU 456");
    set(expected.dummy, "7PART 89");
    set(expected.vendor_id, "0VTR");
    expected.size = 960;
    // Words 82 and 83 (supported), 85 and 87 (enabled): bit 0 counts where bits 15:14 of the second are 01b.
    const std::tuple<uint8_t, uint8_t, uint8_t, uint8_t, uint16_t, uint16_t> rows[] = {
        {1, 0x40, 0, 0x40, 1, 0},
        {0, 0x7F, 1, 0x7F, 0, 1},
        {0xFE, 0x40, 0xFF, 0x40, 0, 1},
        {1, 0x00, 1, 0xC0, 0xFFFF, 0xFFFF},
        {1, 0x80, 1, 0x80, 0xFFFF, 0xFFFF}};
    for (const auto& [word82, word83_high, word85, word87_high, supported, enabled] : rows) {
        page[164] = word82;
        page[167] = word83_high;
        page[170] = word85;
        page[175] = word87_high;
        expected.smart_supported = supported;
        expected.smart_enabled = enabled;
        parse_identify(&pd, page.data(), 512);
        EXPECT_EQ(bytes_of(pd), bytes_of(expected));
    }
}

TEST(DriveData, Capacities) {
    const bytes data = hex("01 02 03 04 05 06 07 08");
    _pd_info pd = {};
    parse_scsi_capacity_16(&pd, data.data(), 32);
    EXPECT_EQ(pd.lba_high, 0x01020304U);
    EXPECT_EQ(pd.lba_low, 0x05060708U);
    parse_scsi_capacity_10(&pd, data.data(), 8);
    EXPECT_EQ(pd.lba_high, 0U);
    EXPECT_EQ(pd.lba_low, 0x01020304U);
}

TEST(DriveData, NvmeIdentify) {
    bytes page = marked_page(4096);
    put(page, 44, " FRU 4567 ");
    put(page, 64, " LEVEL1 ");
    nvme_device_info info = {};
    parse_nvme_page(3, &info, page.data(), 4096);
    EXPECT_EQ(bytes_of(info), bytes_of(nvme_device_info{}));
    parse_nvme_page(1, &info, page.data(), 4096);
    EXPECT_EQ(info.serial_number, text_of(page, 4, 20));
    EXPECT_EQ(info.model, text_of(page, 24, 20));
    EXPECT_STREQ(info.fru, " FRU 4567 ");
    EXPECT_EQ(info.dummy, text_of(page, 54, 10));
    EXPECT_STREQ(info.fw_version, "LEVEL1");
    EXPECT_EQ(info.namespace_size, 0U);
    parse_nvme_page(2, &info, page.data(), 4096);
    EXPECT_EQ(info.namespace_size, 0x3736353433323130U);
}

TEST(DriveData, NvmeVendorPageByRevision) {
    for (const uint8_t revision : bytes{3, 4}) {
        for (const uint8_t led : bytes{0, 0x80, 0xFF}) {
            bytes page = marked_page(1024);
            page[1] = 0xE0;
            page[2] = revision;
            page[284] = led;
            put(page, 127, "  ");
            nvme_device_info info = {};
            info.activity_led = 5;
            nvme_device_info expected = info;
            expected.e0_available = 1;
            expected.revision = revision;
            expected.endurance = '4';
            set(expected.serial_number_11s, text_of(page, 12, 8).c_str());
            set(expected.serial_number_supplier, text_of(page, 107, 20).c_str());
            set(expected.master_drive_pn_11s, text_of(page, 28, 12).c_str());
            if (revision == 4) {
                set(expected.dom, text_of(page, 40, 7).c_str());
                set(expected.manufacturer, text_of(page, 129, 22).c_str());
                set(expected.fru, text_of(page, 151, 12).c_str());
                set(expected.dummy, text_of(page, 163, 12).c_str());
                set(expected.card_name, text_of(page, 175, 97).c_str());
                set(expected.master_pn_8s, text_of(page, 272, 12).c_str());
                expected.activity_led = led == 0 ? 0 : (led == 0xFF ? 1 : 5);
            }
            parse_nvme_page(4, &info, page.data(), 1024);
            EXPECT_EQ(bytes_of(info), bytes_of(expected)) << int{revision} << ' ' << int{led};
        }
    }
    nvme_device_info info = {};
    info.e0_available = 1;
    nvme_device_info expected = {};
    expected.endurance = '4';
    parse_nvme_page(4, &info, marked_page(1024).data(), 1024);
    EXPECT_EQ(bytes_of(info), bytes_of(expected));
}

TEST(DriveData, NvmeHealthLog) {
    bytes log = marked_page(512);
    for (size_t at = 32; at < 192; at += 16) {  // ten counters of 128 bits, 257 and on
        std::fill_n(log.begin() + static_cast<std::ptrdiff_t>(at), 16, uint8_t{0});
        log[at] = static_cast<uint8_t>(at / 16 - 1);
        log[at + 1] = 1;
    }
    const std::tuple<uint8_t, uint16_t, int> rows[] = {{0x05, 310, 36}, {0x1A, 273, 0}, {0, 274, 0},
                                                       {0xE0, 275, 1},  {31, 0, -273},  {1, 65535, 65261}};
    for (const auto& [warning, kelvin, celsius] : rows) {
        log[0] = warning;
        log[1] = static_cast<uint8_t>(kelvin);
        log[2] = static_cast<uint8_t>(kelvin >> 8);
        nvme_device_info info = {};
        info.backup_failed = 1;
        parse_nvme_smart_data(&info, log.data());
        EXPECT_EQ(info.temperature, celsius);
        EXPECT_EQ(info.available_spare, 0x33U);
        EXPECT_EQ(info.used, 0x35U);
        const std::vector<long double> counters = {info.data_units_read,      info.data_units_written,
                                                   info.host_read_commands,   info.host_write_commands,
                                                   info.controller_busy_time, info.power_cycles,
                                                   info.power_on_hours,       info.unsafe_shutdowns,
                                                   info.media_errors,         info.error_log_entries};
        EXPECT_EQ(counters, (std::vector<long double>{257, 258, 259, 260, 261, 262, 263, 264, 265, 266}));
        EXPECT_EQ(info.spare_below_threshold + 2 * info.temperature_exceeded + 4 * info.reliability_degraded +
                      8 * info.read_only + 16 * info.backup_failed,
                  warning & 31U);
    }
    std::fill_n(log.begin() + 48, 16, uint8_t{0xFF});
    nvme_device_info info = {};
    set_debug(1);
    EXPECT_NE(output_of([&] {
                  parse_nvme_smart_data(&info, log.data());
              }).find("data_units_write:FFFFFFFFFFFFFFFFh\n"),
              std::string::npos);
    set_debug(0);
    EXPECT_EQ(int128_to_double(hex_at(15, "01", bytes(16)).data()), 1329227995784915872903807060280344576.0L);
}

}  // namespace
