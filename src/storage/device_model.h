// The machine's storage as two flat tables: the records, their codes, the process-wide tables and the result
// codes that the storage, transport and command layers share.
#pragma once

#include <cstdint>

namespace mirvok {

// How a controller and its drives are reached; 0 marks an unused controller record.
enum vendor_t : uint32_t {
    VENDOR_HOST = 1,   // Linux SCSI generic devices, /dev/sg%d
    VENDOR_AVAGO = 2,  // storelib libraries
    VENDOR_MV = 3,     // Marvell adapter libraries
    VENDOR_CSMI = 7,   // CSMI (RSTe) pseudo-controller, lists no drives
    VENDOR_NVME = 8,   // Linux NVMe devices, /dev/nvme%d
};

// Controller types; 2 to 6 also select the storelib library that serves the controller.
enum ctrl_type_t : uint32_t {
    CTRL_TYPE_HOST = 1,
    CTRL_TYPE_MR = 2,
    CTRL_TYPE_IR = 3,
    CTRL_TYPE_IR2 = 4,
    CTRL_TYPE_IR3 = 5,
    CTRL_TYPE_IT = 6,
    CTRL_TYPE_NVME = 8,
    CTRL_TYPE_MARVELL = 9,
    CTRL_TYPE_RSTE = 10,
};

enum pd_protocol_t : uint32_t {
    PD_PROTOCOL_UNKNOWN = 0,
    PD_PROTOCOL_SAS = 1,
    PD_PROTOCOL_SATA = 2,
    PD_PROTOCOL_NVME = 4,
    PD_PROTOCOL_M2 = 5,  // SATA drive behind a Marvell adapter
    PD_PROTOCOL_SCSI = 6,
    PD_PROTOCOL_SATA_OTHER = 7,
    PD_PROTOCOL_OTHER = 8,
};

// Drive states, set for storelib drives only.
enum pd_status_t : uint16_t {
    PD_STATUS_UNKNOWN = 0,
    PD_STATUS_UNCONFIGURED_GOOD = 1,
    PD_STATUS_ONLINE = 2,
    PD_STATUS_JBOD = 3,
    PD_STATUS_OFFLINE = 4,
    PD_STATUS_HOT_SPARE = 5,
    PD_STATUS_UNCONFIGURED_BAD = 6,
    PD_STATUS_FAILED = 7,
    PD_STATUS_REBUILD = 8,
};

enum result_t : uint32_t {
    RESULT_NO_HANDLE = 999,                 // the drive's device node cannot be opened
    RESULT_NO_MEMORY = 90004,               // memory could not be allocated
    RESULT_WRONG_PAGE = 90005,              // a vendor page came back with another page code than asked
    RESULT_WRONG_REVISION = 90006,          // VPD page C4h with a revision or length that is not accepted
    RESULT_IMAGE_LOST = 90010,              // firmware image file cannot be opened
    RESULT_LEVEL_MISMATCH = 90011,          // code level after flashing differs from the expected level
    RESULT_UNKNOWN_COMMAND = 90012,         // the command builders do not know the command
    RESULT_UPDATE_NOT_ALLOWED = 90013,      // the drive's own flag refuses downloads
    RESULT_DOWNLOAD_FAILED = 90014,         // firmware download failed
    RESULT_IMAGE_UNREADABLE = 90015,        // firmware image file could not be read
    RESULT_CONTROLLER_REFUSES = 90016,      // the controller does not allow a download to this drive now
    RESULT_NO_DRIVE_INFORMATION = 90017,    // storelib could not return the drive's information
    RESULT_STATE_NOT_SUPPORTED = 90018,     // drives in this state are not updated
    RESULT_PROTOCOL_NOT_SUPPORTED = 90019,  // drive is not SAS, SATA or NVMe
    RESULT_IDENTIFY_FAILED = 90020,         // SATA identification failed on the host path
    RESULT_DRIVE_IN_USE = 90021,            // the drive is in use, or may be, and only idle ones were meant
};

constexpr uint32_t max_controllers = 64;
constexpr uint32_t max_drives = 1026;

struct _ctrl_info {
    uint32_t vendor;    // vendor_t
    uint32_t ctrl_id;   // id inside the controller's own library; 0 for the pseudo-controllers
    uint32_t ctrl_num;  // position in ctrllist, shown as "A:"
    ctrl_type_t type;
    uint16_t pd_count;  // drives listed for this controller
    // Counters of the flash report, owned by the flash command.
    uint16_t dev_found;
    uint16_t flashed_sas;
    uint16_t flashed_sata;
    uint16_t flashed_nvme;
    uint16_t failed;
    uint16_t flashed;
};

struct _pd_info {
    char dev_name[64];   // device node; empty for storelib and Marvell drives
    uint16_t device_id;  // id on the drive's path: storelib or Marvell device id, sg or nvme number
    _ctrl_info* ctrl;
    uint8_t slot_id;                   // storelib slot number
    uint8_t port_id;                   // always 0
    uint32_t protocol;                 // pd_protocol_t
    uint16_t status;                   // pd_status_t
    char dummy[32];                    // second identification text, shown between part number and FRU
    char device_serial[32];            // the serial number that the drive itself reports
    char code_level[32];               // firmware revision
    char product_id[32];               // product identification or model text
    char part_number[32];              // the maker's part number
    char part_number_8s[32];           // the maker's 8S label part number
    char serial_number[32];            // the maker's serial number, shown and de-duplicated
    char fru[16];                      // FRU number
    uint8_t c4_valid;                  // VPD page C4h (SCSI) or log page E0h (NVMe) was read and accepted
    uint8_t b0_valid;                  // SMART log B0h was read and accepted
    uint64_t nvme_lba_count;           // namespace size in logical blocks
    uint32_t lba_low;                  // SCSI: last logical block address, bits 31:0
    uint32_t lba_high;                 // SCSI: last logical block address, bits 63:32
    uint16_t size;                     // capacity in GB; 0 when unknown
    uint16_t fw_download_not_allowed;  // storelib: the drive refuses firmware downloads
    uint32_t handle;                   // open descriptor of dev_name while a command sequence runs, else 0
    uint16_t smart_enabled;            // ATA: 1 when IDENTIFY reports SMART enabled
    uint16_t smart_enabled_saved;      // smart_enabled as it was before log B0h was read
    uint16_t smart_supported;          // ATA: 1 when IDENTIFY reports SMART supported
    char vendor_id[18];                // vendor identification
    bool committed;                    // NVMe: the controller took the commit of an image
    uint8_t next_level_valid;          // NVMe: log page 03h was read
    char next_level[16];               // of the other slot that the next reset starts; empty: none
};

// One per command run, owned by the running command.
struct _storage_lib {
    _pd_info* pd_list;
    _ctrl_info* ctrl_list;
    uint32_t max_pd_count;
    uint32_t max_ctrl_count;
    uint32_t ctrl_count;  // records of ctrllist in use
    uint32_t pd_count;    // records of pdlist in use
};

// A drive that was already handled: both texts use their bytes whole, so neither needs a terminator.
struct serial_number_entry {
    char part_number[12];
    char serial_number[10];
};
static_assert(sizeof(serial_number_entry) == 22);

extern _ctrl_info ctrllist[max_controllers];
extern _pd_info pdlist[max_drives];
extern serial_number_entry sno_list[max_drives];
extern uint32_t sno_count;

// The maker's vendor identifications, compared as prefixes.
extern const char sas_vendorIDs[3][16];
extern const char sata_vendorIDs[2][4];

// What kind of drive a protocol code stands for: which commands it understands.
enum drive_kind_t { DRIVE_OTHER, DRIVE_SAS, DRIVE_SATA, DRIVE_NVME };

constexpr drive_kind_t drive_kind(uint32_t protocol) {
    switch (protocol) {
        case PD_PROTOCOL_SAS:
            return DRIVE_SAS;
        case PD_PROTOCOL_SATA:
        case PD_PROTOCOL_M2:
        case PD_PROTOCOL_SATA_OTHER:
            return DRIVE_SATA;
        case PD_PROTOCOL_NVME:
            return DRIVE_NVME;
        default:
            return DRIVE_OTHER;
    }
}

// Whether the drive's own serial number may stand in for the maker's.
constexpr bool lends_serial(uint32_t protocol) {
    return protocol == PD_PROTOCOL_SATA;
}

}  // namespace mirvok
