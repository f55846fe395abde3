// The entry: the operation word, the three global switches, and the run function of the operation.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "commands/find.h"
#include "commands/flash.h"
#include "commands/smart.h"
#include "common/diagnostics.h"

namespace mirvok {

namespace {

enum operation_t {
    OPERATION_UNKNOWN = 0,
    OPERATION_FIND = 1,
    OPERATION_FLASH = 2,
    OPERATION_SMART = 3,
    OPERATION_CDEF = 4,
    OPERATION_PROFILE = 5,
    OPERATION_RAIDFW = 6,
};

struct operation_word {
    const char* word;
    operation_t code;
};

constexpr operation_word operation_words[] = {
    {"find", OPERATION_FIND}, {"profile", OPERATION_PROFILE}, {"flash", OPERATION_FLASH},
    {"cdef", OPERATION_CDEF}, {"smart", OPERATION_SMART},     {"raidfw", OPERATION_RAIDFW},
};

operation_t opt = OPERATION_UNKNOWN;
int debug_flag = 0;
int OSTYPE = 0;
int verbose = 0;

// Leading digits; anything else, and a value that is missing, counts as 0.
int decimal(const char* text) {
    return text != nullptr ? static_cast<int>(std::strtol(text, nullptr, 10)) : 0;
}

int get_operation(int argc, char** argv) {
    if (argc > 1) {
        for (const operation_word& row : operation_words) {
            if (std::strcmp(argv[1], row.word) == 0) {
                opt = row.code;
                break;
            }
        }
    }
    for (int i = 2; i < argc; ++i) {
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (std::strcmp(argv[i], "--debug") == 0) {
            debug_flag = 1;
            set_debug(1);
        } else if (std::strcmp(argv[i], "--os") == 0) {
            OSTYPE = decimal(value);
            set_os_type(OSTYPE);
        } else if (std::strcmp(argv[i], "--verbose") == 0) {
            verbose = decimal(value);
            set_verbose(verbose);
        }
    }
    return 0;
}

// A drive that was opened as descriptor 1 or 2 would be sent what the program prints: the three standard
// descriptors must be taken before the first drive is opened.
bool occupy_standard_descriptors() {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            return false;
        }
    }
    return true;
}

int run(int argc, char** argv) {
    get_operation(argc, argv);
    if (!occupy_standard_descriptors()) {
        return opt == OPERATION_FLASH || opt == OPERATION_SMART ? FLASH_STATUS_BAD_OPTIONS : 0;
    }
    set_debug(debug_flag);
    switch (opt) {
        case OPERATION_FIND:
            run_find_drives(argc, argv);
            return 0;
        case OPERATION_FLASH:
            return run_flash_drives(argc, argv);
        case OPERATION_SMART:
            return run_smart_drives(argc, argv);
        case OPERATION_UNKNOWN:
            TRACE_PRINT("unknown operation");
            return 0;
        default:
            return 0;
    }
}

}  // namespace

}  // namespace mirvok

int main(int argc, char** argv) {
    return mirvok::run(argc, argv);
}
