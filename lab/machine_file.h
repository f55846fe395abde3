// The machine file as people write it, made ready for a run.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "machine.h"

namespace mirvok::lab {

// Fills the state directory for a run: machine.json with every repetition written out and `faults` (JSON
// objects) added, an empty journal, and the firmware that waits for a controller reset made current. Returns
// the machine; throws what a person can read when the file or a fault is wrong.
json prepare_home(const std::filesystem::path& file, const std::vector<std::string>& faults,
                  const std::filesystem::path& home, bool fresh);

}  // namespace mirvok::lab
