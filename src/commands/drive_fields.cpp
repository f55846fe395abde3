#include "commands/drive_fields.h"

#include "common/code_names.h"
#include "storage/drive_paths.h"

namespace mirvok {

namespace {

constexpr code_name protocol_names[] = {{PD_PROTOCOL_SAS, "SAS"},    {PD_PROTOCOL_SATA, "SATA"},
                                        {PD_PROTOCOL_NVME, "NVMe"},  {PD_PROTOCOL_M2, "M2"},
                                        {PD_PROTOCOL_SCSI, "SCSI"},  {PD_PROTOCOL_SATA_OTHER, "SATA"},
                                        {PD_PROTOCOL_OTHER, "other"}};
constexpr code_name state_names[] = {{PD_STATUS_UNCONFIGURED_GOOD, "unconfigured_good"},
                                     {PD_STATUS_ONLINE, "online"},
                                     {PD_STATUS_JBOD, "jbod"},
                                     {PD_STATUS_OFFLINE, "offline"},
                                     {PD_STATUS_HOT_SPARE, "hot_spare"},
                                     {PD_STATUS_UNCONFIGURED_BAD, "unconfigured_bad"},
                                     {PD_STATUS_FAILED, "failed"},
                                     {PD_STATUS_REBUILD, "rebuild"}};

template <size_t Count>
field_value name_or_unknown(const code_name (&names)[Count], uint32_t code) {
    const char* name = name_of(names, code);
    return {FIELD_TEXT, name != nullptr ? name : "unknown", 0};
}

field_value number(uint64_t value) {
    return {FIELD_NUMBER, nullptr, value};
}

// A number that is unknown when it is 0.
field_value known_number(uint64_t value) {
    return {value != 0 ? FIELD_NUMBER : FIELD_NULL, nullptr, value};
}

field_value text_or_null(const char* text) {
    return {text[0] != '\0' ? FIELD_TEXT : FIELD_NULL, text, 0};
}

field_value slot_of(const _pd_info* pd) {
    return {path_of(pd->ctrl).reports_state ? FIELD_NUMBER : FIELD_NULL, nullptr, pd->slot_id};
}

template <auto Member>
field_value text(const _pd_info* pd) {
    return {FIELD_TEXT, pd->*Member, 0};
}

template <auto Member>
field_value flag(const _pd_info* pd) {
    return {FIELD_BOOL, nullptr, pd->*Member != 0 ? uint64_t{1} : uint64_t{0}};
}

constexpr drive_field fields[] = {
    {"controller", [](const _pd_info* pd) { return number(pd->ctrl->ctrl_num); }},
    {"device_id", [](const _pd_info* pd) { return number(pd->device_id); }},
    {"node", [](const _pd_info* pd) { return text_or_null(pd->dev_name); }},
    {"slot_id", slot_of},
    {"port_id", [](const _pd_info* pd) { return number(pd->port_id); }},
    {"protocol", [](const _pd_info* pd) { return name_or_unknown(protocol_names, pd->protocol); }},
    {"status", [](const _pd_info* pd) { return number(pd->status); }},
    {"state", [](const _pd_info* pd) { return name_or_unknown(state_names, pd->status); }},
    {"size_gb", [](const _pd_info* pd) { return known_number(pd->size); }},
    {"part_number", text<&_pd_info::part_number>},
    {"part_number_8s", text<&_pd_info::part_number_8s>},
    {"serial_number", text<&_pd_info::serial_number>},
    {"device_serial", text<&_pd_info::device_serial>},
    {"product_id", text<&_pd_info::product_id>},
    {"vendor_id", text<&_pd_info::vendor_id>},
    {"dummy", text<&_pd_info::dummy>},
    {"fru", text<&_pd_info::fru>},
    {"code_level", text<&_pd_info::code_level>},
    {"c4_valid", flag<&_pd_info::c4_valid>},
    {"b0_valid", flag<&_pd_info::b0_valid>},
    {"last_lba",
     [](const _pd_info* pd) {
         return known_number(static_cast<uint64_t>(pd->lba_high) << 32 | pd->lba_low);
     }},
    {"nvme_lba_count", [](const _pd_info* pd) { return known_number(pd->nvme_lba_count); }},
};

}  // namespace

std::span<const drive_field> drive_fields() {
    return fields;
}

}  // namespace mirvok
