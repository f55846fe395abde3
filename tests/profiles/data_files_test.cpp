// The two data files of find and flash, byte for byte, whole, short, and with counts that lie.
#include <cstdlib>
#include <cstring>

#include "common/diagnostics.h"
#include "profiles/drive_sizes.h"
#include "profiles/flash_profile.h"
#include "support/records.h"

using namespace mirvok;

namespace {

bytes flash_file(uint16_t count, size_t records) {
    bytes file = repeat(128 + 128 * records, '#');
    file[38] = static_cast<uint8_t>(count);
    file[39] = static_cast<uint8_t>(count >> 8);
    for (size_t i = 0; i < records; ++i) {
        for (size_t at = 0; at < 128; ++at) {
            file[128 + 128 * i + at] = static_cast<uint8_t>('0' + at % 70 + i);
        }
    }
    return file;
}

TEST(FlashProfile, EveryFieldFromItsPlace) {
    bytes content = flash_file(2, 2);
    content.push_back('x');
    content[128 + 3] = 0;
    const temporary_file file(content);
    profile* prof = nullptr;
    ASSERT_EQ(load_profile(file.path.c_str(), &prof), 0);
    ASSERT_EQ(prof->count, 2U);
    const auto text = [&](size_t first, size_t width, size_t record) {
        return std::string(reinterpret_cast<const char*>(&content[128 + 128 * record + first]), width);
    };
    EXPECT_STREQ(prof->records[0].part_number, "012");
    for (size_t i = 0; i < 2; ++i) {
        const profile_record& record = prof->records[i];
        EXPECT_EQ(record.part_number, text(0, i == 0 ? 3 : 12, i));
        EXPECT_EQ(record.product_id, text(12, 24, i));
        EXPECT_EQ(record.type, 0x5554 + 0x101 * i);
        EXPECT_EQ(record.wait_time, 0x5756 + 0x101 * i);
        EXPECT_EQ(record.fw_level, text(42, 10, i));
        EXPECT_EQ(record.image_name, text(52, 20, i));
        EXPECT_EQ(record.spare_text1, text(74, 4, i));
        EXPECT_EQ(record.spare_text2, text(78, 4, i));
        EXPECT_EQ(record.spare_text3, text(84, 10, i));
        EXPECT_EQ(record.tpro, text(98, 12, i));
        EXPECT_EQ(record.tfru, text(110, 8, i));
        EXPECT_EQ(record.size, 0x6968 + 0x101 * i);
    }
    std::free(prof);
}

TEST(FlashProfile, LoadsAllOrNothing) {
    profile untouched = {};
    const std::tuple<bytes, int, bool> rows[] = {
        {{}, 2, false},
        {repeat(127, 0), 2, false},
        {flash_file(0, 0), 0, true},
        {flash_file(1, 0), 4, true},
        {flash_file(3, 2), 4, true},
        {flash_file(65535, 2), 4, true},
    };
    for (const auto& [content, rc, touched] : rows) {
        const temporary_file file(content);
        profile* prof = &untouched;
        EXPECT_EQ(load_profile(file.path.c_str(), &prof), rc);
        EXPECT_EQ(prof != &untouched, touched);
        EXPECT_EQ(prof != nullptr, rc != 4) << rc;
        if (rc == 0) {
            EXPECT_EQ(prof->count, 0U);
            std::free(prof);
        }
    }
    profile* prof = &untouched;
    EXPECT_EQ(load_profile("/nonexistent", &prof), 1);
    EXPECT_EQ(prof, &untouched);
    EXPECT_EQ(load_profile("/", &prof), 1);
}

TEST(FlashProfile, TheFirstPrefixWins) {
    profile_record records[3] = {};
    std::strcpy(records[0].part_number, "ABC1234");
    std::strcpy(records[0].product_id, "ZZ");
    std::strcpy(records[1].part_number, "ABC");
    std::strcpy(records[1].product_id, "Model");
    profile prof = {3, records};
    const std::tuple<const char*, int, int> rows[] = {{"ABC1234X", 0, 0}, {"ABC1234", 0, 0}, {"ABC123", 0, 1},
                                                      {"AB", 0, 2},       {"", 0, -1},       {"ModelX", 1, 1},
                                                      {"ABC1234", 1, 2},  {"Z", 1, 2}};
    for (const auto& [key, by_pid, index] : rows) {
        profile_record* found = nullptr;
        EXPECT_EQ(find_profile_record(key, &prof, &found, by_pid), index < 0 ? 1 : 0) << key;
        EXPECT_EQ(found, index < 0 ? nullptr : &records[index]) << key;
    }
    prof.count = 2;
    profile_record* found = records;
    EXPECT_EQ(find_profile_record("AB", &prof, &found, 0), 1);
    EXPECT_EQ(found, records);
}

bytes sizes_file(uint16_t count, uint16_t distance, const bytes& entries) {
    bytes file = hex("00 00 00 00 65 19 22 03");
    file.insert(file.end(), entries.begin(), entries.end());
    const auto low = [](uint16_t value) { return static_cast<uint8_t>(value); };
    const auto high = [](uint16_t value) { return static_cast<uint8_t>(value >> 8); };
    file.insert(file.end(), {low(count), high(count), low(distance), high(distance), 0x65, 0x19, 0x22, 3});
    return file;
}

TEST(DriveSizes, LoadsAndFinds) {
    const bytes two = hex("01 02 03 04 05 06 07 08 10 27 01 02 03 04 05 06 07 08 09 09");
    bytes bad_trailer = sizes_file(2, 32, two);
    bad_trailer.back() ^= 1;
    bytes many(2570);
    for (size_t i = 0; i < 257; ++i) {
        many[10 * i + 4] = static_cast<uint8_t>(i);
        many[10 * i + 5] = static_cast<uint8_t>(i >> 8);
        many[10 * i + 8] = 7;
    }
    const std::tuple<bytes, int, uint16_t> rows[] = {
        {{}, 2, 0},
        {repeat(7, 0x65), 2, 0},
        {bad_trailer, 2, 0},
        {sizes_file(2, 31, two), 3, 0},
        {sizes_file(2, 40, two), 3, 0},  // points before the file
        {sizes_file(2, 0, two), 3, 0},
        {sizes_file(257, 12 + 2570, many), 0, 256},
        {sizes_file(0, 32, two), 0, 0},
        {sizes_file(2, 32, two), 0, 2},
        {sizes_file(2, 33, two), 3, 2},  // a failed load leaves the table
    };
    EXPECT_EQ(load_drive_sizes("/nonexistent"), 1);
    for (const auto& [content, rc, count] : rows) {
        const temporary_file file(content);
        EXPECT_EQ(load_drive_sizes(file.path.c_str()), rc);
        EXPECT_EQ(drive_sizes_size, count);
        uint16_t size = 1;
        EXPECT_EQ(find_drive_size1(255, 0, &size), count == 256 ? 1 : 0);
        EXPECT_EQ(find_drive_size1(256, 0, &size), 0);
        EXPECT_EQ(size, count == 256 ? 7 : 1);
    }
    uint16_t size = 1;
    EXPECT_EQ(find_drive_size1(0x08070605, 0x04030201, &size), 1);
    EXPECT_EQ(size, 10000);
    size = 1;
    EXPECT_EQ(find_drive_size1(0x08070605, 0x04030200, &size), 0);
    EXPECT_EQ(find_drive_size1(0x08070604, 0x04030201, &size), 0);
    EXPECT_EQ(size, 1);
    const temporary_file short_file(sizes_file(3, 32, two));
    EXPECT_EQ(load_drive_sizes(short_file.path.c_str()), 0);
    EXPECT_EQ(drive_sizes_size, 3);
    EXPECT_EQ(bytes_of(drive_sizes[2]), bytes_of(drive_size{}));
}

}  // namespace
