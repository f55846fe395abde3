#include "commands/flash_options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commands/run_files.h"
#include "common/diagnostics.h"
#include "common/options.h"
#include "common/text.h"

namespace mirvok {

namespace {

constexpr char short_options[] = "a:s:b:f:l:hdc";

// Takes an option's decimal number whole, its 32 bits as they are; anything else is refused by name.
int take_number(const char* option_name, int32_t* number) {
    const size_t digits = std::strspn(optarg, "0123456789");
    const unsigned long value = std::strtoul(optarg, nullptr, 10);
    if (digits == 0 || optarg[digits] != '\0' || value > UINT32_MAX) {
        complain("option `%s' takes a decimal number of 32 bits", option_name);
        return FLASH_STATUS_BAD_OPTIONS;
    }
    *number = static_cast<int32_t>(value);
    return 0;
}

// Copies an option's text whole; one that does not fit is refused by name.
template <size_t Capacity>
int take_text(const char* option_name, char (&field)[Capacity]) {
    if (std::strlen(optarg) >= Capacity) {
        complain("option `%s' takes at most %zu characters", option_name, Capacity - 1);
        return FLASH_STATUS_BAD_OPTIONS;
    }
    copy_text(field, optarg);
    return 0;
}

int take_option(int character, flash* program) {
    switch (character) {
        case 'a':
            program->adapter_set = 1;
            return take_number("--adapter", &program->adapter);
        case 's':
            program->slot_set = 1;
            return take_number("--slot", &program->slot);
        case 'b':
            return take_text("--profile", program->profile_file);
        case 'f':
            return take_text("-f", program->fw_file);
        case 'l':
            program->log_on = 1;
            return take_text("--log", program->log_file);
        default:
            return 0;
    }
}

// With POSIXLY_CORRECT the scan stops at the first word: options behind it are not read, which is reported.
// `global` is the flag of the options that main has read. Returns FLASH_STATUS_BAD_OPTIONS where drives were
// to be selected: all of them are not what was meant.
int look_at_unread(int argc, char** argv, const option* options, int* global) {
    bool unread = false;
    bool selection = false;
    opterr = 0;
    for (int word = optind; word < argc && std::strcmp(argv[word - 1], "--") != 0;
         word = optind > word ? optind : word + 1) {
        optind = word + 1;
        *global = 0;
        for (int character = 0; (character = getopt_long(argc, argv, short_options, options, nullptr)) != -1;
             *global = 0) {
            unread = unread || *global == 0;
            selection = selection || character == 'a' || character == 's';
        }
    }
    opterr = 1;
    if (unread) {
        complain(
            "options behind `%s' are not read, as POSIXLY_CORRECT has it, but for --check, --debug, "
            "--idle, --jobs, --json, --match, --os and --verbose",
            argv[1]);
    }
    return selection ? static_cast<int>(FLASH_STATUS_BAD_OPTIONS) : 0;
}

}  // namespace

int parse_command_line(int argc, char** argv, flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    // Options that main has read set `global`.
    static int global = 0;
    static int force = 0;
    static int all = 0;
    static const option options[] = {
        {"help", OPTION_NO_ARGUMENT, nullptr, 'h'},       {"usage", OPTION_NO_ARGUMENT, nullptr, 'h'},
        {"debug", OPTION_NO_ARGUMENT, &global, 1},        {"adapter", OPTION_REQUIRED_ARGUMENT, nullptr, 'a'},
        {"slot", OPTION_REQUIRED_ARGUMENT, nullptr, 's'}, {"profile", OPTION_REQUIRED_ARGUMENT, nullptr, 'b'},
        {"force", OPTION_NO_ARGUMENT, &force, 1},         {"all", OPTION_NO_ARGUMENT, &all, 1},
        {"log", OPTION_REQUIRED_ARGUMENT, nullptr, 'l'},  {"os", OPTION_NO_ARGUMENT, &global, 1},
        {"verbose", OPTION_NO_ARGUMENT, &global, 1},      {"check", OPTION_NO_ARGUMENT, &global, 1},
        {"json", OPTION_REQUIRED_ARGUMENT, &global, 1},   {"match", OPTION_REQUIRED_ARGUMENT, &global, 1},
        {"idle", OPTION_NO_ARGUMENT, &global, 1},         {"j", OPTION_REQUIRED_ARGUMENT, &global, 1},
        {"jobs", OPTION_REQUIRED_ARGUMENT, &global, 1},   {nullptr, OPTION_NO_ARGUMENT, nullptr, 0},
    };
    TRACE_PRINT("debug:%d,force:%d,program->force:%d", global, force, program->force);
    int rc = 0;
    int character = 0;
    while ((character = getopt_long(argc, argv, short_options, options, nullptr)) != -1) {
        TRACE_PRINT("ch=%Xh,optarg=%s\n", static_cast<unsigned int>(character),
                    optarg != nullptr ? optarg : "(null)");
        if (take_option(character, program) != 0) {
            rc = FLASH_STATUS_BAD_OPTIONS;
        }
    }
    program->force = static_cast<uint16_t>(force);
    program->all = static_cast<uint16_t>(all);
    const int unread = look_at_unread(argc, argv, options, &global);
    rc = unread != 0 ? unread : rc;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int check_params(flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = 0;
    if (program->profile_file[0] == '\0') {
        copy_text(program->profile_file, "flashdrv.bin");
    }
    if (program->adapter_set != program->slot_set) {
        program->param_error = 1;
        program->param_message = message_unpaired;
        rc = message_unpaired;
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

// Opens the log. One that would overwrite what a run needs is refused.
int open_log(const flash* program) {
    if (is_run_file(program->log_file, program->profile_file)) {
        complain("the log `%s' would overwrite a data file or an image", program->log_file);
        return FLASH_STATUS_BAD_OPTIONS;
    }
    if (init_log(program->log_file) == 0) {
        complain("the log `%s' cannot be opened: %s", program->log_file, std::strerror(errno));
    }
    return 0;
}

}  // namespace mirvok
