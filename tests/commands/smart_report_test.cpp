#include "commands/smart_report.h"

#include "support/records.h"

namespace mirvok {
namespace {

// For each drive type just below and at each unit border: the counter, the warranty in GB, the text, and W
// where the amount exceeds the warranty.
const struct {
    std::vector<uint16_t> drive_types;
    const char* amounts;
} units[] = {
    {{1, 21},
     "0 0 0MB - 1023 0 1023MB - 1024 0 1.0GB W 1024 1 1.0GB - 1025 1 1.0GB W 5000 4 4.9GB W 5000 5 4.9GB - "
     "18446744073709551615 4294967295 18014398509481984.0GB W"},
    {{16, 18},
     "0 0 0B - 1023 0 1023B - 1024 0 1KB - 1048575 0 1023KB - 1048576 0 1.0MB - 1073741823 0 1024.0MB - "
     "1073741824 0 1.0GB W 1073741824 1 1.0GB - 18446744073709551615 4294967295 17179869184.0GB W"},
    {{17, 20, 24},
     "1 0 0.0KB - 2047 0 1023.0KB - 2048 0 1.0MB - 2097151 0 1024.0MB - 2097152 0 1.0GB W 2097153 1 1.0GB - "
     "2097154 1 1.0GB W 18446744073709551615 4294967295 8796093022208.0GB W"},
    {{19},
     "0 0 0.0MB - 31 0 992.0MB - 32 0 1.0GB W 18446744073709551615 4294967295 576460752303423488.0GB W"},
    {{22, 25, 26},
     "1 0 0.5MB - 2047 0 1023.5MB - 2048 0 1.0GB W 2048 1 1.0GB - 2049 1 1.0GB W "
     "18446744073709551615 4294967295 9007199254740992.0GB W"},
    {{27}, "0 0 0.0GB - 5 5 5.0GB - 1024 1023 1024.0GB W 18446744073709551615 0 18446744073709551615.0GB W"},
};

TEST(SmartReport, ExpressBytesWritten) {
    _smart_profile_record record = {};
    for (const auto& row : units) {
        for (const uint16_t drive_type : row.drive_types) {
            std::istringstream amounts(row.amounts);
            std::string text;
            std::string flag;
            _smart_info info = {};
            while (amounts >> info.written_raw >> record.warranty_gb >> text >> flag) {
                SCOPED_TRACE("type " + std::to_string(drive_type) + ": " + text);
                record.drive_type = drive_type;
                calculate_smart(&info, &record);
                EXPECT_STREQ(info.written_text, "") << "a counter that was not found";
                info.written_valid = 1;
                calculate_smart(&info, &record);
                EXPECT_EQ(info.written_text, text);
                EXPECT_EQ(info.exceeded, flag == "W" ? EXCEED_WRITTEN : 0);
                info = {};
            }
        }
    }
    for (const uint16_t drive_type : std::vector<uint16_t>{0, 2, 15, 23, 28, 65535}) {
        _smart_info info = {0, 0, 0, 0, 1, UINT64_MAX, "", 0, 0};
        record.drive_type = drive_type;
        calculate_smart(&info, &record);
        EXPECT_STREQ(info.written_text, "");
        EXPECT_EQ(info.exceeded, 0);
    }
}

// The last counter that 64 bits hold in bytes, what it amounts to, and one more; a half kilobyte is dropped.
TEST(SmartReport, CountBytesWritten) {
    const struct {
        uint16_t drive_type;
        uint64_t last;
        uint64_t bytes;
    } rows[] = {
        {21, (1ULL << 44) - 1, ((1ULL << 44) - 1) << 20}, {18, UINT64_MAX - 1, UINT64_MAX - 1},
        {24, (1ULL << 55) - 1, ((1ULL << 55) - 2) << 9},  {19, (1ULL << 39) - 1, ((1ULL << 39) - 1) << 25},
        {22, (1ULL << 45) - 1, ((1ULL << 45) - 1) << 19}, {27, (1ULL << 34) - 1, ((1ULL << 34) - 1) << 30},
    };
    for (const auto& row : rows) {
        const written_unit unit = written_unit_of(row.drive_type);
        EXPECT_EQ(bytes_written(row.last, unit), row.bytes) << unit.name;
        EXPECT_EQ(bytes_written(row.last + 1, unit), UINT64_MAX) << unit.name;
    }
    EXPECT_EQ(written_unit_of(23).name, nullptr);
}

// From 0 to 65535 kelvin; 65535 degrees of a SAS drive are what it says.
TEST(SmartReport, TellTemperaturesBelowZero) {
    const std::tuple<uint32_t, uint16_t, int32_t> rows[] = {{PD_PROTOCOL_NVME, 65263, -273},
                                                            {PD_PROTOCOL_NVME, 65535, -1},
                                                            {PD_PROTOCOL_NVME, 65261, 65261},
                                                            {PD_PROTOCOL_SAS, 65535, 65535}};
    for (const auto& [protocol, temperature, expected] : rows) {
        _pd_info pd = {};
        pd.protocol = protocol;
        _smart_drive drive = {&pd, {}, nullptr, {}};
        drive.info.temperature = temperature;
        EXPECT_EQ(temperature_of(drive), expected);
    }
}

}  // namespace
}  // namespace mirvok
