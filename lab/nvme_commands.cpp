// NVMe admin commands of a drive (NVMe 1.4, clause 5).
#include "commands.h"
#include "pages.h"
#include "run.h"

namespace mirvok::lab {

namespace {

// Status code type, status code and the Do Not Retry bit, as the driver returns them.
constexpr uint32_t invalid_opcode = 0x4001;
constexpr uint32_t invalid_field = 0x4002;
constexpr uint32_t invalid_namespace = 0x400B;
constexpr uint32_t invalid_slot = 0x4106;
constexpr uint32_t invalid_image = 0x4107;
constexpr uint32_t invalid_log_page = 0x4109;

constexpr uint32_t op_get_log_page = 0x02;
constexpr uint32_t op_identify = 0x06;
constexpr uint32_t op_commit = 0x10;
constexpr uint32_t op_download = 0x11;

reply status(uint32_t value) {
    reply r;
    r.status = value;
    return r;
}

reply page_reply(const drive& d, const std::string& name, uint32_t length, uint32_t refusal) {
    reply r;
    r.data = page_of(d, name, length);
    return r.data.empty() ? status(refusal) : r;
}

reply run_identify(const drive& d, const nvme_command& c) {
    const bool of_controller = c.cdw10 == 1;
    if (c.cdw10 > 1 || c.cdw11 != 0 || c.length != 4096) {
        return status(invalid_field);
    }
    if (c.nsid != (of_controller ? 0 : 1)) {
        return status(invalid_namespace);
    }
    return page_reply(d, of_controller ? "controller" : "namespace", c.length, invalid_field);
}

reply run_get_log_page(const drive& d, const nvme_command& c) {
    const uint64_t dwords = (static_cast<uint64_t>(c.cdw11 & 0xFFFF) << 16 | c.cdw10 >> 16) + 1;
    if (dwords * 4 != c.length || c.cdw11 > 0xFFFF || (c.cdw10 & 0xFF00) != 0) {
        return status(invalid_field);
    }
    if (c.nsid != 0xFFFFFFFF) {
        return status(invalid_namespace);
    }
    return page_reply(d, name_of(c), c.length, invalid_log_page);
}

reply run_firmware_download(drive& d, const nvme_command& c) {
    const bool agrees = c.nsid == 0 && (static_cast<uint64_t>(c.cdw10) + 1) * 4 == c.length;
    return status(agrees && !refuses(d, "download") && take_piece(d, c.cdw11 * uint64_t{4}, c.data)
                      ? 0
                      : invalid_field);
}

// Commit action 1: the image becomes current at the next controller reset, which is the lab's next run.
reply run_firmware_commit(drive& d, const nvme_command& c) {
    if ((c.cdw10 & 7) != 0) {
        return status(invalid_slot);
    }
    if (c.cdw10 != 1 << 3 || c.cdw11 != 0 || c.nsid != 0 || c.length != 0) {
        return status(invalid_field);
    }
    const auto done = static_cast<uint32_t>(number_of(d.self, "commit_status", 0));
    return status(activate(d, "next_level") ? done : invalid_image);
}

}  // namespace

direction way_of(const nvme_command& c) {
    return c.length == 0 ? direction::none : (c.opcode & 3) == 1 ? direction::out : direction::in;
}

std::string name_of(const nvme_command& c) {
    const auto low = static_cast<uint8_t>(c.cdw10);
    switch (c.opcode) {
        case op_identify:
            return c.cdw10 == 1 ? "controller" : c.cdw10 == 0 ? "namespace" : "identify-" + hex_of(&low, 1);
        case op_get_log_page:
            return "log" + hex_of(&low, 1);
        case op_download:
            return "download";
        case op_commit:
            return "commit";
        default:
            return "nvme-" + hex_number(c.opcode);
    }
}

reply answer(drive& d, const nvme_command& c) {
    switch (c.opcode) {
        case op_identify:
            return run_identify(d, c);
        case op_get_log_page:
            return run_get_log_page(d, c);
        case op_download:
            return run_firmware_download(d, c);
        case op_commit:
            return run_firmware_commit(d, c);
        default:
            return status(invalid_opcode);
    }
}

reply run_nvme(drive& d, const std::string& node, const nvme_command& c) {
    return run_with_faults(d, node, name_of(c), c.length, [&] { return answer(d, c); });
}

}  // namespace mirvok::lab
