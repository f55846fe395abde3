// The controllers' libraries, laid where the program looks for them.
#pragma once

#include <filesystem>
#include <vector>

#include "machine.h"

namespace mirvok::lab {

// Links the libraries that the machine has into `directory` (or `home`/path for those on the loader's path).
// `source` holds the stand-ins. Returns the links, to be removed after the run; throws when something else
// bears such a name.
std::vector<std::filesystem::path> lay_libraries(const json& machine, const std::filesystem::path& source,
                                                 const std::filesystem::path& directory,
                                                 const std::filesystem::path& home);

}  // namespace mirvok::lab
