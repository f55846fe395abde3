// A run as a document: what standard output shows, what it hides, and how the run ended, as one JSON file
// (docs/report.schema.json) that appears whole or not at all.
#pragma once

#include <ctime>

#include "commands/drive_walk.h"
#include "storage/device_model.h"

namespace mirvok {

struct _find_program;
struct flash;
struct _smart_program;

// What a run notes for its report.
struct run_record {
    time_t start;
    const char* profile_name;  // null until it was to be loaded
    bool profile_loaded;
    uint32_t profile_records;  // loaded from it
    left_out_list left_out;
};

// Begins a record. Of its list only the count is written.
void begin_record(run_record* record);

// The profile file, and how many records were loaded from it.
void note_profile(run_record* record, const char* name, bool loaded, uint32_t records);

// Writes the report with the drives of one operation and puts it in its place. Call it before the operation's
// profile is released and before the inventory goes; `lib` has the inventory's counts. Without an open report
// they do nothing. A report that cannot be written leaves an older file as it was and says so.
void write_report(const _find_program* program, const _storage_lib* lib, const run_record& record,
                  int status);
void write_report(const flash* program, const _storage_lib* lib, const run_record& record, int status);
void write_report(const _smart_program* program, const _storage_lib* lib, const run_record& record,
                  int status);

}  // namespace mirvok
