// A file that appears whole or not at all: written beside its place and renamed into it.
#pragma once

#include <cstdio>

namespace mirvok {

// Begins the report of a run: makes a temporary file beside `path` with room set aside in it, so that a file
// that cannot be made is known before any drive is touched, and sees that the process takes it away when a
// signal ends it. Returns 0, or 1 after a line on standard error.
int open_report_file(const char* path);

// The temporary file, null when none is open.
std::FILE* report_file();

// Puts the temporary file in its place, written through to the disk, or takes it away when `complete` is
// false or its place is that of `profile`, which may be null. Where that fails an older file stays, which a
// line on standard error says.
void close_report_file(bool complete, const char* profile);

}  // namespace mirvok
