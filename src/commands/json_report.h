// A run as a document: what standard output shows, what it hides, and how the run ended, as one JSON file
// (docs/report.schema.json) that appears whole or not at all.
#pragma once

#include "storage/device_model.h"

namespace mirvok {

struct _find_program;
struct flash;
struct _smart_program;

// Why a drive is not among the listed ones.
enum left_out_t {
    LEFT_OUT_DUPLICATE,
    LEFT_OUT_IDENTIFY_FAILED,
    LEFT_OUT_NOT_IN_PROFILE,
    LEFT_OUT_NOT_SELECTED,
};

// Begins the report of a run: makes a temporary file beside `path` and sets room aside in it, so that a file
// that cannot be made is known before any drive is touched. Returns 0, or 1 after a line on standard error.
// Signals that end the process take the temporary file away, unless the run holds them.
int open_report(const char* path, const char* operation);

// Notes for the report; without one they do nothing.
// name: the profile file, of which so many records were loaded; rc: 0 when it was.
void report_profile(const char* name, int rc, uint32_t records);
void report_left_out(const _pd_info* pd, left_out_t reason, const _pd_info* duplicate_of);

// Writes the report with the drives of one operation and puts it in its place. Call it before the operation's
// profile is released; `lib` has the inventory's counts. Without an open report they do nothing. A report
// that cannot be written leaves an older file as it was and says so in a line on standard error.
void write_report(const _find_program* program, const _storage_lib* lib, int status);
void write_report(const flash* program, const _storage_lib* lib, int status);
void write_report(const _smart_program* program, const _storage_lib* lib, int status);

}  // namespace mirvok
