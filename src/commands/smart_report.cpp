#include "commands/smart_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "common/diagnostics.h"

namespace mirvok {

namespace {

enum unit_t : int { UNIT_B, UNIT_KB, UNIT_MB, UNIT_GB };
constexpr const char* unit_names[] = {"B", "KB", "MB", "GB"};
constexpr int no_whole_unit = -1;

// What a drive's host-writes counter counts: the counter times `factor` gives a number of `unit`. Amounts up
// to `last_whole` are printed as integers, greater ones with one decimal.
struct unit_rule {
    uint16_t drive_types[3];
    const char* name;
    uint64_t bytes;  // of one count
    long double factor;
    bool drop_fraction;
    unit_t unit;
    int last_whole;
    bool nvme;
};

constexpr unit_rule unit_rules[] = {
    {{1, 21}, "megabytes", 1U << 20, 1.0L, false, UNIT_MB, UNIT_MB, false},
    {{16, 18}, "bytes", 1, 1.0L, false, UNIT_B, UNIT_KB, false},
    {{17, 20, 24}, "sectors", 512, 0.5L, true, UNIT_KB, no_whole_unit, false},
    {{19}, "32_megabytes", 1U << 25, 32.0L, false, UNIT_MB, no_whole_unit, false},
    {{22, 25, 26}, "half_megabytes", 1U << 19, 0.5L, false, UNIT_MB, no_whole_unit, true},
    {{27}, "gigabytes", 1U << 30, 1.0L, false, UNIT_GB, no_whole_unit, false},
};

const unit_rule* find_unit_rule(uint16_t drive_type) {
    for (const unit_rule& rule : unit_rules) {
        const auto* end = std::end(rule.drive_types);
        if (drive_type != 0 && std::find(std::begin(rule.drive_types), end, drive_type) != end) {
            return &rule;
        }
    }
    return nullptr;
}

void judge_written(_smart_info* info, const _smart_profile_record* record, const unit_rule& rule) {
    long double amount = static_cast<long double>(info->written_raw) * rule.factor;
    if (rule.drop_fraction) {
        amount = std::trunc(amount);
    }
    int unit = rule.unit;
    while (amount >= 1024 && unit < UNIT_GB) {
        amount /= 1024;
        ++unit;
    }
    if (unit <= rule.last_whole) {
        std::snprintf(info->written_text, sizeof(info->written_text), "%lld%s",
                      static_cast<long long>(amount), unit_names[unit]);
    } else {
        std::snprintf(info->written_text, sizeof(info->written_text), "%.1Lf%s", amount, unit_names[unit]);
    }
    if (unit == UNIT_GB && amount > static_cast<long double>(record->warranty_gb)) {
        info->exceeded |= EXCEED_WRITTEN;
    }
}

}  // namespace

void calculate_smart(_smart_info* info, const _smart_profile_record* record) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("drive type:%d", record->drive_type);
    if (info->life_valid != 0 && info->life < record->life_threshold) {
        info->exceeded |= EXCEED_LIFE;
    }
    if (info->temperature_valid != 0 && info->temperature > record->spec_max_temp) {
        info->exceeded |= EXCEED_TEMPERATURE;
    }
    const unit_rule* rule = info->written_valid != 0 ? find_unit_rule(record->drive_type) : nullptr;
    if (rule != nullptr) {
        if (rule->nvme) {
            TRACE_PRINT("NVME drive");
        }
        judge_written(info, record, *rule);
    }
    TRACE_PRINT("Exiting %s", __func__);
}

written_unit written_unit_of(uint16_t drive_type) {
    const unit_rule* rule = find_unit_rule(drive_type);
    return rule != nullptr ? written_unit{rule->name, rule->bytes, rule->drop_fraction} : written_unit{};
}

uint64_t bytes_written(uint64_t counter, const written_unit& unit) {
    uint64_t bytes = 0;
    counter -= unit.drop_fraction ? counter % 2 : 0;
    return __builtin_mul_overflow(counter, unit.bytes, &bytes) ? UINT64_MAX : bytes;
}

int32_t temperature_of(const _smart_drive& drive) {
    // No sum of 16 bits of kelvin reaches the values that these stand for.
    constexpr int32_t first_negative = 0x10000 - 273;
    const int32_t temperature = drive.info.temperature;
    const bool negative = drive_kind(drive.pd->protocol) == DRIVE_NVME && temperature >= first_negative;
    return negative ? temperature - 0x10000 : temperature;
}

void print_smart_info(const _smart_drive* drive, unsigned short number) {
    TRACE_PRINT("Entering %s", __func__);
    const _pd_info& pd = *drive->pd;
    const _smart_info& info = drive->info;
    const _smart_profile_record& record = *drive->matched_record;
    print_texts("%-3d PN:%s-%s Veltra-SN:%s FW:%s\n", number, pd.part_number, pd.fru, pd.serial_number,
                pd.code_level);
    if (drive_kind(pd.protocol) == DRIVE_NVME) {
        print_texts("    Supplier-SN:%s\n", pd.device_serial);
    }
    std::printf("    Number bytes written to SSD: %s\n", info.written_valid != 0 ? info.written_text : "N/A");
    std::printf("    Number bytes supported by warranty: %dGB\n", static_cast<int>(record.warranty_gb));
    std::printf("    Life Remaining Gauge: ");
    std::printf(info.life_valid != 0 ? "%d%%\n" : "N/A\n", info.life);
    std::printf("    SSD temperature:");
    std::printf(info.temperature_valid != 0 ? "%d(c)" : "N/A", info.temperature);
    std::printf("      Spec Max: %d(c)\n", record.spec_max_temp);
    std::printf("    PFA trip: %s \n", info.pfa_trip != 0 ? "Yes" : "No");
    std::printf("    Warranty Exceed:%s%s%s%s\n\n", (info.exceeded & EXCEED_WRITTEN) != 0 ? "Written " : "",
                (info.exceeded & EXCEED_LIFE) != 0 ? "Life " : "",
                (info.exceeded & EXCEED_TEMPERATURE) != 0 ? "Temperature" : "",
                info.exceeded == 0 ? "No" : "");
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
