#include "storage/vendor_checks.h"

#include <algorithm>
#include <cstring>

#include "common/diagnostics.h"
#include "common/text.h"

namespace mirvok {

namespace {

// Characters of a serial number that the list keeps, and that are taken from a SATA drive's own serial
// number.
constexpr uint16_t serial_length = 8;

// The drive that each entry of the list stands for, and the drive that matched last.
const _pd_info* sno_owners[max_drives];
const _pd_info* seen_before = nullptr;

template <size_t Count, size_t Width>
bool begins_with_any(const char* text, const char (&prefixes)[Count][Width]) {
    for (const auto& prefix : prefixes) {
        if (begins_with(text, prefix)) {
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

// A part number longer than the entry is entered without its serial number: cut short, it could be another
// drive's, and two drives must never be taken for one.
serial_number_entry make_entry(const _pd_info* pd) {
    serial_number_entry entry = {};
    const size_t length = std::strlen(pd->part_number);
    std::memcpy(entry.part_number, pd->part_number, std::min(length, sizeof(entry.part_number)));
    if (length <= sizeof(entry.part_number)) {
        std::memcpy(entry.serial_number, pd->serial_number, text_length(pd->serial_number, serial_length));
    }
    return entry;
}

void trace_entries(const serial_number_entry* end) {
    for (const serial_number_entry* entry = sno_list; entry != end; ++entry) {
        TRACE_PRINT("sno %d: serial number:%.*s, part_number:%.*s", static_cast<int>(entry - sno_list),
                    static_cast<int>(sizeof(entry->serial_number)), entry->serial_number,
                    static_cast<int>(sizeof(entry->part_number)), entry->part_number);
    }
}

// Whether the entry of a drive is in the list; one that is `cut`, of a drive whose texts are longer, counts
// as new. Every drive walks the whole list: nothing but a comparison may happen there.
bool is_listed(const serial_number_entry& wanted, bool cut) {
    const serial_number_entry* const end = sno_list + sno_count;
    const auto is_wanted = [&](const serial_number_entry& entry) {
        return std::memcmp(entry.serial_number, wanted.serial_number, sizeof(entry.serial_number)) == 0 &&
               std::memcmp(entry.part_number, wanted.part_number, sizeof(entry.part_number)) == 0;
    };
    const auto* const found = cut ? end : std::find_if<const serial_number_entry*>(sno_list, end, is_wanted);
    if (get_debug() != 0) {
        trace_entries(found != end ? found + 1 : end);
    }
    if (found != end) {
        seen_before = sno_owners[found - sno_list];
    }
    return found != end;
}

void enter(const serial_number_entry& entry, const _pd_info* pd) {
    if (sno_count >= max_drives) {
        TRACE_PRINT("serial number list is full");
        return;
    }
    sno_list[sno_count] = entry;
    sno_owners[sno_count] = pd;
    ++sno_count;
}

}  // namespace

uint16_t is_veltra_disk(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    TRACE_PRINT("Vendor ID:%s", pd->vendor_id);
    bool veltra = false;
    switch (drive_kind(pd->protocol)) {
        case DRIVE_SAS:
            veltra = begins_with_any(pd->vendor_id, sas_vendorIDs);
            break;
        case DRIVE_SATA:
            veltra = begins_with_any(pd->vendor_id, sata_vendorIDs);
            break;
        case DRIVE_NVME:
            veltra = true;
            break;
        case DRIVE_OTHER:
            break;
    }
    const uint16_t rc = veltra ? 0 : 1;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int check_serial_number(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    if (lends_serial(pd->protocol)) {
        substitute_serial_number(pd);
    }
    const size_t part_number_length = std::strlen(pd->part_number);
    const size_t serial_number_length = std::strlen(pd->serial_number);
    TRACE_PRINT("part number:%s,len:%zu,serial number:%s,len:%zu", pd->part_number, part_number_length,
                pd->serial_number, serial_number_length);
    const serial_number_entry entry = make_entry(pd);
    const bool cut = part_number_length > sizeof(entry.part_number) || serial_number_length > serial_length;
    const int find = serial_number_length != 0 && is_listed(entry, cut) ? 1 : 0;
    if (find == 0) {
        enter(entry, pd);
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
