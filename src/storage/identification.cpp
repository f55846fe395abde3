#include "storage/identification.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "common/crew.h"
#include "common/diagnostics.h"
#include "common/signals.h"
#include "common/text.h"
#include "profiles/drive_sizes.h"
#include "raid/marvell_devices.h"
#include "raid/storelib_devices.h"
#include "storage/drive_node.h"
#include "storage/drive_paths.h"
#include "storage/drive_turns.h"
#include "transport/command_results.h"
#include "transport/nvme_data.h"
#include "transport/routing.h"
#include "transport/scsi_ata_data.h"

namespace mirvok {

namespace {

constexpr uint32_t page_size = 512;
constexpr uint32_t nvme_identify_size = 4096;
constexpr uint32_t nvme_log_size = 1024;

constexpr uint8_t vpd_page_c4 = 0xC4;
constexpr uint8_t smart_log_b0 = 0xB0;
constexpr uint16_t nvme_log_health = 0x02;
constexpr uint16_t nvme_log_firmware_slots = 0x03;
constexpr uint16_t nvme_log_vendor = 0xE0;

// A read that the transport calls a success but that brought no data counts as a failure.
constexpr int brought_nothing = 1;

// Data that do not reach to byte `needed` are none.
int read_scsi(_pd_info* pd, uint16_t code, uint32_t page, void* data, uint32_t size, uint32_t needed = 0) {
    _scsi_cmd_in in = {};
    _scsi_cmd_out out = {};
    std::memset(data, 0, size);
    int rc = set_scsi_command(pd, code, &in, 0, page, 0, data, size);
    if (rc == 0) {
        rc = read_scsi_command(pd, &in, &out);
    }
    return rc == 0 && needed > 0 && !has_data_up_to(needed, data, out.received) ? brought_nothing : rc;
}

// ATA commands always travel as ATA PASS-THROUGH.
int read_ata(_pd_info* pd, uint16_t code, uint16_t address, void* data, uint32_t size, uint32_t needed = 0) {
    _ata_cmd_in ata = {};
    _scsi_cmd_in in = {};
    _scsi_cmd_out out = {};
    int rc = set_ata_command(pd, code, &ata, address, 0, data, size);
    if (rc == 0) {
        rc = set_ata_scsi_command(pd, &in, &ata);
    }
    if (rc == 0) {
        rc = read_scsi_command(pd, &in, &out);
    }
    return rc == 0 && needed > 0 && !has_data_up_to(needed, data, out.received) ? brought_nothing : rc;
}

// again: it may be sent once more.
int perform_ata(_pd_info* pd, const _ata_cmd_in* ata, bool again = false) {
    _scsi_cmd_in in = {};
    const int rc = set_ata_scsi_command(pd, &in, ata);
    return rc != 0 ? rc : perform_scsi_command(pd, &in, again);
}

int read_nvme(_pd_info* pd, uint16_t code, uint16_t selector, void* data, uint32_t size) {
    _nvme_cmd_in in = {};
    _nvme_cmd_out out = {};
    const int rc = set_nvme_command(pd, code, &in, data, size, selector, 0, nullptr);
    return rc != 0 ? rc : send_nvme_command(pd, code, &in, &out);
}

int identify_sata(_pd_info* pd) {
    const int rc = get_pd_indentify(pd);
    return rc != 0 ? rc : get_pd_inquery_b0(pd);
}

int identify_nvme_by_scsi(_pd_info* pd) {
    get_pd_inquery_0(pd);
    const int rc = get_nvme_identify(pd);
    return rc != 0 ? rc : get_nvme_log(pd);
}

int identify_sas(_pd_info* pd) {
    const int rc = get_pd_inquery_c4(pd);
    return rc != 0 ? rc : get_pd_capacity(pd);
}

void take_vendor_page(_pd_info* pd, const nvme_device_info& info) {
    // The manufacturer's text is kept short, whatever room the field has.
    constexpr size_t vendor_id_length = 15;
    copy_text(pd->serial_number, info.serial_number_11s);
    copy_text(pd->device_serial, info.serial_number_supplier);
    copy_text(pd->part_number, info.master_drive_pn_11s);
    pd->c4_valid = 1;
    copy_field(pd->vendor_id, info.manufacturer, sizeof(info.manufacturer), vendor_id_length);
    if (info.revision > 3) {
        copy_text(pd->fru, info.fru);
        copy_text(pd->dummy, info.dummy);
        copy_text(pd->part_number_8s, info.master_pn_8s);
        TRACE_PRINT("8s:%s,11s:%s", pd->part_number_8s, pd->part_number);
    }
}

}  // namespace

int get_pd_information(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    const int rc = path_of(pd->ctrl).identify(pd);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int identify_avago(_pd_info* pd) {
    get_pd_info_avago(pd);
    const int rc = get_pd_inquery_0(pd);
    if (rc != 0) {
        return rc;
    }
    switch (drive_kind(pd->protocol)) {
        case DRIVE_SAS:
            return identify_sas(pd);
        case DRIVE_SATA:
            return identify_sata(pd);
        default:
            return rc;
    }
}

int identify_mv(_pd_info* pd) {
    const int rc = get_pd_indentify(pd);
    if (rc != 0) {
        // The list's level may be cut, and a cut level compares as lower than the drive's own.
        pd->fw_download_not_allowed = std::strlen(pd->code_level) >= listed_level_width ? 1 : 0;
        return rc;
    }
    return get_pd_inquery_b0(pd);
}

int identify_host(_pd_info* pd) {
    bool sata = false;
    const int rc = with_open_node(pd, 0, [pd, &sata] {
        const int inquiry = get_pd_inquery_0(pd);
        const drive_kind_t kind = drive_kind(pd->protocol);
        sata = kind == DRIVE_SATA;
        return sata ? identify_sata(pd) : kind == DRIVE_NVME ? identify_nvme_by_scsi(pd) : inquiry;
    });
    if (sata && rc != 0) {
        TRACE_PRINT("get identify fail.");
        return RESULT_IDENTIFY_FAILED;
    }
    return rc;
}

int identify_nvme(_pd_info* pd) {
    return with_open_node(pd, 0, [pd] {
        if (get_nvme_identify(pd) == 0) {
            return get_nvme_log(pd);
        }
        TRACE_PRINT("NVME get identify fail");
        return get_pd_inquery_0(pd);
    });
}

int get_pd_inquery_0(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t data[page_size];
    const int rc = read_scsi(pd, SCSI_INQUIRY, 0, data, sizeof(data), inquiry_needed);
    if (rc == 0) {
        parse_inquery(pd, data, sizeof(data));
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_pd_inquery_c4(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t data[page_size];
    const int rc = read_scsi(pd, SCSI_INQUIRY, vpd_page_c4, data, sizeof(data));
    if (rc == 0) {
        parse_vpd_c4(pd, data, sizeof(data));
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_pd_capacity(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t capacity_16[32];
    uint8_t capacity_10[8];
    int rc = read_scsi(pd, SCSI_READ_CAPACITY_16, 0, capacity_16, sizeof(capacity_16));
    if (rc == 0) {
        parse_scsi_capacity_16(pd, capacity_16, sizeof(capacity_16));
    } else {
        rc = read_scsi(pd, SCSI_READ_CAPACITY_10, 0, capacity_10, sizeof(capacity_10));
        if (rc == 0) {
            parse_scsi_capacity_10(pd, capacity_10, sizeof(capacity_10));
        }
    }
    if (rc == 0) {
        TRACE_PRINT("lbal:%lXh, lbah:%lXh", static_cast<unsigned long>(pd->lba_low),
                    static_cast<unsigned long>(pd->lba_high));
        rc = find_drive_size1(pd->lba_low, pd->lba_high, &pd->size);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_pd_indentify(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t data[page_size] = {};
    const int rc = read_ata(pd, ATA_IDENTIFY_DEVICE, 0, data, sizeof(data), identify_needed);
    if (rc == 0) {
        parse_identify(pd, data, sizeof(data));
    }
    if (get_jobs() < 2) {
        std::fflush(stdout);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_pd_inquery_b0(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t data[page_size] = {};
    drive_turn* turn = begin_turn(pd);
    if (turn != nullptr && turn->smart_was_off && pd->smart_enabled != 0) {
        get_pd_indentify(pd);  // SMART may have been on for the time of the other node's turn
    }
    begin_unbroken_sequence();
    enable_smart(pd);
    const int rc = read_ata(pd, ATA_SMART_READ_LOG, smart_log_b0, data, sizeof(data));
    if (rc == 0) {
        parse_vpd_b0(pd, data, sizeof(data));
    }
    const bool off = disable_smart(pd) == 0 && pd->smart_enabled_saved == 0;
    end_unbroken_sequence();
    if (turn != nullptr) {
        turn->smart_was_off = off;
        end_turn(turn);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

uint16_t enable_smart(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    // A drive that leaves open whether SMART is on is left alone: to switch it off again might be wrong.
    pd->smart_enabled_saved = pd->smart_enabled;
    if (pd->smart_enabled == 0) {
        if (able_ata_smart(pd, 1) != 0) {
            TRACE_PRINT("ATA SMART enable fail");
        } else {
            get_pd_indentify(pd);
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, pd->smart_enabled);
    return pd->smart_enabled;
}

int disable_smart(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    if (pd->smart_enabled_saved == 0) {
        rc = able_ata_smart(pd, 0);
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int able_ata_smart(_pd_info* pd, uint16_t enable) {
    TRACE_PRINT("Entering %s", __func__);
    const uint16_t code = enable != 0 ? ATA_SMART_ENABLE_OPERATIONS : ATA_SMART_DISABLE_OPERATIONS;
    _ata_cmd_in ata = {};
    int rc = set_ata_command(pd, code, &ata, 0, 0, nullptr, 0);
    if (rc == 0) {
        rc = perform_ata(pd, &ata);
        if (rc != 0) {
            // Linux's own ATA layer takes no data-in command without data.
            ata.direction = IO_DIR_NONE;
            rc = perform_ata(pd, &ata, true);
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_nvme_identify(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t data[nvme_identify_size];
    nvme_device_info info = {};
    int rc = read_nvme(pd, NVME_IDENTIFY_CONTROLLER, 0, data, sizeof(data));
    // The driver does not tell how much came into the cleared buffer: zeros from there on are none.
    constexpr uint32_t last_needed = controller_needed - 1;
    if (rc == 0 && is_zero(data + last_needed, sizeof(data) - last_needed)) {
        rc = brought_nothing;
    }
    if (rc == 0) {
        parse_nvme_page(NVME_PAGE_IDENTIFY_CONTROLLER, &info, data, sizeof(data));
        copy_text(pd->product_id, info.model);
        copy_text(pd->dummy, info.dummy);
        copy_text(pd->fru, info.fru);
        copy_text(pd->code_level, info.fw_version);
        copy_text(pd->device_serial, info.serial_number);
    }
    TRACE_PRINT("pd product id:%s", pd->product_id);
    if (read_nvme(pd, NVME_IDENTIFY_NAMESPACE, 0, data, sizeof(data)) == 0) {
        info = {};
        parse_nvme_page(NVME_PAGE_IDENTIFY_NAMESPACE, &info, data, sizeof(data));
        pd->nvme_lba_count = info.namespace_size;
        if (pd->nvme_lba_count != 0) {
            find_drive_size1(static_cast<uint32_t>(pd->nvme_lba_count),
                             static_cast<uint32_t>(pd->nvme_lba_count >> 32), &pd->size);
        }
    }
    TRACE_PRINT("lba:%lXh", static_cast<unsigned long>(pd->nvme_lba_count));
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_nvme_log(_pd_info* pd) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t data[nvme_log_size];
    nvme_device_info info = {};
    int rc = read_nvme(pd, NVME_GET_LOG_PAGE, nvme_log_vendor, data, sizeof(data));
    if (rc == 0) {
        parse_nvme_page(NVME_PAGE_VENDOR_E0, &info, data, sizeof(data));
        if (info.e0_available == 1) {
            take_vendor_page(pd, info);
        }
    }
    // Of these two the trace tells, and of the first the report, too.
    for (const uint16_t log : {nvme_log_firmware_slots, nvme_log_health}) {
        rc = read_nvme(pd, NVME_GET_LOG_PAGE, log, data, sizeof(data));
        if (rc == 0) {
            info = {};
            parse_nvme_smart_data(&info, data);
        }
        if (rc == 0 && log == nvme_log_firmware_slots) {
            take_next_level(pd->next_level, data);
            pd->next_level_valid = 1;
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
