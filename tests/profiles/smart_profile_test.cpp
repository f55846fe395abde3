#include "profiles/smart_profile.h"

#include <tuple>

#include "common/diagnostics.h"
#include "support/records.h"

namespace mirvok {
namespace {

const std::string signature = "\xDE\xBE\xBE\xDE";
const std::string turned = "\xDE\xDE\xBE\xBE";

std::string trailer(unsigned int count, const std::string& end = signature) {
    return std::string{static_cast<char>(count), static_cast<char>(count >> 8)} + "xy" + end;
}

std::string record(std::string part_number, std::string product_id, const std::string& numbers = "") {
    part_number.resize(12);
    product_id.resize(32);
    std::string bytes = part_number + product_id + numbers;
    bytes.resize(64);
    return bytes;
}

_smart_profile profile;

// Loads a file of these bytes: its result, the count that it leaves, and what it traces between entry and
// exit.
void expect_load(const std::string& content, int rc, int count, const std::string& message = "") {
    const temporary_file file(bytes(content.begin(), content.end()));
    profile.count = 77;
    set_debug(1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(load_profiles(file.path.c_str(), &profile), rc); }),
              "STORAGE_LIB: Entering load_profiles\n" +
                  (message.empty() ? "" : "STORAGE_LIB: " + message + "\n") +
                  "STORAGE_LIB: Exiting load_profiles, rc = " + std::to_string(rc) + "\n");
    set_debug(0);
    EXPECT_EQ(profile.count, count) << content.size() << " bytes";
}

TEST(SmartProfile, LoadFilesOfEverySize) {
    const std::string one = record("PN", "PID");
    const std::string whole = signature + trailer(0);
    for (size_t size = 0; size < whole.size(); ++size) {
        // From 8 bytes on there is a trailer, which begins inside the head signature.
        const bool large = size >= 8 && size <= 10;
        const int count = large ? 77 : size == 11 ? 222 : 0;
        expect_load(whole.substr(0, size), large ? 4 : 3, count, large ? "" : "bad sig1");
    }
    expect_load(trailer(0), 3, 0, "bad sig2");
    expect_load(signature.substr(0, 3) + trailer(222), 3, 0, "bytes_read:7,sizeof(record):64");
    expect_load(whole, 0, 0);
    expect_load(whole + "z", 4, 77);
    expect_load(signature + "ignored" + trailer(0), 0, 0);
    expect_load(turned + one + trailer(1), 3, 1, "bad sig2");
    expect_load(turned + one + trailer(1, turned), 3, 1, "bad sig1");
    expect_load(signature + one + one + trailer(3), 3, 0, "bytes_read:8,sizeof(record):64");
    expect_load(signature + one + std::string(55, 'x') + trailer(2), 3, 0, "bytes_read:63,sizeof(record):64");
    expect_load(signature + one + std::string(56, 'x') + trailer(2), 0, 2);
    expect_load(signature + std::string(63936, 'r') + trailer(999), 0, 999);
    expect_load(signature + std::string(64000, 'r') + trailer(1000), 4, 77);
    expect_load(signature + trailer(65535, turned), 4, 77);
    EXPECT_EQ(load_profiles("/nonexistent/talvex.bin", &profile), 1);
    EXPECT_EQ(load_profiles("/", &profile), 1);
}

TEST(SmartProfile, TakeEveryFieldFromItsPlace) {
    const std::string product_id = "abcdefghijklmnopqrstuvwxyz012345";
    const std::string numbers =
        "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10\x11\x12\x13\x14";
    expect_load(signature + record("PN", "PID") + record("123456789012", product_id, numbers) + trailer(2), 0,
                2);
    const _smart_profile_record& got = profile.records[1];
    EXPECT_STREQ(profile.records[0].part_number, "PN");
    EXPECT_STREQ(got.part_number, "123456789012");
    EXPECT_EQ(got.product_id, product_id);
    EXPECT_EQ(got.warranty_gb, 0x0E0D0C0BU);
    EXPECT_EQ(
        (std::vector<uint16_t>{got.drive_type, got.life_threshold, got.life_attr_id, got.written_attr_id,
                               got.temp_attr_id, got.spec_max_temp, got.smart_type}),
        (std::vector<uint16_t>{0x0403, 0x0605, 0x0807, 0x0A09, 0x100F, 0x1211, 0x1413}));
}

TEST(SmartProfile, FindTheFirstPrefix) {
    const std::string wide = "A product that takes 32 bytes...";
    expect_load(signature + record("SSD0012", "Model A") + record("SSD0012", "Model B") +
                    record("SSD00", wide) + record("", "Mod") + record("SSD", "") + trailer(4),
                0, 4);
    const std::tuple<std::string, unsigned short, int> lookups[] = {
        {"SSD0012", 0, 0},  {"SSD001234", 0, 0},
        {"SSD001", 0, 2},   {"", 0, 3},
        {"Model BB", 1, 1}, {"Model", 2, 3},
        {"model A", 1, -1}, {wide, 1, 2},
        {wide + "!", 1, 2}, {wide.substr(0, 31), 1, -1},
    };
    for (const auto& [key, by_pid, index] : lookups) {
        _smart_profile_record* found = nullptr;
        EXPECT_EQ(find_profile(key.c_str(), &profile, &found, by_pid), index < 0 ? 1 : 0);
        EXPECT_EQ(found, index < 0 ? nullptr : &profile.records[index]) << key;
    }
}

}  // namespace
}  // namespace mirvok
