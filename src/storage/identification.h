// Drive identification: what a drive tells of itself over its path, taken over into its record.
#pragma once

#include "storage/device_model.h"

namespace mirvok {

// Identifies one drive by its controller's path and its protocol. Callers act on RESULT_IDENTIFY_FAILED
// alone; with every other result the drive goes on with the fields that it has.
int get_pd_information(_pd_info* pd);

// The ways of the paths, with the same results.
int identify_avago(_pd_info* pd);
int identify_mv(_pd_info* pd);
int identify_host(_pd_info* pd);
int identify_nvme(_pd_info* pd);

// Each sends its commands along the drive's path and returns the send result, 0 for success. On the host and
// NVMe paths the drive's handle must be open.
int get_pd_inquery_0(_pd_info* pd);
int get_pd_inquery_c4(_pd_info* pd);
int get_pd_indentify(_pd_info* pd);
int get_nvme_identify(_pd_info* pd);
int get_nvme_log(_pd_info* pd);

// READ CAPACITY (16), or (10) where that fails, and the size lookup. Returns the lookup's answer (1 found, 0
// not), or the failed command's code.
int get_pd_capacity(_pd_info* pd);

// The maker's SMART log B0h, with SMART switched on around it and left as it was found.
int get_pd_inquery_b0(_pd_info* pd);

// Switches SMART on when it is off (and identifies the drive again); returns smart_enabled.
uint16_t enable_smart(_pd_info* pd);

// Switches SMART off again when it was off before enable_smart.
int disable_smart(_pd_info* pd);

// SMART ENABLE OPERATIONS (enable not 0) or SMART DISABLE OPERATIONS (ACS-3, 7.48.4 and 7.48.2).
int able_ata_smart(_pd_info* pd, uint16_t enable);

}  // namespace mirvok
