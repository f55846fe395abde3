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

// What became of a listed drive.
enum outcome_t {
    OUTCOME_LATEST,
    OUTCOME_NOT_IN_PROFILE,
    OUTCOME_REFUSED,
    OUTCOME_DUE,
    OUTCOME_UPDATED,
    OUTCOME_FAILED,
    outcome_count,
};
outcome_t outcome_of(const drive* slot);

// Runs the operation and returns the exit status. run_check_drives downloads nothing, whatever the options
// say.
int run_flash_drives(int argc, char** argv);
int run_check_drives(int argc, char** argv);

// The steps of a run. parse_command_line returns 0, or FLASH_STATUS_BAD_OPTIONS for an option that is
// refused; check_params returns 0 or a message code.
void init_program(flash* program);
int parse_command_line(int argc, char** argv, flash* program);
int check_params(flash* program);
void un_init_program(flash* program);

// Decides whether a drive with a matched record needs its firmware: slot->update and slot->result tell.
void check_is_update(drive* slot);

// 0 when both texts are equal; 2 when their lengths differ, else the sign of the first byte that does.
int compare_code_level(const char* current, uint32_t current_length, const char* expected,
                       uint32_t expected_length);

// Prints the message of a code (4 or 5) as a line on standard output; other codes print nothing.
void print_error_msg(uint32_t code);

}  // namespace mirvok
