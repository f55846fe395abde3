#include "storage/vendor_checks.h"

#include <cstring>

#include "common/diagnostics.h"
#include "common/text.h"

namespace mirvok {

namespace {

// Characters of a serial number that the list keeps, and that are taken from a SATA drive's own serial
// number.
constexpr uint16_t serial_length = 8;

// Whose each entry of the list is, and whose the last match was.
const _pd_info* sno_owners[max_drives];
const _pd_info* seen_before = nullptr;

template <size_t Count, size_t Width>
bool begins_with_any(const char* text, const char (&prefixes)[Count][Width]) {
    for (const auto& prefix : prefixes) {
        if (std::strncmp(text, prefix, text_length(prefix, Width)) == 0) {
            return true;
        }
    }
    return false;
}

void substitute_serial_number(_pd_info* pd) {
    if (pd->b0_valid != 0 && is_digital_letter(pd->serial_number, serial_length) != 0) {
        return;
    }
    const size_t length = std::strlen(pd->device_serial);
    if (length >= serial_length && is_digital_letter(pd->device_serial, static_cast<uint16_t>(length)) != 0) {
        copy_text(pd->serial_number, pd->device_serial + length - serial_length);
        TRACE_PRINT("serial number copy:%s", pd->serial_number);
    }
}

// Whether the `width` bytes of an entry's field hold exactly `text`.
bool equals_field(const char* field, size_t width, const char* text) {
    const size_t length = text_length(field, width);
    return std::strlen(text) == length && std::memcmp(field, text, length) == 0;
}

bool is_listed(const _pd_info* pd) {
    for (uint32_t i = 0; i < sno_count; ++i) {
        const serial_number_entry& entry = sno_list[i];
        TRACE_PRINT("sno %d: serial number:%.*s, part_number:%.*s", static_cast<int>(i),
                    static_cast<int>(sizeof(entry.serial_number)), entry.serial_number,
                    static_cast<int>(sizeof(entry.part_number)), entry.part_number);
        if (equals_field(entry.serial_number, sizeof(entry.serial_number), pd->serial_number) &&
            equals_field(entry.part_number, sizeof(entry.part_number), pd->part_number)) {
            seen_before = sno_owners[i];
            return true;
        }
    }
    return false;
}

// Enters a new drive. A part number that the entry cannot hold whole is entered without its serial number:
// cut, it could stand for another drive, and two drives must never be taken for one.
void enter(const _pd_info* pd) {
    if (sno_count >= max_drives) {
        TRACE_PRINT("serial number list is full");
        return;
    }
    serial_number_entry& entry = sno_list[sno_count];
    entry = {};
    const size_t length = std::strlen(pd->part_number);
    std::memcpy(entry.part_number, pd->part_number,
                length < sizeof(entry.part_number) ? length : sizeof(entry.part_number));
    if (length <= sizeof(entry.part_number)) {
        std::memcpy(entry.serial_number, pd->serial_number, text_length(pd->serial_number, serial_length));
    }
    sno_owners[sno_count] = pd;
    ++sno_count;
}

}  // namespace

uint16_t is_veltra_disk(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("Vendor ID:%s", pd->vendor_id);
    bool veltra = false;
    if (pd->protocol == PD_PROTOCOL_SAS) {
        veltra = begins_with_any(pd->vendor_id, sas_vendorIDs);
    } else if (is_sata_family(pd->protocol)) {
        veltra = begins_with_any(pd->vendor_id, sata_vendorIDs);
    } else {
        veltra = pd->protocol == PD_PROTOCOL_NVME;
    }
    const uint16_t rc = veltra ? 0 : 1;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int check_serial_number(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    if (pd->protocol == PD_PROTOCOL_SATA) {
        substitute_serial_number(pd);
    }
    const size_t serial_number_length = std::strlen(pd->serial_number);
    TRACE_PRINT("part number:%s,len:%zu,serial number:%s,len:%zu", pd->part_number,
                std::strlen(pd->part_number), pd->serial_number, serial_number_length);
    const int find = serial_number_length != 0 && is_listed(pd) ? 1 : 0;
    if (find == 0) {
        enter(pd);
    }
    TRACE_PRINT("Exiting %s, find = %d", __func__, find);
    return find;
}

const _pd_info* duplicate_of() {
    return seen_before;
}

int is_digital_letter(const char* text, uint16_t length) {
    for (uint16_t i = 0; i < length; ++i) {
        if (is_digital(text[i]) == 0 && is_letter(text[i]) == 0) {
            return 0;
        }
    }
    return 1;
}

int is_digital(char character) {
    return character >= '0' && character <= '9' ? 1 : 0;
}

int is_letter(char character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ? 1 : 0;
}

}  // namespace mirvok
