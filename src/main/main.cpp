// The entry: the operation word, the global switches, and the run function of the operation.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "commands/drive_match.h"
#include "commands/find.h"
#include "commands/flash.h"
#include "commands/report_file.h"
#include "commands/smart.h"
#include "common/crew.h"
#include "common/descriptors.h"
#include "common/diagnostics.h"
#include "common/progress.h"

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
    OPERATION_CHECK = 7,
};

struct operation_word {
    const char* word;
    operation_t code;
};

constexpr operation_word operation_words[] = {
    {"find", OPERATION_FIND},   {"profile", OPERATION_PROFILE}, {"flash", OPERATION_FLASH},
    {"cdef", OPERATION_CDEF},   {"smart", OPERATION_SMART},     {"raidfw", OPERATION_RAIDFW},
    {"check", OPERATION_CHECK},
};

operation_t opt = OPERATION_UNKNOWN;
int debug_flag = 0;
int OSTYPE = 0;
int verbose = 0;
const char* report_path = nullptr;  // of --json
const char* jobs = nullptr;         // of --jobs
bool check_seen = false;            // an argument that may be meant for --check
bool idle_seen = false;             // and one for --idle
bool verbose_seen = false;

// Leading digits; anything else, and a value that is missing, counts as 0.
int decimal(const char* text) {
    return text != nullptr ? static_cast<int>(std::strtol(text, nullptr, 10)) : 0;
}

// Whether `argument` is the switch `name` or an abbreviation of it with at least `shortest` characters, as
// the operations' own option scan takes it; *value receives what may stand behind a '=', or else the next
// argument. Without a value it is the empty text, which is no file and no number.
bool is_switch(const char* name, size_t shortest, const char* argument, const char* next,
               const char** value) {
    const size_t length = std::strcspn(argument, "=");
    if (length < shortest || std::strncmp(argument, name, length) != 0) {
        return false;
    }
    if (argument[length] == '=') {
        *value = argument + length + 1;
    } else {
        *value = next != nullptr ? next : "";
    }
    return true;
}

// The number of jobs that the last --jobs asks for; 0, which is said, when it is none.
uint32_t read_jobs() {
    if (jobs == nullptr) {
        return 1;
    }
    const bool digits = jobs[0] != '\0' && jobs[std::strspn(jobs, "0123456789")] == '\0';
    const unsigned long number = digits ? std::strtoul(jobs, nullptr, 10) : 0;
    if (number < 1 || number > max_jobs) {
        complain("option `--jobs' takes a number from 1 to %u", max_jobs);
        return 0;
    }
    return static_cast<uint32_t>(number);
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
        check_seen = check_seen || std::strncmp(argv[i], "--c", 3) == 0;
        idle_seen = idle_seen || std::strncmp(argv[i], "--i", 3) == 0;
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
            verbose_seen = true;
        } else if (!is_switch("--json", 3, argv[i], value, &report_path)) {
            is_switch("--jobs", 4, argv[i], value, &jobs);
        }
    }
    return 0;
}

// The report of a run is begun before the run; find runs on without one, and without jobs. A check has none
// of the ways of a flash to a download. Traces and dumps are of one drive after the other, and so are
// downloads.
int run_operation(int argc, char** argv) {
    const bool check = opt == OPERATION_CHECK || (opt == OPERATION_FLASH && check_seen);
    const uint32_t jobs_wanted = read_jobs();
    if (jobs_wanted == 0 && opt != OPERATION_FIND) {
        return FLASH_STATUS_BAD_OPTIONS;
    }
    if (debug_flag == 0 && !verbose_seen && (opt != OPERATION_FLASH || check)) {
        set_jobs(jobs_wanted);
    }
    if (opt == OPERATION_FIND) {
        std::signal(SIGXFSZ, SIG_IGN);  // a full file ends the output, not the run
    }
    take_matches(argc, argv);
    const bool reported = report_path == nullptr || open_report_file(report_path) == 0;
    if (opt == OPERATION_FIND) {
        run_find_drives(argc, argv);
        return 0;
    }
    if (!reported) {
        return FLASH_STATUS_BAD_OPTIONS;
    }
    if (check) {
        return run_check_drives(argc, argv, idle_seen);
    }
    return opt == OPERATION_FLASH ? run_flash_drives(argc, argv, idle_seen) : run_smart_drives(argc, argv);
}

int run(int argc, char** argv) {
    get_operation(argc, argv);
    if (!occupy_standard_descriptors()) {
        const bool ends_well = opt != OPERATION_FLASH && opt != OPERATION_SMART && opt != OPERATION_CHECK;
        return ends_well ? 0 : static_cast<int>(FLASH_STATUS_BAD_OPTIONS);
    }
    set_debug(debug_flag);
    init_progress();
    switch (opt) {
        case OPERATION_FIND:
        case OPERATION_FLASH:
        case OPERATION_SMART:
        case OPERATION_CHECK:
            return run_operation(argc, argv);
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
    const int status = mirvok::run(argc, argv);
    mirvok::flush_output();
    _exit(status);  // what a library left behind in the process has no say any more
}
