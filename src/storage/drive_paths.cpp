#include "storage/drive_paths.h"

#include "raid/marvell_devices.h"
#include "raid/storelib_devices.h"
#include "storage/firmware_download.h"
#include "storage/identification.h"
#include "transport/host_scan.h"

namespace mirvok {

namespace {

int list_nothing(_ctrl_info* /*ctrl*/, _pd_info* /*pd*/, uint32_t /*max*/) {
    return 0;
}

int identify_none(_pd_info* /*pd*/) {
    return 0;
}

constexpr bool yes = true;
constexpr bool no = false;

// clang-format off
constexpr drive_path drive_paths[] = {
    // vendor      name        cap  list               identify        download        rule
    //   node  pieces  state  registers  may have nodes  waits  namespaces
    {VENDOR_HOST,  "host",     64,  get_pd_list_host,  identify_host,  download_host,  nullptr,
         yes,  yes,    no,    yes,       no,             yes,   no},
    {VENDOR_AVAGO, "storelib", 512, get_pd_list_avago, identify_avago, download_avago, &image_rule_storelib,
         no,   no,     yes,   no,        yes,            no,    no},
    {VENDOR_MV,    "marvell",  2,   get_pd_list_mv,    identify_mv,    download_mv,    &image_rule_any,
         no,   no,     no,    no,        no,             no,    no},
    {VENDOR_CSMI,  "csmi",     10,  get_pd_list_csmi,  identify_host,  download_host,  nullptr,
         yes,  yes,    no,    no,        no,             no,    no},
    {VENDOR_NVME,  "nvme",     64,  get_pd_list_nvme,  identify_nvme,  download_host,  nullptr,
         yes,  no,     no,    no,        no,             no,    yes},
};
constexpr drive_path unknown_path =
    {0,            "unknown",  0,   list_nothing,      identify_none,  download_host,  nullptr,
         yes,  no,     no,    no,        no,             no,    no};
// clang-format on

}  // namespace

const drive_path& path_of(const _ctrl_info* ctrl) {
    for (const drive_path& row : drive_paths) {
        if (row.vendor == ctrl->vendor) {
            return row;
        }
    }
    return unknown_path;
}

const image_rule& image_rule_of(const _pd_info* pd) {
    const image_rule* rule = path_of(pd->ctrl).rule;
    if (rule != nullptr) {
        return *rule;
    }
    switch (drive_kind(pd->protocol)) {
        case DRIVE_SAS:
            return image_rule_sas;
        case DRIVE_SATA:
            return image_rule_sata;
        case DRIVE_NVME:
            return image_rule_nvme;
        default:
            return image_rule_any;
    }
}

}  // namespace mirvok
