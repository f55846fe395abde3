// The drive listings of the three pseudo-controllers: SATA drives on /dev/sg%d, NVMe drives on /dev/nvme%d,
// and the empty listing of the CSMI path. Each fills at most `max` records from `pd` on and adds its drives
// to the controller's pd_count; no handle stays open.
#pragma once

#include "storage/device_model.h"

namespace mirvok {

// Probes /dev/sg0 to /dev/sg(max-1). Returns the result of the last INQUIRY.
int get_pd_list_host(_ctrl_info* ctrl, _pd_info* pd, uint32_t max);

// Probes /dev/nvme0 to /dev/nvme(max-1). Returns 0.
int get_pd_list_nvme(_ctrl_info* ctrl, _pd_info* pd, uint32_t max);

// Lists nothing and changes nothing. Returns 0.
int get_pd_list_csmi(_ctrl_info* ctrl, _pd_info* pd, uint32_t max);

// Says on standard error how many nodes the listings since the last call found and could not open, and why;
// nothing when there were none.
void report_unopened_nodes();

}  // namespace mirvok
