// --match FIELD=GLOB: which drives an operation is for, by what the drives say of themselves. The option may
// be given again; all must hold.
#pragma once

#include "storage/device_model.h"

namespace mirvok {

// Takes an argument of the command line that begins with "--m"; any other is none of ours. `next` is the
// argument behind it, or null. Both must outlive the run. The first that cannot be read is said on standard
// error.
void take_match(const char* argument, const char* next);

// False when an argument could not be read: then no drive may be touched.
bool matches_are_read();

// Whether an identified drive is among those that are meant. A field that is null is like no pattern.
bool is_meant(const _pd_info* pd);

// Whether the option was given and no drive was meant, which then is said on standard error.
bool complain_of_no_match();

}  // namespace mirvok
