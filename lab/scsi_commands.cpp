// SCSI and ATA commands of a drive. Public layouts: SPC-4, SBC-3, SAT-3 and ACS-3.
#include <algorithm>
#include <utility>

#include "commands.h"
#include "common/bytes.h"
#include "pages.h"
#include "run.h"

namespace mirvok::lab {

namespace {

constexpr uint8_t op_inquiry = 0x12;
constexpr uint8_t op_capacity10 = 0x25;
constexpr uint8_t op_write_buffer = 0x3B;
constexpr uint8_t op_log_sense = 0x4D;
constexpr uint8_t op_capacity16 = 0x9E;
constexpr uint8_t op_ata12 = 0xA1;

constexpr uint8_t ata_download = 0x92;
constexpr uint8_t ata_smart = 0xB0;
constexpr uint8_t ata_identify = 0xEC;

constexpr uint8_t check_condition_status = 0x02;

// The registers as ATA PASS-THROUGH (12) carries them (SAT-3, 12.2.2).
struct ata_registers {
    uint8_t features, count, low, mid, high, device, command;
};

ata_registers registers_of(const bytes& cdb) {
    return {cdb[3], cdb[4], cdb[5], cdb[6], cdb[7], cdb[8], cdb[9]};
}

std::string hex_byte(const char* prefix, uint8_t value) {
    return prefix + hex_of(&value, 1);
}

std::string ata_name(const ata_registers& r) {
    if (r.command == ata_identify) {
        return "identify";
    }
    if (r.command == ata_download) {
        return "download";
    }
    if (r.command != ata_smart) {
        return hex_byte("ata-", r.command);
    }
    switch (r.features) {
        case 0xD0:
            return "smart-data";
        case 0xD5:
            return r.low == 0xB0 ? "b0" : hex_byte("smart-log-", r.low);
        case 0xD8:
            return "smart-enable";
        case 0xD9:
            return "smart-disable";
        case 0xDA:
            return "smart-status";
        default:
            return hex_byte("smart-", r.features);
    }
}

reply invalid_field() {
    return check_condition(0x05, 0x24, 0x00);
}

// The drive's registers in the sense data (SAT-3, 12.2.2.6 and 12.2.2.7), as CK_COND or an abort brings them.
reply ata_sense(const drive& d, uint8_t key, uint8_t ascq, uint8_t error, const ata_registers& r) {
    const auto status = static_cast<uint8_t>(error != 0 ? 0x51 : 0x50);
    reply result;
    result.status = check_condition_status;
    if (text_of(d.self, "sense", "descriptor") == "fixed") {
        result.sense = {0x70,  0,     key,    error, status, r.device, r.count, 0x0A, 0,
                        r.low, r.mid, r.high, 0,     ascq,   0,        0,       0,    0};
    } else {
        result.sense = {0x72,  key, 0,       ascq, 0,     0, 0,     14, 9,      12,       0,
                        error, 0,   r.count, 0,    r.low, 0, r.mid, 0,  r.high, r.device, status};
    }
    return result;
}

reply aborted(const drive& d) {
    return ata_sense(d, 0x0B, 0x00, 0x04, {});
}

// Protocol, T_DIR, BYT_BLOK and T_LENGTH agree with the way and the amount of the data.
bool transfer_agrees(const scsi_command& c, const ata_registers& r) {
    const uint32_t blocks = r.count + (r.command == ata_download ? r.low * 256U : 0U);
    const unsigned flags = c.cdb[2] & 0x0F;
    switch (c.cdb[1]) {
        case 3 << 1:
            return c.way == direction::none && (flags & 0x03) == 0 && blocks == 0;
        case 4 << 1:
            return c.way == direction::in && flags == 0x0E && blocks * 512 == c.length;
        case 5 << 1:
            return c.way == direction::out && flags == 0x06 && blocks == (c.length + 511) / 512;
        default:
            return false;
    }
}

reply page_reply(const drive& d, const std::string& name, uint32_t length, const reply& refusal) {
    reply r;
    r.data = page_of(d, name, length);
    return r.data.empty() ? refusal : r;
}

reply run_smart(drive& d, const ata_registers& r, const scsi_command& c) {
    const std::string name = ata_name(r);
    const bool data = name == "smart-data" || r.features == 0xD5;
    if (r.mid != 0x4F || r.high != 0xC2 || r.device != 0 || r.count != (data ? 1 : 0) ||
        text_of(d.self, "smart", "on") == "unsupported" || (name != "smart-enable" && !smart_on(d)) ||
        refuses(d, name)) {
        return aborted(d);
    }
    if (data) {
        return page_reply(d, name, c.length, aborted(d));
    }
    if (name == "smart-enable" || name == "smart-disable") {
        remember(d, "smart", name == "smart-enable");
        return {};
    }
    if (name != "smart-status" || c.way != direction::none) {
        return aborted(d);
    }
    const bool exceeded = d.self.value("pfa", false);
    ata_registers back = r;
    back.mid = exceeded ? 0xF4 : 0x4F;
    back.high = exceeded ? 0x2C : 0xC2;
    return (c.cdb[2] & 0x20) != 0 ? ata_sense(d, 0x01, 0x1D, 0, back) : reply{};
}

// Both kinds of download: in pieces at offsets, or whole. The drive is renewed with the last byte.
reply run_download(drive& d, bool whole, uint32_t offset, const bytes& piece, const reply& refusal) {
    if (refuses(d, "download") || (whole && offset != 0) || !take_piece(d, offset, piece)) {
        return refusal;
    }
    activate(d, "level");
    return {};
}

// ACS-3, DOWNLOAD MICROCODE: subcommand 3 brings pieces, 7 the whole image; offset and count are blocks of
// 512 bytes.
reply run_download_microcode(drive& d, const ata_registers& r, const scsi_command& c) {
    if ((r.features != 3 && r.features != 7) || r.device != 0 || c.way != direction::out) {
        return aborted(d);
    }
    return run_download(d, r.features == 7, (r.high * 256U + r.mid) * 512U, c.data, aborted(d));
}

// SPC-4, 6.49: mode 7 brings pieces, mode 5 the whole image.
reply run_write_buffer(drive& d, const scsi_command& c) {
    const uint8_t mode = c.cdb[1];
    if (text_of(d.self, "protocol", "") == "sata") {
        return check_condition(0x05, 0x20, 0x00);
    }
    if (c.cdb.size() < 10 || (mode != 5 && mode != 7) || c.cdb[2] != 0 || c.way != direction::out ||
        load_be24(&c.cdb[6]) != c.length || !all_zero(c.cdb, 9, c.cdb.size())) {
        return invalid_field();
    }
    return run_download(d, mode == 5, load_be24(&c.cdb[3]), c.data, invalid_field());
}

reply run_ata(drive& d, const scsi_command& c) {
    const ata_registers r = registers_of(c.cdb);
    if (text_of(d.self, "protocol", "") != "sata") {
        return check_condition(0x05, 0x20, 0x00);
    }
    // The kernel's own ATA layer refuses data-in without data.
    const bool refused = d.self.value("kernel_ata", false) && c.way == direction::in && c.length == 0;
    if (c.cdb.size() != 12 || c.cdb[10] != 0 || c.cdb[11] != 0 || !transfer_agrees(c, r) || refused) {
        return invalid_field();
    }
    if (r.command == ata_smart) {
        return run_smart(d, r, c);
    }
    if (r.command == ata_download) {
        return run_download_microcode(d, r, c);
    }
    if (r.command == ata_identify && c.way == direction::in && r.count == 1) {
        return page_reply(d, "identify", c.length, aborted(d));
    }
    return aborted(d);
}

struct input_row {
    uint8_t opcode, cdb_length;
    uint8_t allocation_at, allocation_width;  // where the CDB says how much it takes
    uint8_t zero_from, zero_to;               // bytes that must be zero
};

constexpr input_row input_rows[] = {
    {op_inquiry, 6, 3, 2, 5, 6},
    {op_capacity10, 10, 0, 0, 1, 10},
    {op_capacity16, 16, 10, 4, 2, 10},
    {op_log_sense, 10, 7, 2, 3, 7},
};

// Commands whose data comes from the drive. The allocation length must be what the caller makes room for.
reply run_input(const drive& d, const scsi_command& c) {
    const auto* const row =
        std::ranges::find_if(input_rows, [&](const input_row& r) { return r.opcode == c.cdb[0]; });
    if (row == std::end(input_rows)) {
        return check_condition(0x05, 0x20, 0x00);
    }
    uint32_t allocation = row->allocation_width == 0 ? 8 : 0;
    for (size_t i = 0; i < row->allocation_width; ++i) {
        allocation = allocation << 8 | c.cdb.at(row->allocation_at + i);
    }
    const bool action = c.cdb[0] == op_inquiry      ? c.cdb[1] == (c.cdb[2] != 0 ? 1 : 0)
                        : c.cdb[0] == op_capacity16 ? c.cdb[1] == 0x10
                                                    : c.cdb[1] == 0;
    const bool current = c.cdb[0] != op_log_sense || (c.cdb[2] & 0xC0) == 0x40;
    if (c.cdb.size() != row->cdb_length || c.way != direction::in || allocation != c.length || !action ||
        !current || !all_zero(c.cdb, row->zero_from, row->zero_to) || c.cdb.back() != 0) {
        return invalid_field();
    }
    const std::string name = name_of(c);
    return page_reply(d, name, c.length, check_condition(0x05, name.starts_with("cap") ? 0x20 : 0x24, 0x00));
}

}  // namespace

reply check_condition(uint8_t key, uint8_t asc, uint8_t ascq) {
    reply r;
    r.status = check_condition_status;
    r.sense = {0x70, 0, key, 0, 0, 0, 0, 10, 0, 0, 0, 0, asc, ascq, 0, 0, 0, 0};
    return r;
}

std::string name_of(const scsi_command& c) {
    switch (c.cdb[0]) {
        case op_inquiry:
            return (c.cdb[1] & 1) == 0 ? "inquiry" : c.cdb[2] == 0xC4 ? "c4" : hex_byte("vpd-", c.cdb[2]);
        case op_capacity10:
            return "capacity10";
        case op_capacity16:
            return "capacity16";
        case op_write_buffer:
            return "download";
        case op_log_sense:
            return hex_byte("log", c.cdb[2] & 0x3F);
        case op_ata12:
            return c.cdb.size() == 12 ? ata_name(registers_of(c.cdb)) : "ata-short";
        default:
            return hex_byte("scsi-", c.cdb[0]);
    }
}

reply answer(drive& d, const scsi_command& c) {
    return c.cdb[0] == op_ata12 && c.cdb.size() >= 12 ? run_ata(d, c)
           : c.cdb[0] == op_write_buffer              ? run_write_buffer(d, c)
                                                      : run_input(d, c);
}

reply run_scsi(drive& d, const std::string& node, const scsi_command& c) {
    return run_with_faults(d, node, name_of(c), c.length, [&] {
        if (d.attention != 0 && c.cdb[0] != op_inquiry) {  // INQUIRY leaves it waiting (SPC-4, 5.14)
            const uint16_t code = std::exchange(d.attention, uint16_t{0});
            return check_condition(0x06, static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code));
        }
        return answer(d, c);
    });
}

}  // namespace mirvok::lab
