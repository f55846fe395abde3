#include "raid/storelib_library.h"

#include <dlfcn.h>

#include <cstdio>

#include "common/descriptors.h"
#include "common/diagnostics.h"
#include "common/signals.h"
#include "raid/shared_library.h"

namespace mirvok {

lib_info_entry lib_info_avago[storelib_library_count] = {
    {"", "storelib.so", 0, CTRL_TYPE_MR, 0},      {"", "storelibir-2.so", 0, CTRL_TYPE_IR2, 0},
    {"", "storelibir-3.so", 0, CTRL_TYPE_IR3, 0}, {"", "storelibir.so", 0, CTRL_TYPE_IR, 0},
    {"", "storelibit.so", 0, CTRL_TYPE_IT, 0},
};

namespace {

extern "C" {
using storelib_entry = uint32_t (*)(_SL_LIB_CMD_PARAM_T*);
}

struct library_binding {
    const char* entry_name;
    ctrl_type_t type;
    uint32_t init_size;  // bytes of the init request's buffer
    void* handle;
    storelib_entry found_entry;  // of the open library; takes the exit request even after a failed init
    storelib_entry entry;        // takes requests; null before and after a failed init
};

constexpr uint32_t max_init_size = 260;

// In the order of the library table.
library_binding bindings[storelib_library_count] = {
    {"ProcessLibCommand", CTRL_TYPE_MR, max_init_size, nullptr, nullptr, nullptr},
    {"ProcessLibCommandIR2", CTRL_TYPE_IR2, max_init_size, nullptr, nullptr, nullptr},
    {"ProcessLibCommandIR3", CTRL_TYPE_IR3, max_init_size, nullptr, nullptr, nullptr},
    {"ProcessLibCommandIR", CTRL_TYPE_IR, 68, nullptr, nullptr, nullptr},
    {"ProcessLibCommandIT", CTRL_TYPE_IT, max_init_size, nullptr, nullptr, nullptr},
};

// Positions in both tables.
enum position_t : uint32_t { POSITION_MR, POSITION_IR2, POSITION_IR3, POSITION_IR, POSITION_IT };
constexpr position_t load_order[] = {POSITION_IR, POSITION_MR, POSITION_IR2, POSITION_IR3, POSITION_IT};
constexpr position_t unload_order[] = {POSITION_IR, POSITION_MR, POSITION_IR3, POSITION_IR2, POSITION_IT};

// The version reply holds two texts, each of which ends at its first NUL or at the end of its room.
constexpr size_t version_size = 15;
constexpr size_t version_first_text = 7;

void close_binding(library_binding* binding) {
    dlclose(binding->handle);
    binding->handle = nullptr;
    binding->found_entry = nullptr;
    binding->entry = nullptr;
}

// Whether the opened library has its entry and accepts the init request. One that does not accept it stays
// open, and is asked nothing but to exit.
bool start_library(library_binding* binding, const char* name) {
    binding->found_entry = reinterpret_cast<storelib_entry>(dlsym(binding->handle, binding->entry_name));
    if (binding->found_entry == nullptr) {
        TRACE_PRINT("error: no %s in %s", binding->entry_name, name);
        close_binding(binding);
        return false;
    }
    binding->entry = binding->found_entry;
    uint8_t buffer[max_init_size] = {};
    _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_init, 0, 0, buffer, binding->init_size);
    const int status = ProcessLibCommandCall(&param, binding->type);
    if (status != 0) {
        TRACE_PRINT("init of %s failed, status: %d", name, status);
        binding->entry = nullptr;
    }
    return status == 0;
}

}  // namespace

int ProcessLibCommandCall(_SL_LIB_CMD_PARAM_T* param, uint32_t type) {
    TRACE_PRINT("Entering %s", __func__);
    int status = 0;
    const library_binding* binding = nullptr;
    for (const library_binding& candidate : bindings) {
        binding = candidate.type == type ? &candidate : binding;
    }
    if (binding == nullptr) {
        TRACE_PRINT("Unknown ctrl_type: %d", type);
    } else if (binding->entry == nullptr) {
        TRACE_PRINT("Library %d is not loaded", type);
    } else {
        status = static_cast<int>(binding->entry(param));
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, status);
    return status;
}

void load_dlls_avago(lib_info_entry* lib_info) {
    TRACE_PRINT("Entering %s", __func__);
    begin_unbroken_sequence();  // threads that a library starts inherit the mask
    for (const position_t position : load_order) {
        lib_info_entry* entry = &lib_info[position];
        *entry = lib_info_entry{"", entry->name, 0, entry->type, 0};
        library_binding* binding = &bindings[position];
        binding->handle = open_library(entry->name);
        if (binding->handle == nullptr) {
            // The loader writes its reason only when it is asked for it.
            const char* reason = get_debug() != 0 ? dlerror() : nullptr;
            TRACE_PRINT("%s", reason != nullptr ? reason : entry->name);
        } else if (start_library(binding, entry->name)) {
            entry->loaded = 1;
        }
    }
    end_unbroken_sequence();
    occupy_standard_descriptors();  // whatever a library closed
    TRACE_PRINT("Exiting %s", __func__);
}

void get_lib_version_avago(uint32_t type, char (&version)[32]) {
    TRACE_PRINT("Entering %s", __func__);
    char buffer[version_size] = {};
    _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_version, 0, 0, buffer, version_size);
    if (ProcessLibCommandCall(&param, type) == 0) {
        std::snprintf(version, sizeof(version), "%.8s.%.7s", buffer + version_first_text, buffer);
        TRACE_PRINT("library version:%s", version);
    }
    TRACE_PRINT("Exiting %s", __func__);
}

void init_avago(lib_info_entry* lib_info) {
    TRACE_PRINT("Entering %s", __func__);
    load_dlls_avago(lib_info);
    get_lib_version_avago(CTRL_TYPE_IT, lib_info[POSITION_IT].version);
    TRACE_PRINT("Exiting %s", __func__);
}

void unload_avago_dlls(uint32_t type) {
    TRACE_PRINT("Entering %s", __func__);
    for (const position_t position : unload_order) {
        library_binding* binding = &bindings[position];
        if ((type == 0 || type == binding->type) && binding->handle != nullptr) {
            _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_exit, 0, 0, nullptr, 0);
            binding->entry = binding->found_entry;
            ProcessLibCommandCall(&param, binding->type);
            close_binding(binding);
        }
    }
    TRACE_PRINT("Exiting %s", __func__);
}

void un_init_avago(lib_info_entry* lib_info) {
    TRACE_PRINT("Entering %s", __func__);
    unload_avago_dlls(0);
    for (uint32_t i = 0; i < storelib_library_count; ++i) {
        lib_info[i].loaded = 0;
    }
    TRACE_PRINT("Exiting %s", __func__);
}

}  // namespace mirvok
