#include "commands/smart_collection.h"

#include <cstring>

#include "common/diagnostics.h"
#include "support/records.h"

namespace mirvok {
namespace {

// The functions that the trace enters, in order.
std::string steps_of(const std::string& trace) {
    std::istringstream lines(trace);
    std::string steps;
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find("Entering ");
        if (at != std::string::npos) {
            steps += line.substr(at + 9, line.find(',') - at - 9) + " ";
        }
    }
    return steps;
}

// The CSMI path opens what it is given, /dev/null here, and sends nothing.
TEST(SmartCollection, ReadByProtocolAndPath) {
    const std::string build = "set_ata_command set_ata_scsi_command get_handle ";
    const std::string send = build + "send_scsi_command close_handle ";
    const std::string sata = send + "parse_veltra_smart_info_ata get_sata_smart_return_status " + send +
                             "parse_veltra_smart_returnStatus_sata calculate_smart ";
    const struct {
        uint32_t protocol;
        uint32_t vendor;
        const char* dev_name;
        int rc;
        bool decoded;
        std::string steps;
    } rows[] = {
        {PD_PROTOCOL_SAS, VENDOR_CSMI, "/dev/null", 0, true,
         "set_scsi_command send_scsi_command parse_veltra_smart_info_sas calculate_smart "},
        {PD_PROTOCOL_SATA, VENDOR_CSMI, "/dev/null", 0, true, sata},
        {PD_PROTOCOL_SATA_OTHER, VENDOR_CSMI, "/dev/null", 0, true, sata},
        {PD_PROTOCOL_M2, VENDOR_HOST, "/nonexistent", 999, false, build},
        {PD_PROTOCOL_NVME, VENDOR_NVME, "/nonexistent", 999, false, "set_nvme_command get_handle "},
        {PD_PROTOCOL_OTHER, VENDOR_HOST, "/dev/null", 0, true, "calculate_smart "},
    };
    set_debug(1);
    for (const auto& row : rows) {
        _ctrl_info ctrl = {};
        ctrl.vendor = row.vendor;
        _pd_info pd = {};
        pd.ctrl = &ctrl;
        pd.protocol = row.protocol;
        std::strcpy(pd.dev_name, row.dev_name);
        _smart_profile_record record = {};
        record.life_attr_id = 999;
        record.life_threshold = 1;
        record.smart_type = 1;
        _smart_drive drive = {&pd, {}, &record, {}};
        drive.info.pfa_trip = 1;
        drive.info.life_valid = 1;  // flagged by the evaluation, and only by it
        const std::string trace = output_of([&] { EXPECT_EQ(get_drive_smart(&drive), row.rc) << row.steps; });
        EXPECT_EQ(steps_of(trace), "get_drive_smart " + row.steps);
        EXPECT_EQ(drive.info.exceeded, row.decoded ? EXCEED_LIFE : 0) << row.steps;
        EXPECT_EQ(drive.info.pfa_trip, 0);
        EXPECT_EQ(drive.info.temperature_valid, (drive_kind(row.protocol) == DRIVE_SATA) && row.decoded);
        EXPECT_EQ(pd.handle, 0);
        EXPECT_NE(trace.find("log page::\n  0000  00"), std::string::npos);
    }
}

}  // namespace
}  // namespace mirvok
