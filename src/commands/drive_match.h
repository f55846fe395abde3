// --match FIELD=GLOB: which drives an operation is for, by what the drives say of themselves. The option may
// be given again; all must hold.
#pragma once

#include "storage/device_model.h"

namespace mirvok {

// Takes the arguments that begin with "--m" from a command line, which must outlive the run. The first that
// cannot be read, or a FIELD=GLOB without --match, is said on standard error.
void take_matches(int argc, char** argv);

// False when an argument could not be read: then no drive may be touched.
bool matches_are_read();

// Whether an identified drive is among those that are meant. A field that is null is like no pattern.
bool is_meant(const _pd_info* pd);

// Whether the option was given and no drive was meant, which then is said on standard error.
bool complain_of_no_match();

}  // namespace mirvok
