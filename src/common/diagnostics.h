// The process-wide switches, the trace log, the flash log file, hex dumps and the whole-second sleep.
// All output goes to standard output, except the log file's and complaints.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirvok {

void set_debug(int on);
int get_debug();
void set_os_type(int type);
int get_os_type();
void set_verbose(int level);
int get_verbose();

// One trace line, only with debugging on: "STORAGE_LIB: ", three blanks per nesting level, the message. A
// format that contains "Entering" starts a level, one that contains "Exiting" ends it.
void TRACE_PRINT(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Formatted text into the log file, whatever the debug switch says; nothing while no log file is open. A text
// whose format ends with a line feed is written through to the disk.
void TRACE_LOG(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Formatted text to standard output and to the log file alike. Returns the number of its characters, negative
// when standard output does not take it.
int report(const char* format, ...) __attribute__((format(printf, 1, 2)));

// As printf and as report, for a line with texts of a drive: where standard output is a terminal, their bytes
// outside 20h to 7Eh are shown as '?'. The format has no such bytes but a line feed at its end.
int print_texts(const char* format, ...) __attribute__((format(printf, 1, 2)));
int report_texts(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A line on standard error: the program's name, a colon and the formatted text.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Flushes standard output; the first failure is reported on standard error.
void flush_output();

// Opens (creates, truncates) the log file: 1 when opened, 0 when not, with errno set. The first failure
// to write it is reported on standard error.
int init_log(const char* name);
void uninit_log();

// Whether a file, by its device and inode numbers, is the open log.
bool is_log_file(uint64_t device, uint64_t inode);

// Traces `message` with the text of errno, or alone when errno is 0.
void print_system_error(const char* message);

// Hex dump of `length` bytes on standard output, 16 a row, under "description:" when there is a description.
void hexDump(const char* description, const void* data, size_t length);

void sleep_wait(unsigned int seconds);

}  // namespace mirvok
