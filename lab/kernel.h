// The machine's drives offered to the kernel of this computer: what its SCSI and NVMe drivers send, the
// drives answer as they do behind the preloaded library.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "machine.h"

namespace mirvok::lab {

// Offers every node of the machine in `home`, runs `program`, which is started by `start` in a child process,
// and takes everything down again. Returns the child's exit status, or 128 and its signal's number; throws
// what a person can read when the kernel or the machine is not made for it.
int run_behind_kernel(const std::filesystem::path& home, const std::function<void()>& start);

// The two ways to a drive. `offer` returns the kernel's node as "major:minor" of its sysfs file; `remove`
// makes the drive disappear; `take_down` removes whatever a lab has set up, this one or one that was killed.
std::string offer_scsi(drive& d, const std::string& node, size_t index);
std::string offer_nvme(drive& d, const std::string& node, size_t index);
void take_down_scsi();
void answer_for_killed_lab();  // before take_down_scsi: ends the commands that wait in rings without a reader
void take_down_nvme();

// Whether the program runs: what comes before is the kernel's own business.
bool program_runs();

// A drive unplugged: its node goes, and `remove` tells the kernel, in a thread of its own.
void unplug(const std::string& node, const std::function<void()>& remove);

// Files of sysfs and configfs, one write or line each. `write_file` returns whether it worked.
bool write_file(const std::filesystem::path& path, const std::string& text);
std::string line_of(const std::filesystem::path& path);

// Throws "`what`: " and the error's words unless `holds`.
void require(bool holds, const std::string& what);

// Opens the device that a sysfs file "dev" names, whatever /dev has.
int open_device(const std::filesystem::path& dev);

}  // namespace mirvok::lab
