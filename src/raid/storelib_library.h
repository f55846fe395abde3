// The five storelib libraries: loading, the one entry through which each takes its requests, and release.
#pragma once

#include <cstddef>
#include <cstdint>

#include "storage/device_model.h"

namespace mirvok {

struct lib_info_entry {
    char version[32];
    const char* name;     // library file name
    uint32_t loaded;      // 1 after a successful init
    ctrl_type_t type;     // the controllers that the library serves
    uint32_t ctrl_count;  // controllers listed, written by the inventory
};

constexpr uint32_t storelib_library_count = 5;

// In the order in which controllers are listed: MR, IR2, IR3, IR, IT.
extern lib_info_entry lib_info_avago[storelib_library_count];

// A request to a library; cleared but for what the command needs.
struct _SL_LIB_CMD_PARAM_T {
    uint8_t command_type;
    uint8_t command;
    uint8_t reserved_2[2];
    uint32_t ctrl_id;
    uint16_t device_id;
    uint8_t reserved_10[18];
    uint32_t data_size;  // bytes at `data`
    void* data;          // the caller's buffer, read and filled by the library
};
static_assert(sizeof(_SL_LIB_CMD_PARAM_T) == 40);
static_assert(offsetof(_SL_LIB_CMD_PARAM_T, ctrl_id) == 4);
static_assert(offsetof(_SL_LIB_CMD_PARAM_T, device_id) == 8);
static_assert(offsetof(_SL_LIB_CMD_PARAM_T, data_size) == 28);
static_assert(offsetof(_SL_LIB_CMD_PARAM_T, data) == 32);

struct storelib_command {
    uint8_t type;
    uint8_t command;
};
constexpr storelib_command storelib_init = {0, 0};
constexpr storelib_command storelib_controller_list = {0, 3};
constexpr storelib_command storelib_version = {0, 4};
constexpr storelib_command storelib_exit = {0, 9};
constexpr storelib_command storelib_controller_info = {1, 0};
constexpr storelib_command storelib_drive_list = {1, 4};
constexpr storelib_command storelib_drive_info = {2, 0};
constexpr storelib_command storelib_scsi_passthrough = {6, 0};
constexpr storelib_command storelib_controller_command = {6, 3};

constexpr _SL_LIB_CMD_PARAM_T make_storelib_param(storelib_command command, uint32_t ctrl_id,
                                                  uint16_t device_id, void* data, uint32_t data_size) {
    return {command.type, command.command, {}, ctrl_id, device_id, {}, data_size, data};
}

// Hands a request to the library of controller type `type` (2 to 6) and returns its status, 0 for success.
// Where there is no library to ask, nothing is called and the result is 0: the caller finds the reply that it
// cleared.
int ProcessLibCommandCall(_SL_LIB_CMD_PARAM_T* param, uint32_t type);

// Loads and initialises whichever libraries are there, marks each entry of the table as loaded or not and
// fills the IT library's version text.
void init_avago(lib_info_entry* lib_info);
void un_init_avago(lib_info_entry* lib_info);

void load_dlls_avago(lib_info_entry* lib_info);

// Fills `version` with the two texts of the library's reply, joined by a full stop; left alone when the
// library refuses.
void get_lib_version_avago(uint32_t type, char (&version)[32]);

// Releases the library of controller type `type`, all of them for 0.
void unload_avago_dlls(uint32_t type);

}  // namespace mirvok
