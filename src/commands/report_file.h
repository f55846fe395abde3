// A file that appears whole or not at all: written beside its place and renamed into it.
#pragma once

#include <cstdio>

namespace mirvok {

// Makes a temporary file beside `path` with room set aside, and sees that the process takes it away when a
// signal ends it. Returns 0, or an error number.
int open_report_file(const char* path);

// The temporary file, null when none is open.
std::FILE* report_file();

// Puts the temporary file in its place, written through to the disk, or takes it away when `complete` is
// false. Returns 0 or an error number; an older file stays then.
int close_report_file(bool complete);

}  // namespace mirvok
