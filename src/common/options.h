// The command line's options: getopt_long of this system, with its own state, conventions and messages. All
// names live in namespace mirvok and are independent of the C library's.
#pragma once

namespace mirvok {

enum option_argument_t : int {
    OPTION_NO_ARGUMENT = 0,
    OPTION_REQUIRED_ARGUMENT = 1,
    OPTION_OPTIONAL_ARGUMENT = 2,
};

// One long option; a table of them ends with an entry whose name is null.
struct option {
    const char* name;
    int has_arg;  // option_argument_t
    int* flag;    // when not null, receives val, and getopt_long returns 0
    int val;
};

extern int optind;    // next argument to look at; after the options, the first non-option
extern int opterr;    // non-zero: errors are reported on standard error
extern int optopt;    // option character, or long option value, of the last error
extern int optreset;  // set by a caller to start again at the first argument, as an optind below 1 does
extern char* optarg;  // argument of the option just returned, or null

// Returns the next option of `argv`: its character; a long option's val, or 0 when its flag took the val; 1
// for a non-option when `optstring` begins with '-'; '?' for an error (':' for a missing argument when
// optstring, after its '+' or '-', begins with ':'); -1 at the end. Options are moved in front of the
// non-options, unless the first call that met a non-option had an optstring with '+' or POSIXLY_CORRECT was
// set by then: scanning stops at the first non-option from that call on. `longopts` and `longindex` may be
// null; `longindex` receives the table index of a recognised long option. The texts of `argv` must outlive
// the scan.
int getopt_long(int argc, char** argv, const char* optstring, const option* longopts, int* longindex);

}  // namespace mirvok
