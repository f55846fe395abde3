// The operation `flash`: brings every drive whose code level is below its profile's to that level.
#pragma once

#include <cstdint>

#include "commands/drive_lookup.h"

namespace mirvok {

struct flash {
    char profile_file[64];
    mirvok::profile* profile;
    drive drives[max_drives];
    _ctrl_info* ctrl_list;
    uint32_t ctrl_count;
    uint32_t drive_count;  // slots of `drives` in use
    uint16_t error_count;  // failed drives, set by the report
    uint32_t param_error;
    uint32_t param_message;  // code for print_error_msg
    int32_t adapter;
    uint8_t adapter_set;
    int32_t slot;
    uint8_t slot_set;
    char fw_file[64];
    char log_file[64];
    uint16_t log_on;
    uint16_t force;
    uint16_t all;
    uint16_t check;  // downloads nothing: tells what a run would do
    uint16_t idle;   // downloads to no drive that is in use
};

// Exit statuses of flash; a run that a signal ends has 128 + the signal's number.
enum flash_status_t {
    FLASH_STATUS_OK = 0,
    FLASH_STATUS_DUE = 1,  // --check: something is due and nothing failed
    FLASH_STATUS_NO_DRIVE = 2,
    FLASH_STATUS_FAILED = 3,
    FLASH_STATUS_BAD_OPTIONS = 4,
    FLASH_STATUS_NO_PROFILE = 5,
};

// Runs the operation and returns the exit status. run_check_drives downloads nothing, whatever the options
// say; `idle` tells whether --idle is among them.
int run_flash_drives(int argc, char** argv, bool idle);
int run_check_drives(int argc, char** argv, bool idle);

// The record of a run: cleared at its start, released at its end, the log with it.
void init_program(flash* program);
void un_init_program(flash* program);

// Prints the message of a code (4 or 5) as a line on standard output; other codes print nothing.
void print_error_msg(uint32_t code);

}  // namespace mirvok
