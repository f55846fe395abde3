// The operation `find`: lists every drive that identifies itself, once per physical drive.
#pragma once

#include <cstdint>

#include "commands/drive_lookup.h"

namespace mirvok {

struct _find_program {
    mirvok::profile* profile;
    drive drives[max_drives];
    char profile_file[64];
    uint16_t drive_count;  // slots of `drives` in use
};

// Runs the operation. The result is 0, or tells what ended it early: 1 no profile, 2 no controller, 3 no
// drive; the exit status of find is 0 whatever it is.
int run_find_drives(int argc, char** argv);

// The steps of a run.
void init_program(_find_program* program);
int parse_command_line(int argc, char** argv, _find_program* program);
int check_params(_find_program* program);
void print_drive_info(drive* slot, int index);
void dump_find_result(_find_program* program);

}  // namespace mirvok
