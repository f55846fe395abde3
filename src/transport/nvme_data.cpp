#include "transport/nvme_data.h"

#include "common/bytes.h"
#include "common/diagnostics.h"
#include "common/text.h"
#include "transport/data_field.h"

namespace mirvok {

namespace {

namespace controller {
constexpr size_t pci_vendor = 0;
constexpr field serial = {4, 20};
constexpr field model = {24, 20};
constexpr field whole_model = {24, 40};
constexpr field fru = {44, 10};
constexpr field dummy = {54, 10};
constexpr field firmware = {64, 8};
}  // namespace controller

namespace health {
constexpr size_t critical_warning = 0;
constexpr size_t temperature = 1;
constexpr size_t available_spare = 3;
constexpr size_t spare_threshold = 4;
constexpr size_t used = 5;

struct counter {
    size_t offset;
    long double nvme_device_info::*field;
};
constexpr counter counters[] = {
    {32, &nvme_device_info::data_units_read},      {48, &nvme_device_info::data_units_written},
    {64, &nvme_device_info::host_read_commands},   {80, &nvme_device_info::host_write_commands},
    {96, &nvme_device_info::controller_busy_time}, {112, &nvme_device_info::power_cycles},
    {128, &nvme_device_info::power_on_hours},      {144, &nvme_device_info::unsafe_shutdowns},
    {160, &nvme_device_info::media_errors},        {176, &nvme_device_info::error_log_entries},
};

// Critical warning bits, from bit 0 up.
constexpr uint32_t nvme_device_info::*warnings[] = {
    &nvme_device_info::spare_below_threshold, &nvme_device_info::temperature_exceeded,
    &nvme_device_info::reliability_degraded,  &nvme_device_info::read_only,
    &nvme_device_info::backup_failed,
};
}  // namespace health

namespace slots {
constexpr size_t active_firmware = 0;
constexpr size_t levels = 8;
constexpr size_t width = 8;
}  // namespace slots

namespace page_e0 {
constexpr size_t page_code = 1;
constexpr uint8_t code = 0xE0;
constexpr size_t revision = 2;
constexpr size_t endurance = 4;
constexpr field serial_11s = {12, 8};
constexpr field part_number_11s = {28, 12};
constexpr field dom = {40, 7};
constexpr field supplier_serial = {107, 20};
constexpr field manufacturer = {127, 24};
constexpr field fru = {151, 12};
constexpr field dummy = {163, 12};
constexpr field card_name = {175, 97};
constexpr field part_number_8s = {272, 12};
constexpr size_t activity_led = 284;
// Pages above this revision carry the fields from the date of manufacture on.
constexpr uint32_t last_short_revision = 3;
}  // namespace page_e0

void parse_identify_controller(nvme_device_info* info, const uint8_t* data) {
    TRACE_PRINT("Entering %s", __func__);
    char model[controller::model.width + 1];
    take_field<controller::model>(model, data);
    TRACE_PRINT("MN:%s", model);
    if (get_debug() != 0) {
        hexDump("mn_pn_fru:", data + controller::whole_model.offset, controller::whole_model.width);
    }
    take_field<controller::fru>(info->fru, data);
    take_field<controller::dummy>(info->dummy, data);
    take_trimmed<controller::serial>(info->serial_number, data);
    take_trimmed<controller::firmware>(info->fw_version, data);
    take_trimmed<controller::model>(info->model, data);
    TRACE_PRINT(
        "drive identify,serial number:*%s*,model:*%s*,fru:*%s*,part_number:*%s*,VID:%lXh, FW version:*%s*",
        info->serial_number, info->model, info->fru, info->dummy,
        static_cast<unsigned long>(load_le16(data + controller::pci_vendor)), info->fw_version);
    TRACE_PRINT("Exiting %s", __func__);
}

void parse_identify_namespace(nvme_device_info* info, const uint8_t* data) {
    TRACE_PRINT("Entering %s", __func__);
    info->namespace_size = load_le64(data);
    TRACE_PRINT("NAMESPACE: %lXh", static_cast<unsigned long>(info->namespace_size));
    TRACE_PRINT("Exiting %s", __func__);
}

void read_long_vpd_e0(nvme_device_info* info, const uint8_t* data) {
    take_trimmed<page_e0::part_number_8s>(info->master_pn_8s, data);
    take_field<page_e0::dom>(info->dom, data);
    take_trimmed<page_e0::manufacturer>(info->manufacturer, data);
    take_trimmed<page_e0::fru>(info->fru, data);
    take_trimmed<page_e0::dummy>(info->dummy, data);
    take_trimmed<page_e0::card_name>(info->card_name, data);
    const uint8_t led = data[page_e0::activity_led];
    if (led == 0 || led == 0xFF) {
        info->activity_led = led == 0 ? 0 : 1;
    }
    TRACE_PRINT(
        "drive more information: "
        "master_pn_8s:*%s*,dom:*%s*,manufacturer:*%s*,fru:*%s*,Dummy:*%s*,activity_led:%d,card_name:*%s*",
        info->master_pn_8s, info->dom, info->manufacturer, info->fru, info->dummy,
        static_cast<int>(info->activity_led), info->card_name);
}

void parse_vpd_e0(nvme_device_info* info, const uint8_t* data) {
    TRACE_PRINT("Entering %s", __func__);
    info->endurance = data[page_e0::endurance];
    const uint8_t page_code = data[page_e0::page_code];
    TRACE_PRINT("page code is :%d", page_code);
    if (page_code != page_e0::code) {
        TRACE_PRINT("page code is :%d", page_code);
        info->e0_available = 0;
    } else {
        info->e0_available = 1;
        info->revision = data[page_e0::revision];
        TRACE_PRINT("e0_avaliable:%d,revision:%d", info->e0_available, static_cast<int>(info->revision));
        take_trimmed<page_e0::serial_11s>(info->serial_number_11s, data);
        take_trimmed<page_e0::supplier_serial>(info->serial_number_supplier, data);
        take_trimmed<page_e0::part_number_11s>(info->master_drive_pn_11s, data);
        TRACE_PRINT(
            "drive information:, "
            "endurance:%d,revision:%d,serial_number_11s:*%s*,serial_number_supplier:*%s*,master_drive_pn_11s:"
            "*%s*",
            static_cast<int>(info->endurance), static_cast<int>(info->revision), info->serial_number_11s,
            info->serial_number_supplier, info->master_drive_pn_11s);
        if (info->revision > page_e0::last_short_revision) {
            read_long_vpd_e0(info, data);
        }
    }
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace

void parse_nvme_page(uint16_t page, nvme_device_info* info, const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    const auto* bytes = static_cast<const uint8_t*>(data);
    switch (page) {
        case NVME_PAGE_IDENTIFY_CONTROLLER:
            parse_identify_controller(info, bytes);
            break;
        case NVME_PAGE_IDENTIFY_NAMESPACE:
            parse_identify_namespace(info, bytes);
            break;
        case NVME_PAGE_VENDOR_E0:
            parse_vpd_e0(info, bytes);
            break;
        default:
            break;
    }
    TRACE_PRINT("Exiting %s", __func__);
}

void parse_nvme_smart_data(nvme_device_info* info, const void* data) {
    TRACE_PRINT("Entering %s", __func__);
    const auto* log = static_cast<const uint8_t*>(data);
    info->critical_warning = log[health::critical_warning];
    uint32_t bit = 0;
    for (uint32_t nvme_device_info::*warning : health::warnings) {
        info->*warning = info->critical_warning >> bit & 1;
        ++bit;
    }
    info->temperature =
        static_cast<int32_t>(static_cast<double>(load_le16(log + health::temperature)) - 273.15);
    info->available_spare = log[health::available_spare];
    info->spare_threshold = log[health::spare_threshold];
    info->used = log[health::used];
    for (const health::counter& row : health::counters) {
        info->*row.field = int128_to_double(log + row.offset);
    }
    TRACE_PRINT("SMART Information: temperaturre:%d, used:%d,data_units_write:%lXh", info->temperature,
                static_cast<int>(info->used),
                static_cast<unsigned long>(to_uint64(info->data_units_written)));
    TRACE_PRINT("Exiting %s", __func__);
}

void take_next_level(char (&level)[16], const void* data) {
    const auto* log = static_cast<const uint8_t*>(data);
    const uint32_t active = log[slots::active_firmware] & 7;
    const uint32_t next = static_cast<uint32_t>(log[slots::active_firmware]) >> 4 & 7;
    copy_text(level, "");
    if (next != 0 && next != active) {
        copy_trimmed<slots::width>(level, log + slots::levels + (next - 1) * slots::width);
    }
}

uint64_t to_uint64(long double counter) {
    constexpr long double limit = 18446744073709551616.0L;
    return counter >= limit ? UINT64_MAX : static_cast<uint64_t>(counter);
}

long double int128_to_double(const uint8_t* bytes) {
    long double value = 0;
    for (int i = 15; i >= 0; --i) {
        value = value * 256 + bytes[i];
    }
    return value;
}

}  // namespace mirvok
