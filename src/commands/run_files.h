// The files that a run needs.
#pragma once

namespace mirvok {

// Whether a file that is to be written is a data file, `profile` among them, or lies under files/.
// Links are followed.
bool is_run_file(const char* path, const char* profile);

}  // namespace mirvok
