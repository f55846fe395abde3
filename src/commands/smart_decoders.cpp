#include "commands/smart_decoders.h"

#include <algorithm>
#include <cstddef>
#include <span>

#include "common/bytes.h"
#include "common/diagnostics.h"
#include "storage/drive_paths.h"
#include "transport/command_blocks.h"
#include "transport/nvme_data.h"

namespace mirvok {

namespace {

constexpr size_t entry_count = 30;

constexpr size_t ata_table = 2;
constexpr size_t ata_entry_size = 12;
constexpr size_t ata_current = 3;
constexpr size_t ata_worst = 4;
constexpr size_t ata_raw = 5;
constexpr size_t ata_raw_size = 6;

constexpr size_t sas_table = 4;
constexpr size_t sas_dump_size = 16;

// How an entry of the SAS page holds its value: a big-endian integer of the given number of bytes, or the
// percentage used.
enum value_form_t : uint8_t {
    VALUE_NONE = 0,
    VALUE_BYTE = 1,
    VALUE_BE16 = 2,
    VALUE_BE24 = 3,
    VALUE_BE32 = 4,
    VALUE_BE64 = 8,
    VALUE_REMAINING = 100,  // 100 less the byte, which counts as 100 when it is above
};

struct value_rule {
    value_form_t form;
    uint8_t offset;
    uint8_t ids[17];  // ends with 0
};

struct page_layout {
    uint16_t smart_type;
    uint8_t entry_size;
    uint8_t id_offset;
    uint8_t first_dumped;  // from this entry on, the bytes that follow an entry are dumped
    value_rule other_ids;
    std::span<const value_rule> rules;
};

constexpr value_rule rules_2[] = {
    {VALUE_BE32, 6, {5, 9, 12, 100, 170, 172, 174}},
    {VALUE_BE24, 6, {1, 13, 195, 198}},
    {VALUE_BYTE, 6, {190, 194}},
    {VALUE_REMAINING, 6, {231}},
    {VALUE_BE64, 6, {233, 241}},
};

constexpr value_rule rules_3[] = {
    {VALUE_BE24, 2, {1, 13}},
    {VALUE_BE32, 2, {5, 9, 12, 100, 170, 172, 174, 177, 184, 187, 195, 196, 198, 199, 245, 247}},
    {VALUE_BE32, 6, {32, 33, 171, 241, 242}},
    {VALUE_BYTE, 2, {190, 194, 246}},
    {VALUE_BYTE, 1, {230}},
    {VALUE_REMAINING, 2, {231}},
    {VALUE_BE16, 2, {232}},
};

constexpr value_rule rules_5[] = {
    {VALUE_REMAINING, 4, {231}},
    {VALUE_BYTE, 6, {194}},
    {VALUE_BE64, 6, {233}},
};

constexpr page_layout layouts[] = {
    {1, 16, 1, entry_count - 1, {VALUE_BE32, 6, {}}, {}},
    {2, 16, 1, 0, {VALUE_NONE, 0, {}}, rules_2},
    {3, 12, 0, entry_count, {VALUE_NONE, 0, {}}, rules_3},
    {5, 16, 1, 0, {VALUE_BE32, 6, {}}, rules_5},
};

struct sas_entry {
    uint8_t id;
    uint64_t value;
};

const value_rule& find_rule(const page_layout& layout, uint8_t id) {
    for (const value_rule& rule : layout.rules) {
        for (const uint8_t* candidate = rule.ids; *candidate != 0; ++candidate) {
            if (*candidate == id) {
                return rule;
            }
        }
    }
    return layout.other_ids;
}

uint64_t read_value(const uint8_t* entry, const value_rule& rule) {
    if (rule.form == VALUE_REMAINING) {
        return 100U - std::min<unsigned int>(entry[rule.offset], 100);
    }
    uint64_t value = 0;
    for (size_t i = 0; i < rule.form; ++i) {
        value = value << 8 | entry[rule.offset + i];
    }
    return value;
}

void decode_page(const uint8_t* page, const page_layout& layout, sas_entry* entries) {
    const uint8_t* entry = page + sas_table;
    for (size_t i = 0; i < entry_count; ++i) {
        entries[i].id = entry[layout.id_offset];
        entries[i].value = read_value(entry, find_rule(layout, entries[i].id));
        entry += layout.entry_size;
        if (get_verbose() > 3 && i >= layout.first_dumped) {
            hexDump("SMART:", entry, sas_dump_size);
        }
    }
}

// An entry of the ATA attribute table as four little-endian 64-bit numbers: id, current, worst, raw value.
void dump_attribute(const uint8_t* entry) {
    uint8_t numbers[32] = {};
    numbers[0] = entry[0];
    numbers[8] = entry[ata_current];
    numbers[16] = entry[ata_worst];
    std::memcpy(&numbers[24], entry + ata_raw, ata_raw_size);
    hexDump("Logs:", numbers, sizeof(numbers));
}

// Takes the value that the first of the record's ids equal to `id` stands for. Returns whether it was the
// host-writes counter.
bool take_value(_smart_info* info, const _smart_profile_record* record, uint64_t id, uint64_t life,
                uint64_t temperature, uint64_t written) {
    if (id == record->life_attr_id) {
        info->life = static_cast<uint16_t>(life);
        info->life_valid = 1;
    } else if (id == record->temp_attr_id) {
        info->temperature = static_cast<uint16_t>(temperature);
        info->temperature_valid = 1;
    } else if (id == record->written_attr_id) {
        info->written_raw = written;
        info->written_valid = 1;
        return true;
    }
    return false;
}

// The first entry of this id counts the hours, whatever the record takes it for. Drives keep other things in
// the upper bytes of the attribute's raw value.
void take_power_on_hours(_smart_info* info, uint64_t id, uint64_t hours) {
    constexpr uint64_t power_on_hours_id = 9;
    if (id == power_on_hours_id && info->health.power_on_hours_valid == 0) {
        info->health.power_on_hours = hours;
        info->health.power_on_hours_valid = 1;
    }
}

// Sense data (SPC-4, 4.5): response codes, the fixed format's fields, the descriptor list, and the ATA Status
// Return descriptor of SAT-3.
constexpr size_t sense_size = 64;
constexpr size_t sense_header_size = 8;
constexpr size_t sense_additional_length = 7;
constexpr uint8_t fixed_current = 0x70;
constexpr uint8_t fixed_deferred = 0x71;
constexpr uint8_t descriptor_current = 0x72;
constexpr uint8_t descriptor_deferred = 0x73;
constexpr size_t fixed_lba_mid = 10;
constexpr size_t fixed_lba_high = 11;
constexpr size_t fixed_asc = 12;
constexpr size_t fixed_ascq = 13;
constexpr uint16_t ata_information_available = 0x001D;  // ASC, ASCQ
constexpr size_t descriptor_header_size = 2;
constexpr uint8_t ata_status_descriptor = 0x09;
constexpr uint8_t ata_status_length = 0x0C;
constexpr size_t ata_status_lba_mid = 9;
constexpr size_t ata_status_lba_high = 11;

// Places of the registers in the result buffer of SMART RETURN STATUS, and what they hold when a threshold is
// exceeded and when none is.
constexpr size_t host_lba_mid = 3;
constexpr size_t host_lba_high = 4;
constexpr size_t raid_lba_mid = 17;
constexpr size_t raid_lba_high = 19;
constexpr uint8_t exceeded_lba_mid = 0xF4;
constexpr uint8_t exceeded_lba_high = 0x2C;
constexpr uint8_t healthy_lba_mid = 0x4F;
constexpr uint8_t healthy_lba_high = 0xC2;

// The ATA Status Return descriptor in `end` bytes of descriptor-format sense data, or null.
const uint8_t* find_status_descriptor(const uint8_t* sense, size_t end) {
    size_t at = sense_header_size;
    while (at + descriptor_header_size <= end) {
        const size_t next = at + descriptor_header_size + sense[at + 1];
        if (sense[at] == ata_status_descriptor && sense[at + 1] == ata_status_length && next <= end) {
            return sense + at;
        }
        at = next;
    }
    return nullptr;
}

}  // namespace

void parse_veltra_smart_info_ata(const void* data, unsigned int kind, _smart_info* info,
                                 const _smart_profile_record* record) {
    TRACE_PRINT("Entering %s", __func__);
    const uint8_t* entry = static_cast<const uint8_t*>(data) + ata_table;
    for (size_t i = 0; kind == ATA_SMART_READ_DATA && i < entry_count; ++i, entry += ata_entry_size) {
        const uint64_t raw =
            load_le32(entry + ata_raw) | static_cast<uint64_t>(load_le16(entry + ata_raw + 4)) << 32;
        take_power_on_hours(info, entry[0], raw & UINT32_MAX);
        if (take_value(info, record, entry[0], entry[ata_current], raw & 0xFF, raw)) {
            TRACE_PRINT("host write lbal:%lXh", raw);
        }
        if (get_debug() != 0) {
            dump_attribute(entry);
            hexDump("SMART:", entry, ata_entry_size);
        }
    }
    TRACE_PRINT("Exiting %s", __func__);
}

void parse_veltra_smart_info_sas(const void* data, unsigned int page, _smart_info* info,
                                 const _smart_profile_record* record) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("smart type:%d", record->smart_type);
    const auto* layout = std::find_if(
        std::begin(layouts), std::end(layouts),
        [&](const page_layout& candidate) { return candidate.smart_type == record->smart_type; });
    if (page == sas_smart_page && layout != std::end(layouts)) {
        sas_entry entries[entry_count];
        decode_page(static_cast<const uint8_t*>(data), *layout, entries);
        for (const auto& [id, value] : entries) {
            TRACE_PRINT("attrid:%d;", id);
            take_power_on_hours(info, id, value);
            if (id != 0 && take_value(info, record, id, value, value, value)) {
                TRACE_PRINT("write lbal:%d,%lXh", static_cast<int>(value), value);
            }
        }
    }
    TRACE_PRINT("Exiting %s", __func__);
}

void parse_veltra_smart_info_nvme(const void* data, _smart_info* info) {
    TRACE_PRINT("Entering %s", __func__);
    nvme_device_info device = {};
    parse_nvme_smart_data(&device, data);
    info->life = static_cast<uint16_t>(100 - std::min<uint32_t>(device.used, 100));
    info->life_valid = 1;
    info->temperature = static_cast<uint16_t>(device.temperature);
    info->temperature_valid = 1;
    info->written_raw = to_uint64(device.data_units_written);
    info->written_valid = 1;
    info->health.critical_warning = static_cast<uint8_t>(device.critical_warning);
    info->health.available_spare = static_cast<uint8_t>(device.available_spare);
    info->health.spare_threshold = static_cast<uint8_t>(device.spare_threshold);
    info->health.media_errors = to_uint64(device.media_errors);
    info->health.unsafe_shutdowns = to_uint64(device.unsafe_shutdowns);
    info->health.log_valid = 1;
    info->health.power_on_hours = to_uint64(device.power_on_hours);
    info->health.power_on_hours_valid = 1;
    TRACE_PRINT("Exiting %s", __func__);
}

void take_returned_registers(const uint8_t* sense, uint8_t* status) {
    const uint8_t response = sense[0] & 0x7F;
    const size_t end = std::min(sense_size, sense_header_size + sense[sense_additional_length]);
    if (response == descriptor_current || response == descriptor_deferred) {
        const uint8_t* descriptor = find_status_descriptor(sense, end);
        if (descriptor != nullptr) {
            status[host_lba_mid] = descriptor[ata_status_lba_mid];
            status[host_lba_high] = descriptor[ata_status_lba_high];
        }
    } else if ((response == fixed_current || response == fixed_deferred) && fixed_ascq < end &&
               load_be16(sense + fixed_asc) == ata_information_available) {
        status[host_lba_mid] = sense[fixed_lba_mid];
        status[host_lba_high] = sense[fixed_lba_high];
    }
}

void parse_veltra_smart_returnStatus_sata(const void* data, _smart_drive* drive) {
    TRACE_PRINT("Entering %s", __func__);
    const auto* status = static_cast<const uint8_t*>(data);
    if (get_verbose() > 3) {
        hexDump("smart status:", status, smart_status_size);
    }
    uint8_t lba_mid = status[raid_lba_mid];
    uint8_t lba_high = status[raid_lba_high];
    if (path_of(drive->pd->ctrl).registers_in_sense) {
        lba_mid = status[host_lba_mid];
        lba_high = status[host_lba_high];
        TRACE_PRINT("lba_hi:0x%X,low:0x%X", lba_high, lba_mid);
    }
    const bool exceeded = lba_mid == exceeded_lba_mid && lba_high == exceeded_lba_high;
    const bool healthy = lba_mid == healthy_lba_mid && lba_high == healthy_lba_high;
    drive->info.pfa_trip = exceeded ? 1 : 0;
    drive->info.health.prediction_valid = exceeded || healthy ? 1 : 0;
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
