// The request that carries a command to a drive behind a Marvell adapter, byte for byte.
#include "raid/marvell_devices.h"

#include "raid/marvell_library.h"
#include "support/drive_node.h"
#include "transport/command_results.h"

using namespace mirvok;

namespace {

uint8_t result;
bytes request;  // the first 80 bytes, as they came

// Answers with bytes of the sense data and of the data.
uint8_t pass_through(uint8_t adapter, uint8_t device, uint8_t* content) {
    EXPECT_EQ(adapter * 256 + device, 0x0307);
    request.assign(content, content + std::min(80, 64 + content[16] + 256 * content[17]));
    content[24] = 0x70;
    content[55] = 0x5E;
    content[56] = 0xDA;
    return result;
}

TEST(MarvellDevices, ACommandTravelsInARequest) {
    marvell_entries[ENTRY_PASS_THROUGH_SCSI] = reinterpret_cast<void*>(pass_through);
    static uint8_t data[65536] = "123456789";
    const std::string cdb = "11 12 13 14 15 16 00 00 00 00 00 00 00 00 00 00 ";
    struct {
        io_direction_t direction;
        uint32_t length;
        const char* header;  // length, direction, length of the CDB, CRC
        const char* data;
    } const rows[] = {
        {IO_DIR_OUT, 9, "09 00 00 06 D9 C6 0B 34", "31 32 33 34 35 36 37 38 39"},
        {IO_DIR_OUT, 0, "00 00 00 06 FF FF FF FF", ""},
        {IO_DIR_NONE, 0, "00 00 01 06", ""},
        {IO_DIR_IN, 9, "09 00 01 06", ""},
        {IO_DIR_IN, 65471, "BF FF 01 06", ""},
    };
    for (const auto& row : rows) {
        for (const uint8_t rc : bytes{0, 2}) {
            played_drive drive(VENDOR_MV, PD_PROTOCOL_M2);
            drive.ctrl.ctrl_id = 3;
            drive.pd.device_id = 7;
            _scsi_cmd_in in = {};
            const bytes commands = hex("11 12 13 14 15 16 17");
            std::copy(commands.begin(), commands.end(), in.cdb);
            in.cdb_length = 6;
            in.direction = row.direction;
            in.data = data;
            in.data_length = row.length;
            _scsi_cmd_out out = {};
            data[0] = '1';
            result = rc;
            EXPECT_EQ(scsi_passthru_mv(&drive.pd, &in, &out), rc);
            const bytes expected = hex(cdb + row.header, std::min<size_t>(80, 64 + row.length));
            EXPECT_EQ(request, hex_at(56, row.data, expected)) << row.header;
            EXPECT_EQ(data[0], row.direction == IO_DIR_IN && rc == 0 ? 0xDA : '1');
            EXPECT_EQ(out.sense[0] + 256 * out.sense[31], rc == 0 ? 0 : 0x5E70);
            EXPECT_EQ(out.refused, rc != 0);
            EXPECT_EQ(out.received, row.direction == IO_DIR_IN && rc == 0 ? 1U : 0U);
        }
    }
    request.clear();
    _scsi_cmd_in in = {};
    in.data_length = 65472;
    _scsi_cmd_out out = {};
    EXPECT_EQ(scsi_passthru_mv(nullptr, &in, &out), 90012);
    EXPECT_TRUE(request.empty());
    EXPECT_EQ(count_up_to_zeros("\0", 1), 0U);
}

}  // namespace
