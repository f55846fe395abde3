// The fuzz targets. FUZZ_TARGET is the one that is compiled: the fuzzer's bytes are its data files, arguments
// or drive data, or all that libraries and device nodes answer. Each exec begins with the trace switches.
#include <fuzzer/FuzzedDataProvider.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <csignal>

#include "commands/smart_collection.h"
#include "commands/smart_report.h"
#include "common/diagnostics.h"
#include "common/options.h"
#include "profiles/drive_sizes.h"
#include "raid/marvell_devices.h"
#include "raid/storelib_firmware.h"
#include "raid/storelib_library.h"
#include "storage/firmware_download.h"
#include "storage/identification.h"
#include "storage/inventory.h"
#include "storage/vendor_checks.h"
#include "transport/nvme_data.h"
#include "transport/scsi_ata_data.h"

namespace mirvok {

FuzzedDataProvider* input;
std::vector<std::vector<uint8_t>> blocks;  // of the exec

char world;  // first letter of the libraries or nodes that are there

const auto byte = [] { return input->ConsumeIntegral<uint8_t>(); };

const auto is_there = [](const char* name) { return name[0] == world && byte() != 0xFF; };

// A heap block of exactly `size` bytes: those of `data`, then zeroes.
uint8_t* block(size_t size, const std::vector<uint8_t>& data = {}) {
    blocks.emplace_back(size);
    std::copy_n(data.begin(), std::min(size, data.size()), blocks.back().begin());
    return blocks.back().data();
}

const auto any_record = [] {
    return _smart_profile_record{"", "", byte(), byte(), byte(), byte(), byte(), byte(), byte(), byte()};
};

char* text() {
    const std::string text = input->ConsumeRandomLengthString(20);
    return reinterpret_cast<char*>(block(text.size() + 1, {text.begin(), text.end()}));
}

// The name of a file of these bytes.
const char* file_of(const std::vector<uint8_t>& data) {
    static const int file = memfd_create("fuzz", 0);
    static const std::string name = "/proc/self/fd/" + std::to_string(file);
    assert(ftruncate(file, 0) == 0 && pwrite(file, data.data(), data.size(), 0) >= 0);
    return name.c_str();
}

void check_texts(const _pd_info& pd) {
    for (const auto* text : {&pd.dummy, &pd.device_serial, &pd.code_level, &pd.product_id, &pd.part_number,
                             &pd.part_number_8s, &pd.serial_number}) {
        assert(std::memchr(text, 0, sizeof(*text)) != nullptr);
    }
}

void data_files() {
    const char* key = text();
    const uint8_t by_pid = byte() & 1;
    uint16_t size = byte();
    const char* file = file_of(input->ConsumeRemainingBytes<uint8_t>());
    load_drive_sizes(file);
    find_drive_size1(size, 0, &size);
    _smart_profile smart = {};
    _smart_profile_record* limits = nullptr;
    load_profiles(file, &smart);
    find_profile(key, &smart, &limits, by_pid);
    profile* flash = nullptr;
    profile_record* record = nullptr;
    if (load_profile(file, &flash) == 0) {
        find_profile_record(key, flash, &record, by_pid);
    }
    std::free(flash);
}

void options() {
    int flag = 0;
    std::vector<option> table(1 + byte() % 6);
    for (size_t i = 0; i + 1 < table.size(); ++i) {
        table[i] = {text(), byte() % 3, input->ConsumeBool() ? &flag : nullptr, byte()};
    }
    const char* letters = text();
    std::vector<char*> argv(1 + byte() % 8);
    std::generate(argv.begin(), argv.end(), text);
    const auto argc = static_cast<int>(argv.size());
    optreset = 1;
    // The caller's changes between the calls end with the fuzzer's bytes.
    while (getopt_long(argc - input->ConsumeBool(), argv.data(), letters, table.data(), &flag) != -1) {
        TRACE_PRINT("%s", optarg != nullptr ? optarg : "");
        optind = input->ConsumeBool() ? input->ConsumeIntegral<int>() : optind;
    }
}

void drive_data() {
    _smart_profile_record record = any_record();
    _pd_info pd = {};
    pd.ctrl = ctrllist;
    pd.ctrl->vendor = byte();
    nvme_device_info info = {};
    const std::vector<uint8_t> data = input->ConsumeRemainingBytes<uint8_t>();
    parse_inquery(&pd, block(512, data), 512);
    parse_vpd_c4(&pd, block(512, data), 512);
    parse_vpd_b0(&pd, block(512, data), 512);
    parse_identify(&pd, block(512, data), 512);
    parse_scsi_capacity_16(&pd, block(32, data), 32);
    parse_scsi_capacity_10(&pd, block(8, data), 8);
    parse_nvme_page(NVME_PAGE_IDENTIFY_CONTROLLER, &info, block(4096, data), 4096);
    parse_nvme_page(NVME_PAGE_IDENTIFY_NAMESPACE, &info, block(4096, data), 4096);
    parse_nvme_page(NVME_PAGE_VENDOR_E0, &info, block(1024, data), 1024);
    parse_nvme_smart_data(&info, block(192, data));
    check_texts(pd);
    _smart_drive drive = {&pd, {}, &record, {}};
    parse_veltra_smart_info_ata(block(512, data), 0xD0, &drive.info, &record);
    calculate_smart(&drive.info, &record);
    parse_veltra_smart_info_sas(block(512, data), sas_smart_page, &drive.info, &record);
    calculate_smart(&drive.info, &record);
    parse_veltra_smart_info_nvme(block(512, data), &drive.info);
    calculate_smart(&drive.info, &record);
    uint8_t* status = block(32);
    take_returned_registers(block(64, data), status);
    parse_veltra_smart_returnStatus_sata(status, &drive);
    print_smart_info(&drive, 1);
}

// Fills the buffer of a request to its announced size and returns a status.
uint16_t answer(void* buffer, size_t size) {
    std::vector<uint8_t> pattern = input->ConsumeBytes<uint8_t>(byte());
    pattern.resize(pattern.empty() ? 256 : pattern.size());
    for (size_t i = 0; i < size; i += pattern.size()) {
        std::memcpy(static_cast<uint8_t*>(buffer) + i, pattern.data(), std::min(pattern.size(), size - i));
    }
    return input->ConsumeBool() ? input->ConsumeIntegral<uint16_t>() : 0;
}

// Does with the first drives of a world what the operations do.
template <char first_letter>
void drives() {
    world = first_letter;
    sno_count = 0;
    _storage_lib lib = {};
    init_storage_lib(&lib);
    for (uint32_t i = 0; i < std::min(lib.pd_count, 3U); ++i) {
        _pd_info* pd = &lib.pd_list[i];
        get_pd_information(pd);
        check_texts(*pd);
        is_veltra_disk(pd);
        check_serial_number(pd);
        _smart_profile_record record = any_record();
        _smart_drive drive = {pd, {}, &record, {}};
        get_drive_smart(&drive);
        const auto size = input->ConsumeIntegralInRange<uint32_t>(1, 70000);
        flash_disk_fw_sas(pd, block(size), size, byte() % 8, byte() * 4096U);
        flash_disk_fw_ata(pd, block(size), size, byte() % 8, byte() * 4096U);
        flash_disk_fw_nvme(pd, block(size), size);
        const auto type = static_cast<uint16_t>(pd->ctrl->type);
        type == CTRL_TYPE_MARVELL
            ? flash_pd_fw_mv(pd, "")
            : FlashPdFW_BRCM(pd->ctrl->ctrl_id, type, pd->device_id, file_of(blocks.back()), 5);
    }
    un_init_storage_lib(&lib);
}
inline constexpr auto storelib = drives<'s'>, marvell = drives<'l'>, host = drives<'/'>;

extern "C" {

const void* dlopen(const char* name, int) {
    return is_there(name) ? name : nullptr;
}

int dlclose(void*) {
    return 0;
}

void* dlsym(void*, const char* name) {
    static const std::pair<const char*, void*> entries[] = {
        {"Proc",
         (void*)+[](_SL_LIB_CMD_PARAM_T* param) -> uint32_t {
             return answer(param->data, param->data_size);
         }},
        {"MV_Adapter_GetI",
         (void*)+[](uint8_t, uint8_t* found, uint8_t* info) -> uint8_t {
             *found = byte();
             return answer(info, 304) & 0xFF;
         }},
        {"MV_PD", (void*)+[](uint8_t, uint8_t* request) -> uint8_t { return answer(request, 514) & 0xFF; }},
        {"MV_Pass",
         (void*)+[](uint8_t, uint8_t, uint8_t* request) -> uint8_t {
             return answer(request, 64U + request[16] + request[17] * 256) & 0xFF;
         }},
        {"MV_D", (void*)+[](uint8_t, uint8_t, const char*) { return byte(); }},
        {"MV_G", (void*)+[](uint8_t, uint8_t, uint8_t* done,
                            uint8_t* status) { return *done = *status = byte() % 8; }},
        {"", (void*)+[] { return byte(); }},
    };
    const auto* row = entries;
    while (std::strncmp(row->first, name, std::strlen(row->first)) != 0) {
        ++row;
    }
    return byte() != 0xFF ? row->second : nullptr;
}

unsigned int sleep(unsigned int) {
    return 0;
}

int sigtimedwait(const sigset_t*, siginfo_t*, const timespec*) {
    errno = EAGAIN;
    return -1;
}

int open(const char* name, int) {
    return std::strpbrk(name, "3456789") == nullptr && is_there(name) ? INT_MAX : -1;
}

int ioctl(int, unsigned long request, void* argument) {
    if (request == SG_IO) {
        auto* header = static_cast<sg_io_hdr*>(argument);
        answer(header->sbp, header->mx_sb_len);
        answer(&header->status, sizeof(*header) - offsetof(sg_io_hdr, status));
        return -answer(header->dxferp, header->dxfer_len);
    }
    const auto* command = static_cast<nvme_admin_cmd*>(argument);
    return answer(reinterpret_cast<void*>(command->addr), command->data_len);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider provider(data, size);
    input = &provider;
    blocks.clear();
    set_debug(byte() & 1);
    set_verbose(byte() % 5);
    FUZZ_TARGET();
    return 0;
}

}  // extern "C"

}  // namespace mirvok
