#include "raid/played_library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "common/bytes.h"
#include "common/diagnostics.h"
#include "raid/storelib_library.h"

mirvok::_ctrl_info ctrl = {0, 0x105, 3, mirvok::CTRL_TYPE_IT, 99, 0, 0, 0, 0, 0, 0};
mirvok::_pd_info pd;
std::set<std::string> missing;
std::map<std::string, std::deque<std::pair<uint32_t, patches>>> answers;

namespace {

uint32_t last_status;

uint8_t call(const std::string& name, const std::string& shown = "", uint8_t* buffer = nullptr,
             size_t size = 0) {
    std::printf("%s%s\n", name.c_str(), shown.c_str());
    auto& queue = answers[name];
    const auto [status, written] = queue.empty() ? std::pair<uint32_t, patches>() : queue.front();
    if (queue.size() > 1) {
        queue.pop_front();
    }
    for (const auto& [at, data] : written) {
        std::copy_n(data.data(), std::min(at < size ? size - at : 0, data.size()), buffer + at);
    }
    last_status = status;
    return static_cast<uint8_t>(status);
}

template <char Library>
uint32_t storelib(mirvok::_SL_LIB_CMD_PARAM_T* param) {
    auto* data = static_cast<uint8_t*>(param->data);
    const std::string name = std::to_string(param->command_type) + "." + std::to_string(param->command);
    std::ostringstream shown;
    shown << " " << Library << " c" << param->ctrl_id << " d" << param->device_id << " " << param->data_size
          << ": ";
    const bool announcement = name == "6.3";  // its record ends in a pointer to a block of 40 bytes
    shown << hex(data, announcement ? 28 : param->data_size);
    if (announcement) {
        const uint8_t* block = nullptr;
        std::memcpy(&block, data + 28, sizeof(block));
        shown << " -> " << hex(block, 8) << ", " << hex(block + 8, 32);
    }
    shown << (hex(param->reserved_2, 2) + hex(param->reserved_10, 18) != "00 0000*18" ? " RESERVED" : "");
    call(name, shown.str(), data, param->data_size);
    return last_status;
}

std::string ids(int adapter, int device) {
    return " " + std::to_string(adapter) + " " + std::to_string(device) + ": ";
}

template <class Function>
void* entry(Function function) {
    return reinterpret_cast<void*>(+function);
}
void* const never = entry([] { return call("never called"); });

// A handle is the address of a row; entries that are in another library are not found.
struct played_file {
    const char* name;
    std::map<std::string, void*> entries;
};
played_file files[] = {
    {"storelib.so", {{"ProcessLibCommand", entry(storelib<'M'>)}}},
    {"storelibir.so", {{"ProcessLibCommandIR", entry(storelib<'R'>)}}},
    {"storelibir-2.so", {{"ProcessLibCommandIR2", entry(storelib<'2'>)}}},
    {"storelibir-3.so", {{"ProcessLibCommandIR3", entry(storelib<'3'>)}}},
    {"storelibit.so", {{"ProcessLibCommandIT", entry(storelib<'T'>)}}},
    {"libmvraid.so",
     {{"MV_API_Initialize", entry([] { return call("initialize"); })},
      {"MV_API_Finalize", entry([] { return call("finalize"); })},
      {"MV_API_Version", never},
      {"MV_Adapter_GetCount", entry([] { return call("count"); })},
      {"MV_Adapter_GetInfo", entry([](uint8_t adapter, uint8_t* found, uint8_t* info) {
           return call("info", ids(adapter, *found) + hex(info, 304), found, 1);
       })},
      {"MV_PD_GetHDInfo", never},
      {"MV_PD_GetHDInfo_Ext", entry([](uint8_t adapter, uint8_t* list) {
           return call("list", ids(adapter, 0) + hex(list, 514), list, 514);
       })},
      {"MV_PassThrough_SCSI", entry([](uint8_t adapter, uint8_t device, uint8_t* request) {
           const size_t size = size_t{64} + mirvok::load_le16(request + 16);
           return call("pass", ids(adapter, device) + hex(request, size), request, size);
       })},
      {"MV_PassThrough_ATA", never},
      {"MV_Flash_Bin", never}}},
    {"liblddf.so",
     {{"MV_Download_Disk_FW", entry([](uint8_t adapter, uint8_t device, const char* path) {
           return call("download", ids(adapter, device) + path);
       })},
      {"MV_Get_Download_Disk_Status",
       entry([](uint8_t adapter, uint8_t device, uint8_t* done, uint8_t* status) {
           *done = 42;
           return call("status", ids(adapter, device) + hex(status, 1), status, 1);
       })}}},
};

// A sanitizer resolves its own functions through dlsym before it is ready to watch anything.
#define UNWATCHED __attribute__((no_sanitize("address", "undefined")))

}  // namespace

std::string hex(const void* data, size_t length) {
    const auto* byte = static_cast<const uint8_t*>(data);
    std::string text;
    for (size_t i = 0, end = 0; i < length; i = end) {
        for (end = i + 1; end < length && byte[end] == byte[i];) {
            ++end;
        }
        end = end - i < 4 ? i + 1 : end;
        char shown[4];
        std::snprintf(shown, sizeof(shown), " %02X", byte[i]);
        text += (shown + (i == 0 ? 1 : 0)) + (end - i > 1 ? "*" + std::to_string(end - i) : "");
    }
    return text;
}

std::string run(const std::function<int()>& action) {
    testing::internal::CaptureStdout();
    mirvok::set_debug(1);
    mirvok::TRACE_PRINT("Entering");
    mirvok::TRACE_PRINT("Entering = %d; ", action());
    mirvok::TRACE_PRINT("Exiting");
    mirvok::TRACE_PRINT("Exiting");
    mirvok::set_debug(0);
    std::istringstream output(testing::internal::GetCapturedStdout());
    std::string log;
    for (std::string line; std::getline(output, line);) {
        line.erase(0, line.rfind("STORAGE_LIB: ", 0) == 0 ? 13 : 0);
        const size_t indent = std::min(line.find_first_not_of(' '), line.size());
        line.erase(0, indent);
        if (line.rfind("Entering = ", 0) == 0) {
            log += (indent == 3 ? "" : "UNBALANCED ") + line.substr(9);
        } else if (line.rfind("Entering", 0) != 0 && line.rfind("Exiting", 0) != 0) {
            log += line.rfind("00", 0) == 0 ? ". " : line + " | ";
        }
    }
    return log;
}

// The C library's names. Handles that are not played go to the C library itself.
extern "C" {

UNWATCHED void* dlsym(void* handle, const char* name) noexcept {
    if (handle >= files && handle < files + 7) {
        const auto* file = static_cast<played_file*>(handle);
        return missing.count(name) == 0 && file->entries.count(name) != 0 ? file->entries.at(name) : nullptr;
    }
    const auto real =
        reinterpret_cast<void* (*)(void*, const char*)>(dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.34"));
    return real(handle, name);
}

void* dlopen(const char* name, int mode) noexcept {
    auto* file = std::find_if(files, files + 7, [name](const played_file& row) {
        return name == std::string(row.name) || name == std::string("./") + row.name;
    });
    const bool found = file < files + 7 && missing.count(name) == 0;
    std::printf("%s %s%s\n", found ? "open" : "no", name, mode == RTLD_LAZY ? "" : " NOT LAZY");
    return found ? file : nullptr;
}

int dlclose(void* handle) noexcept {
    return std::printf("close %s\n", static_cast<played_file*>(handle)->name) < 0 ? 1 : 0;
}

unsigned int sleep(unsigned int seconds) {
    std::printf("sleep %u\n", seconds);
    return 0;
}

}  // extern "C"
