#include "commands/smart_collection.h"

#include "commands/smart_report.h"
#include "common/diagnostics.h"
#include "storage/drive_node.h"
#include "storage/drive_paths.h"
#include "storage/drive_turns.h"
#include "transport/command_blocks.h"
#include "transport/routing.h"

namespace mirvok {

namespace {

constexpr uint16_t nvme_health_log = 0x02;

// Sends an ATA block as ATA PASS-THROUGH. *transfer receives the transport's result; returns
// RESULT_NO_HANDLE, with nothing sent, when the drive cannot be opened.
int send_translated(_pd_info* pd, const _ata_cmd_in* ata, _scsi_cmd_out* out, int* transfer) {
    _scsi_cmd_in scsi = {};
    const int rc = set_ata_scsi_command(pd, &scsi, ata);
    return rc != 0 ? rc : with_node(pd, RESULT_NO_HANDLE, [&] {
        *transfer = read_scsi_command(pd, &scsi, out);
        return 0;
    });
}

int read_log_page(_pd_info* pd, uint8_t* buffer) {
    _scsi_cmd_in in = {};
    _scsi_cmd_out out = {};
    const int rc = set_scsi_command(pd, SCSI_LOG_SENSE, &in, 0, sas_smart_page, 0, buffer, smart_data_size);
    return rc != 0 ? rc : read_scsi_command(pd, &in, &out);
}

// A transfer that failed leaves the zeroed buffer, in which no attribute is found.
int read_smart_data(_pd_info* pd, uint8_t* buffer) {
    _ata_cmd_in in = {};
    _scsi_cmd_out out = {};
    int transfer = 0;
    const int rc = set_ata_command(pd, ATA_SMART_READ_DATA, &in, 0, 0, buffer, smart_data_size);
    return rc != 0 ? rc : send_translated(pd, &in, &out, &transfer);
}

int read_health_log(_pd_info* pd, uint8_t* buffer) {
    _nvme_cmd_in in = {};
    _nvme_cmd_out out = {};
    const int rc =
        set_nvme_command(pd, NVME_GET_LOG_PAGE, &in, buffer, smart_data_size, nvme_health_log, 0, "");
    return rc != 0 ? rc : with_open_node(pd, RESULT_NO_HANDLE, [&] {
        return send_nvme_command(pd, NVME_GET_LOG_PAGE, &in, &out);
    });
}

int read_data(_pd_info* pd, uint8_t* buffer) {
    switch (drive_kind(pd->protocol)) {
        case DRIVE_SAS:
            return read_log_page(pd, buffer);
        case DRIVE_SATA:
            return read_smart_data(pd, buffer);
        case DRIVE_NVME:
            return read_health_log(pd, buffer);
        default:
            return 0;
    }
}

void decode_data(_smart_drive* drive, const uint8_t* buffer) {
    switch (drive_kind(drive->pd->protocol)) {
        case DRIVE_SAS:
            parse_veltra_smart_info_sas(buffer, sas_smart_page, &drive->info, drive->matched_record);
            break;
        case DRIVE_SATA:
            parse_veltra_smart_info_ata(buffer, ATA_SMART_READ_DATA, &drive->info, drive->matched_record);
            get_sata_smart_return_status(drive);
            break;
        case DRIVE_NVME:
            parse_veltra_smart_info_nvme(buffer, &drive->info);
            break;
        default:
            break;
    }
}

}  // namespace

int get_drive_smart(_smart_drive* drive) {
    TRACE_PRINT("Entering %s", __func__);
    uint8_t buffer[smart_data_size] = {};
    drive->info.pfa_trip = 0;
    drive_turn* turn = drive_kind(drive->pd->protocol) == DRIVE_SATA ? begin_turn(drive->pd) : nullptr;
    const int rc = read_data(drive->pd, buffer);
    if (get_debug() != 0) {
        hexDump("log page:", buffer, sizeof(buffer));
    }
    if (rc == 0) {
        decode_data(drive, buffer);
        calculate_smart(&drive->info, drive->matched_record);
    }
    end_turn(turn);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int get_sata_smart_return_status(_smart_drive* drive) {
    TRACE_PRINT("Entering %s", __func__);
    _pd_info* pd = drive->pd;
    uint8_t status[smart_status_size] = {};
    _ata_cmd_in in = {};
    _scsi_cmd_out out = {};
    int transfer = 0;
    int rc = set_ata_command(pd, ATA_SMART_RETURN_STATUS, &in, 0, 0, status, sizeof(status));
    if (rc == 0) {
        rc = send_translated(pd, &in, &out, &transfer);
    }
    const drive_path& path = path_of(pd->ctrl);
    if (rc == 0 && !path.has_node) {
        rc = transfer;
    }
    if (rc == 0) {
        if (path.registers_in_sense) {
            take_returned_registers(out.sense, status);
        }
        parse_veltra_smart_returnStatus_sata(status, drive);
    }
    TRACE_PRINT("Exiting %s,rc=0x%X", __func__, static_cast<unsigned int>(rc));
    return rc;
}

}  // namespace mirvok
