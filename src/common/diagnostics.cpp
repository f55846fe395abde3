#include "common/diagnostics.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/progress.h"

namespace mirvok {

namespace {

int debug_flag = 0;
int os_type = 0;
int verbose = 0;
int stack = -1;
std::FILE* log_handle = nullptr;
bool log_failed = false;

constexpr size_t dump_row = 16;

void print_blanks(size_t count) {
    for (size_t i = 0; i < count; ++i) {
        std::printf("   ");
    }
}

__attribute__((format(printf, 1, 0))) void write_log(const char* format, va_list arguments) {
    if (log_handle == nullptr) {
        return;
    }
    const bool formatted = std::vfprintf(log_handle, format, arguments) >= 0;
    // Written through line by line, so that what was done before a power cut can be read.
    const size_t length = std::strlen(format);
    const bool line = length > 0 && format[length - 1] == '\n';
    if ((!formatted || (line && std::fflush(log_handle) != 0)) && !log_failed) {
        log_failed = true;
        complain("the log cannot be written: %s", std::strerror(errno));
    }
    if (line) {
        fdatasync(fileno(log_handle));
    }
}

// Nothing that a drive says may move a terminal's cursor.
__attribute__((format(printf, 1, 0))) int print_shown(const char* format, va_list arguments) {
    static const bool terminal = isatty(STDOUT_FILENO) == 1;
    if (!terminal) {
        return std::vprintf(format, arguments);
    }
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    for (int i = 0; i < length; ++i) {
        if ((text[i] < 0x20 || text[i] > 0x7E) && (text[i] != '\n' || i + 1 != length)) {
            text[i] = '?';
        }
    }
    if (length >= 0) {
        std::fputs(text, stdout);
        std::free(text);
    }
    return length;
}

// Apart from TRACE_PRINT, of which a call that has nothing to print then costs little.
[[gnu::noinline]] __attribute__((format(printf, 1, 0))) void print_trace(const char* format,
                                                                         va_list arguments) {
    if (std::strstr(format, "Entering") != nullptr) {
        ++stack;
    }
    std::printf("%s: ", "STORAGE_LIB");
    print_blanks(stack > 0 ? static_cast<size_t>(stack) : 0);
    print_shown(format, arguments);
    std::printf("\n");
    if (std::strstr(format, "Exiting") != nullptr) {
        --stack;
    }
}

}  // namespace

void set_debug(int on) {
    debug_flag = on != 0 ? 1 : 0;
}

int get_debug() {
    return debug_flag;
}

void set_os_type(int type) {
    os_type = type;
}

int get_os_type() {
    return os_type;
}

void set_verbose(int level) {
    verbose = level;
}

int get_verbose() {
    return verbose;
}

void TRACE_PRINT(const char* format, ...) {
    if (debug_flag == 0) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    print_trace(format, arguments);
    va_end(arguments);
}

void TRACE_LOG(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_log(format, arguments);
    va_end(arguments);
}

int report(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int characters = std::vprintf(format, arguments);
    va_end(arguments);
    va_start(arguments, format);
    write_log(format, arguments);
    va_end(arguments);
    return characters;
}

int print_texts(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int characters = print_shown(format, arguments);
    va_end(arguments);
    return characters;
}

int report_texts(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int characters = print_shown(format, arguments);
    va_end(arguments);
    va_start(arguments, format);
    write_log(format, arguments);
    va_end(arguments);
    return characters;
}

void complain(const char* format, ...) {
    progress_clear();
    va_list arguments;
    va_start(arguments, format);
    std::fprintf(stderr, "%s: ", program_invocation_name);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
}

void flush_output() {
    static bool said = false;
    errno = 0;
    if ((std::fflush(stdout) != 0 || std::ferror(stdout) != 0) && !said) {
        said = true;
        complain("standard output cannot be written%s%s", errno != 0 ? ": " : "",
                 errno != 0 ? std::strerror(errno) : "");
    }
}

int init_log(const char* name) {
    TRACE_PRINT("init log related");
    struct stat status = {};
    // A block device is a drive, and no place for a log.
    if (stat(name, &status) == 0 && S_ISBLK(status.st_mode)) {
        errno = EINVAL;
    } else {
        log_handle = std::fopen(name, "w");
    }
    if (log_handle == nullptr) {
        const int error = errno;
        TRACE_PRINT("open log file fail");
        errno = error;
        return 0;
    }
    TRACE_PRINT("open log file success");
    return 1;
}

bool is_log_file(uint64_t device, uint64_t inode) {
    struct stat status = {};
    return log_handle != nullptr && fstat(fileno(log_handle), &status) == 0 && status.st_dev == device &&
           status.st_ino == inode;
}

void uninit_log() {
    if (log_handle != nullptr) {
        std::fclose(log_handle);
        log_handle = nullptr;
    }
}

void print_system_error(const char* message) {
    if (debug_flag == 0) {
        return;
    }
    if (errno != 0) {
        TRACE_PRINT("%s: %s", message, std::strerror(errno));
    } else {
        TRACE_PRINT("%s", message);
    }
}

void hexDump(const char* description, const void* data, size_t length) {
    if (description != nullptr) {
        std::printf("%s:\n", description);
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    char column[dump_row + 1] = {};
    size_t i = 0;
    for (; i < length; ++i) {
        const size_t position = i % dump_row;
        if (position == 0) {
            if (i != 0) {
                std::printf("  %s\n", column);
            }
            std::memset(column, 0, sizeof(column));
            std::printf("  %04zx ", i);
        }
        std::printf(" %02X", bytes[i]);
        column[position] = bytes[i] >= 0x20 && bytes[i] <= 0x7E ? static_cast<char>(bytes[i]) : '.';
    }
    print_blanks((dump_row - i % dump_row) % dump_row);
    std::printf("  %s\n", column);
}

void sleep_wait(unsigned int seconds) {
    // A signal may end a sleep early; the wait is for the drive and must be whole.
    while (seconds > 0) {
        seconds = sleep(seconds);
    }
}

}  // namespace mirvok
