// Whole files: read into memory, and written so that no half-made file is ever seen under its name. The path
// "-" is standard input or output.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mirvok {

// 0, or 1 with the reason in `error`. A file that is larger than any data file is refused.
int read_file(const std::string& path, std::vector<uint8_t>& bytes, std::string& error);

// Writes a temporary file in the directory of `path` and gives it that name: 0, or 1 with the reason in
// `error` and the file of that name as it was. A link is followed; what is no regular file is not replaced.
int write_file(const std::string& path, const std::vector<uint8_t>& bytes, std::string& error);

}  // namespace mirvok
