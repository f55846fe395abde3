// What NVMe drives return: Identify Controller, Identify Namespace, the SMART / health log and the maker's
// vendor log page E0h, decoded into one record.
#pragma once

#include <cstdint>

namespace mirvok {

// One record per decode, zeroed by the caller. The 128-bit counters are exact up to 2^64 and rounded above.
struct nvme_device_info {
    char model[32];
    char fw_version[32];
    char serial_number[36];
    int32_t temperature;        // degrees Celsius
    uint32_t critical_warning;  // the bits that follow by name, and those without a name here
    uint32_t available_spare;   // percent
    uint32_t spare_threshold;   // percent
    uint32_t used;              // percentage used, may exceed 100
    long double data_units_read;
    long double data_units_written;
    long double host_read_commands;
    long double host_write_commands;
    long double controller_busy_time;
    long double power_cycles;
    long double power_on_hours;
    long double unsafe_shutdowns;
    long double media_errors;
    long double error_log_entries;
    uint32_t spare_below_threshold;
    uint32_t temperature_exceeded;
    uint32_t reliability_degraded;
    uint32_t read_only;
    uint32_t backup_failed;
    uint32_t endurance;
    uint32_t revision;
    char serial_number_11s[64];
    char serial_number_supplier[32];
    char master_drive_pn_11s[32];
    char master_pn_8s[32];
    char dummy[32];
    char fru[32];
    char manufacturer[56];
    char dom[36];
    char card_name[100];
    uint32_t activity_led;
    uint64_t namespace_size;  // logical blocks
    uint16_t e0_available;    // 1 when the vendor page was recognised
};

// Decoders that parse_nvme_page selects.
enum nvme_page_t : uint16_t {
    NVME_PAGE_IDENTIFY_CONTROLLER = 1,  // 4096 bytes, NVMe 1.4 figure 247
    NVME_PAGE_IDENTIFY_NAMESPACE = 2,   // 4096 bytes, NVMe 1.4 figure 245
    NVME_PAGE_VENDOR_E0 = 4,            // 1024 bytes, the maker's own layout
};

// Identify Controller data that end before the firmware revision's end tell nothing of the drive.
constexpr uint32_t controller_needed = 72;

// Decodes one page into `info`; any other page does nothing. `length` is not consulted: data holds the page
// whole.
void parse_nvme_page(uint16_t page, nvme_device_info* info, const void* data, uint32_t length);

// Decodes the SMART / health log (NVMe 1.4, 5.14.1.2; the first 192 bytes are read).
void parse_nvme_smart_data(nvme_device_info* info, const void* data);

// The firmware level, 8 characters and a NUL, of the slot that the next reset starts where that is another
// one than the active one, from the Firmware Slot Information log (NVMe 1.4, 5.14.1.3; 64 bytes are read);
// else empty.
void take_next_level(char (&level)[16], const void* data);

// A counter in 64 bits; what they cannot hold stays at their limit.
uint64_t to_uint64(long double counter);

// The value of 16 bytes read as a little-endian unsigned 128-bit integer.
long double int128_to_double(const uint8_t* bytes);

}  // namespace mirvok
