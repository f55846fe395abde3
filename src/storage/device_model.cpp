#include "storage/device_model.h"

namespace mirvok {

_ctrl_info ctrllist[max_controllers];
_pd_info pdlist[max_drives];
serial_number_entry sno_list[max_drives];
uint32_t sno_count = 0;

const char sas_vendorIDs[3][16] = {"VELTRA-X", "VELTRA", "KRV-ZSQS"};
const char sata_vendorIDs[2][4] = {"VTR", "KRV"};

}  // namespace mirvok
