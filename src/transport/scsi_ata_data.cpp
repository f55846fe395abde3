#include "transport/scsi_ata_data.h"

#include <cstring>

#include "common/bytes.h"
#include "common/diagnostics.h"
#include "profiles/drive_sizes.h"
#include "transport/data_field.h"

namespace mirvok {

namespace {

namespace inquiry {
constexpr field vendor = {8, 8};
constexpr field product = {16, 16};
constexpr field revision = {32, 4};
constexpr field serial = {36, 8};
constexpr field fru = {114, 12};
constexpr field dummy = {136, 12};
}  // namespace inquiry

// VPD page C4h and SMART log B0h share their first fields.
namespace vendor_page {
constexpr size_t page_code = 1;
constexpr size_t page_length = 3;
constexpr size_t revision = 11;
constexpr field serial = {12, 8};
constexpr field supplier_serial = {20, 8};
constexpr field part_number = {28, 12};
constexpr field label_8s = {40, 29};
constexpr field label_11s = {70, 29};
constexpr field part_number_8s = {107, 12};

constexpr uint8_t code_c4 = 0xC4;
constexpr uint8_t code_b0 = 0xB0;

// Revisions of page C4h whose page length is fixed.
struct checked_revision {
    uint8_t revision;
    uint8_t page_length;
};
constexpr checked_revision checked_revisions[] = {{1, 36}, {2, 96}};
}  // namespace vendor_page

// IDENTIFY DEVICE: byte offsets of words, and text positions within the swapped words 10 to 55.
namespace identify {
constexpr size_t word(size_t number) {
    return number * 2;
}
constexpr field text = {word(10), 92};
constexpr field serial = {word(10) - text.offset, 20};
constexpr field firmware = {word(23) - text.offset, 8};
constexpr size_t model = word(27) - text.offset;
constexpr field product = {model, 20};
constexpr field fru = {model + 20, 8};
constexpr field dummy = {model + 28, 8};
constexpr field vendor = {model + 36, 4};
constexpr size_t sectors = word(100);
}  // namespace identify

const uint8_t* bytes_of(const void* data) {
    return static_cast<const uint8_t*>(data);
}

// Bit 0 of one word, valid when bits 15:14 of another are 01b.
uint16_t smart_bit(uint16_t word, uint16_t validity) {
    return (validity & 0xC000) == 0x4000 ? static_cast<uint16_t>(word & 1) : smart_unknown;
}

}  // namespace

void parse_inquery(_pd_info* pd, const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    const uint8_t* page = bytes_of(data);
    if (page[0] != 0) {
        TRACE_PRINT("device type:0x%X", page[0]);
        pd->protocol = PD_PROTOCOL_UNKNOWN;
        TRACE_PRINT("Exiting %s", __func__);
        return;
    }
    const uint8_t* vendor = page + inquiry::vendor.offset;
    if (std::memcmp(vendor, "ATA ", 4) == 0) {
        pd->protocol = PD_PROTOCOL_SATA;
    } else if (std::memcmp(vendor, "NVMe ", 5) == 0) {
        pd->protocol = PD_PROTOCOL_NVME;
        TRACE_PRINT("drive is NVMe");
    } else {
        pd->protocol = PD_PROTOCOL_SAS;
        take_field<inquiry::vendor>(pd->vendor_id, page);
    }
    take_field<inquiry::product>(pd->product_id, page);
    take_trimmed<inquiry::revision>(pd->code_level, page);
    take_trimmed<inquiry::serial>(pd->device_serial, page);
    take_trimmed<inquiry::fru>(pd->fru, page);
    char dummy[inquiry::dummy.width + 1];
    take_field<inquiry::dummy>(dummy, page);
    TRACE_PRINT("dumm:%s", dummy);
    take_trimmed<inquiry::dummy>(pd->dummy, page);
    TRACE_PRINT(
        "drive information, code level:*%s*,serial_number:*%s*,fru:*%s*,part_number:*%s*,pid:*%s*, "
        "vendorID:%s",
        pd->code_level, pd->device_serial, pd->fru, pd->dummy, pd->product_id, pd->vendor_id);
    TRACE_PRINT("Exiting %s", __func__);
}

namespace {

bool is_accepted_c4(uint8_t revision, uint8_t page_length) {
    for (const vendor_page::checked_revision& row : vendor_page::checked_revisions) {
        if (row.revision == revision) {
            return row.page_length == page_length;
        }
    }
    return true;
}

void read_vpd_c4(_pd_info* pd, const uint8_t* page, uint8_t revision) {
    char supplier_serial[vendor_page::supplier_serial.width + 1];
    pd->c4_valid = 1;
    take_trimmed<vendor_page::part_number>(pd->part_number, page);
    take_trimmed<vendor_page::serial>(pd->serial_number, page);
    take_trimmed<vendor_page::supplier_serial>(supplier_serial, page);
    TRACE_PRINT("part_number_master:*%s*,size:%d,serial_number_11s:*%s*,serial_number_supplier:*%s*",
                pd->part_number, static_cast<int>(std::strlen(pd->part_number)), pd->serial_number,
                supplier_serial);
    TRACE_PRINT("drive part number: *%s*", pd->part_number);
    copy_text(pd->part_number_8s, "");
    if (revision == 2) {
        char label_8s[vendor_page::label_8s.width + 1];
        char label_11s[vendor_page::label_11s.width + 1];
        take_trimmed<vendor_page::label_8s>(label_8s, page);
        take_trimmed<vendor_page::label_11s>(label_11s, page);
        TRACE_PRINT("label_8s:*%s*,label_11s:*%s*", label_8s, label_11s);
    }
}

}  // namespace

uint32_t parse_vpd_c4(_pd_info* pd, const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    const uint8_t* page = bytes_of(data);
    const uint8_t page_code = page[vendor_page::page_code];
    const uint8_t revision = page[vendor_page::revision];
    const uint8_t page_length = page[vendor_page::page_length];
    TRACE_PRINT("page_code:%d, revision:%d,page_length:%d", page_code, revision, page_length);
    uint32_t rc = 0;
    if (page_code != vendor_page::code_c4) {
        rc = RESULT_WRONG_PAGE;
    } else if (!is_accepted_c4(revision, page_length)) {
        rc = RESULT_WRONG_REVISION;
    } else {
        read_vpd_c4(pd, page, revision);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, static_cast<int>(rc));
    return rc;
}

uint32_t parse_vpd_b0(_pd_info* pd, const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    const uint8_t* page = bytes_of(data);
    uint32_t rc = 0;
    if (page[vendor_page::page_code] != vendor_page::code_b0) {
        rc = RESULT_WRONG_PAGE;
    } else {
        take_trimmed<vendor_page::serial>(pd->serial_number, page);
        take_trimmed<vendor_page::part_number>(pd->part_number, page);
        take_trimmed<vendor_page::part_number_8s>(pd->part_number_8s, page);
        pd->b0_valid = 1;
        TRACE_PRINT("drive part number: *%s*, serial number:*%s*,8s part number:*%s*", pd->part_number,
                    pd->serial_number, pd->part_number_8s);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, static_cast<int>(rc));
    return rc;
}

void parse_identify(_pd_info* pd, const void* data, uint32_t length) {
    TRACE_PRINT("Entering %s", __func__);
    const uint8_t* page = bytes_of(data);
    pd->smart_enabled = 0;
    pd->smart_supported = 0;
    // ATA text has the first character of each pair in the high byte of its word.
    uint8_t text[identify::text.width];
    for (size_t i = 0; i < sizeof(text); i += 2) {
        text[i] = page[identify::text.offset + i + 1];
        text[i + 1] = page[identify::text.offset + i];
    }
    if (get_debug() != 0) {
        hexDump("ata reversed:", text, sizeof(text));
    }
    const uint32_t sectors_low = load_le32(page + identify::sectors);
    const uint32_t sectors_high = load_le32(page + identify::sectors + 4);
    TRACE_PRINT("lbal: %lXh, lbah:%lXh", static_cast<unsigned long>(sectors_low),
                static_cast<unsigned long>(sectors_high));
    find_drive_size1(sectors_low, sectors_high, &pd->size);
    take_trimmed<identify::product>(pd->product_id, text);
    take_trimmed<identify::firmware>(pd->code_level, text);
    take_trimmed<identify::fru>(pd->fru, text);
    take_trimmed<identify::dummy>(pd->dummy, text);
    take_trimmed<identify::serial>(pd->device_serial, text);
    take_trimmed<identify::vendor>(pd->vendor_id, text);
    pd->smart_enabled = is_smart_enabled(data, length);
    pd->smart_supported = is_smart_supported(data, length);
    TRACE_PRINT(
        "drive inforatmion: pid:*%s*,code_level:*%s*,fru:*%s*,part:*%s*,serial number;*%s*,VendorID:%s",
        pd->product_id, pd->code_level, pd->fru, pd->dummy, pd->device_serial, pd->vendor_id);
    TRACE_PRINT("major number:%d,minor number:%d,smart_enabled:%d,smart_support:%d",
                load_le16(page + identify::word(80)), load_le16(page + identify::word(81)), pd->smart_enabled,
                pd->smart_supported);
    TRACE_PRINT("Exiting %s", __func__);
}

uint16_t is_smart_supported(const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    const uint16_t word82 = load_le16(bytes_of(data) + identify::word(82));
    const uint16_t word83 = load_le16(bytes_of(data) + identify::word(83));
    TRACE_PRINT("word82:0x%X, word83:0x%X", word82, word83);
    const uint16_t supported = smart_bit(word82, word83);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, supported);
    return supported;
}

uint16_t is_smart_enabled(const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    const uint16_t word85 = load_le16(bytes_of(data) + identify::word(85));
    const uint16_t word87 = load_le16(bytes_of(data) + identify::word(87));
    TRACE_PRINT("word85:0x%X, word87:0x%X", word85, word87);
    const uint16_t enabled = smart_bit(word85, word87);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, enabled);
    return enabled;
}

void parse_scsi_capacity_16(_pd_info* pd, const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    pd->lba_high = load_be32(bytes_of(data));
    pd->lba_low = load_be32(bytes_of(data) + 4);
    TRACE_PRINT("Exiting %s", __func__);
}

void parse_scsi_capacity_10(_pd_info* pd, const void* data, uint32_t /*length*/) {
    TRACE_PRINT("Entering %s", __func__);
    pd->lba_high = 0;
    pd->lba_low = load_be32(bytes_of(data));
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
