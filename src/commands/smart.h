// The smart command: options, the drive loop and the summary line.
#pragma once

#include "commands/smart_decoders.h"
#include "profiles/smart_profile.h"
#include "storage/device_model.h"

namespace mirvok {

constexpr uint32_t SMART_MAX_DRIVES = max_drives;

// One run's state, on the run function's stack. It takes some 150 KB, of which only what is used is touched:
// an entry of `drives` is cleared when a drive takes it, and profile records are written as they are loaded.
struct _smart_program {
    _smart_drive drives[SMART_MAX_DRIVES];  // reported drives, in report order
    const char* profile_path;               // of any length: the option's own argument, or the default
    _smart_profile profile;
    uint16_t total_count;  // drives reported; so many entries of `drives` are in use
    uint16_t sas_count;
    uint16_t sata_count;
    uint16_t nvme_count;
    uint32_t all_flag;       // --all was given; has no effect
    uint32_t verbose_level;  // of -v, --verbose; has no effect: the trace follows the global switch
};

void init_program(_smart_program* program);

// Takes the options of argv, which must outlive `program`. Returns 0.
int parse_command_line(int argc, char** argv, _smart_program* program);

// No combination of options is refused: returns 0.
int check_params(_smart_program* program);

// Loads the profile at program->profile_path: results of load_profiles in profiles/smart_profile.h.
int load_profiles(_smart_program* program);

// Prints the summary line.
void print_smart_result(const _smart_program* program);

// Runs the command. Returns its exit status: 0 the report ran, 2 no profile could be loaded, 4 no controller,
// 5 no drive.
int run_smart_drives(int argc, char** argv);

}  // namespace mirvok
