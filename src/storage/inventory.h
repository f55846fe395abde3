// The inventory: the controllers of every kind and their drives, listed into the two tables in a fixed order.
// A step that fails only leaves its controllers or drives out.
#pragma once

#include "storage/device_model.h"

namespace mirvok {

// Builds the inventory into zero-filled tables. What was found is in lib->ctrl_count and lib->pd_count.
void init_storage_lib(_storage_lib* lib);

// Releases the libraries and forgets the tables; counts and table contents stay.
void un_init_storage_lib(_storage_lib* lib);

// Lists the controllers of every loaded storelib library. Returns the result of the last listing, 0 without
// any.
int get_ctrl_lists_avago(_storage_lib* lib);

// Lists the Marvell adapters that are present, as far as there is room. Returns 0, or why their number is
// unknown.
int get_ctrl_lists_mv(_storage_lib* lib);

// Append one pseudo-controller each; one that does not fit is left out.
void init_host_csmi(_storage_lib* lib);
void init_host(_storage_lib* lib);
void init_nvme(_storage_lib* lib);

// Lists the drives of every listed controller, in table order. Returns the result of the last listing.
int get_pd_list(_storage_lib* lib);

}  // namespace mirvok
