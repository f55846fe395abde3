// The three standard descriptors.
#pragma once

namespace mirvok {

// Opens /dev/null for each of the descriptors 0 to 2 that is closed, so that no drive, image, log or report
// becomes one of them. Returns whether all three are open.
bool occupy_standard_descriptors();

}  // namespace mirvok
