#include "common/options.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mirvok {

int optind = 1;
int opterr = 1;
int optopt = '?';
int optreset = 0;
char* optarg = nullptr;

namespace {

constexpr int end_of_options = -1;
constexpr int option_error = '?';

// argv[optbase, optmark) are skipped non-options; argv[optmark, argind] belong to the option being returned
// and wait to be moved in front of them. With optmark at argind + 1 nothing waits.
int argind = 0;
int optbase = 0;
int optmark = 0;
char* nextchar = nullptr;  // rest of a cluster of short options; null when no cluster is open

enum conventions_t { CONVENTIONS_UNKNOWN, CONVENTIONS_PERMUTE, CONVENTIONS_POSIX };
conventions_t conventions = CONVENTIONS_UNKNOWN;

struct option_string {
    bool stop_at_non_option;
    bool return_non_options;
    bool report_missing;
    const char* characters;
};

option_string read_option_string(const char* text) {
    option_string result = {};
    result.characters = text != nullptr ? text : "";
    result.stop_at_non_option = *result.characters == '+';
    result.return_non_options = *result.characters == '-';
    if (result.stop_at_non_option || result.return_non_options) {
        ++result.characters;
    }
    if (*result.characters == ':') {
        result.report_missing = true;
        ++result.characters;
    }
    return result;
}

bool stops_at_non_option(const option_string& options) {
    if (conventions == CONVENTIONS_UNKNOWN) {
        const bool posix = options.stop_at_non_option || std::getenv("POSIXLY_CORRECT") != nullptr;
        conventions = posix ? CONVENTIONS_POSIX : CONVENTIONS_PERMUTE;
    }
    return conventions == CONVENTIONS_POSIX;
}

void report_short(const char* program, const char* message) {
    if (opterr != 0) {
        std::fprintf(stderr, "%s: %s -- %c\n", program, message, optopt);
    }
}

void report_long(const char* program, const char* prefix, const char* name, const char* message) {
    if (opterr != 0) {
        std::fprintf(stderr, "%s: option `%s%s' %s\n", program, prefix, name, message);
    }
}

void follow_caller(int argc) {
    if (optind < 1) {
        optreset = 1;
    }
    if (optreset != 0 || optind < optbase) {
        if (optreset != 0) {
            optind = 1;
            optreset = 0;
        }
        argind = optbase = optmark = optind - 1;
        nextchar = nullptr;
    } else if (optind - 1 > argind) {
        argind = optind - 1;
        nextchar = nullptr;
    }
    // A shorter vector than the last call's, or an optind beyond its end.
    argind = std::min(argind, argc - 1);
    optmark = std::min(optmark, argind + 1);
    optbase = std::min(optbase, optmark);
}

// Moves argv[optmark, argind] in front of the skipped non-options.
void complete_permutation(char** argv) {
    std::rotate(argv + optbase, argv + optmark, argv + argind + 1);
    optbase += argind + 1 - optmark;
    optmark = argind + 1;
}

int end_scan(int argc) {
    argind = argc - 1;
    optmark = argc;
    optind = optbase;
    return end_of_options;
}

// The argument behind the one being scanned, which then belongs to the option; null at the end.
char* take_next_argument(int argc, char** argv) {
    return argind + 1 < argc ? argv[++argind] : nullptr;
}

int next_short(int argc, char** argv, const char* program, const option_string& options) {
    const char character = *nextchar++;
    optopt = static_cast<unsigned char>(character);
    if (*nextchar == '\0') {
        nextchar = nullptr;
    }
    const char* found = character != ':' ? std::strchr(options.characters, character) : nullptr;
    int result = optopt;
    if (found == nullptr) {
        report_short(program, "invalid option");
        result = option_error;
    } else if (found[1] == ':') {
        optarg = nextchar;
        nextchar = nullptr;
        if (optarg == nullptr && found[2] != ':') {
            optarg = take_next_argument(argc, argv);
            if (optarg == nullptr) {
                report_short(program, "option requires an argument");
                result = options.report_missing ? ':' : option_error;
            }
        }
    }
    optind = nextchar != nullptr ? argind : argind + 1;
    return result;
}

constexpr int no_match = -1;
constexpr int ambiguous = -2;

// The table index of the one option that `text`, up to its '=' or its end, names or abbreviates.
int find_long(const char* text, const option* longopts) {
    const size_t length = std::strcspn(text, "=");
    int found = no_match;
    for (int i = 0; longopts != nullptr && longopts[i].name != nullptr; ++i) {
        if (std::strncmp(longopts[i].name, text, length) != 0) {
            continue;
        }
        if (longopts[i].name[length] == '\0') {
            return i;
        }
        found = found == no_match ? i : ambiguous;
    }
    return found;
}

// A long option that stands without the argument that it needs, or with one that it does not take.
int misused_long(const char* program, const option& entry, const char* message, int result) {
    report_long(program, "--", entry.name, message);
    optopt = entry.val;
    return result;
}

int resolve_long(int argc, char** argv, const char* program, const option_string& options,
                 const option& entry) {
    char* value = std::strchr(argv[argind] + 2, '=');
    optind = argind + 1;
    if (value != nullptr && entry.has_arg == OPTION_NO_ARGUMENT) {
        return misused_long(program, entry, "doesn't accept an argument", option_error);
    }
    if (value != nullptr) {
        optarg = value + 1;
    } else if (entry.has_arg == OPTION_REQUIRED_ARGUMENT) {
        optarg = take_next_argument(argc, argv);
        if (optarg == nullptr) {
            return misused_long(program, entry, "requires an argument",
                                options.report_missing ? ':' : option_error);
        }
        optind = argind + 1;
    }
    if (entry.flag != nullptr) {
        *entry.flag = entry.val;
        return 0;
    }
    return entry.val;
}

int next_long(int argc, char** argv, const char* program, const option_string& options,
              const option* longopts, int* longindex) {
    const int found = find_long(argv[argind] + 2, longopts);
    if (found < 0) {
        optopt = 0;
        optind = argind + 1;
        if (found == ambiguous) {
            report_long(program, "", argv[argind], "is ambiguous");
        } else if (opterr != 0) {
            std::fprintf(stderr, "%s: unrecognised option `%s'\n", program, argv[argind]);
        }
        return option_error;
    }
    if (longindex != nullptr) {
        *longindex = found;
    }
    return resolve_long(argc, argv, program, options, longopts[found]);
}

}  // namespace

int getopt_long(int argc, char** argv, const char* optstring, const option* longopts, int* longindex) {
    optarg = nullptr;
    if (argc < 1) {
        return end_of_options;
    }
    const option_string options = read_option_string(optstring);
    const char* program = argv[0];
    follow_caller(argc);
    if (nextchar != nullptr) {
        return next_short(argc, argv, program, options);
    }
    complete_permutation(argv);
    while (++argind < argc) {
        char* argument = argv[argind];
        if (argument[0] != '-' || argument[1] == '\0') {
            if (options.return_non_options) {
                optarg = argument;
                optind = argind + 1;
                return 1;
            }
            if (stops_at_non_option(options)) {
                --argind;
                optind = optbase;
                return end_of_options;
            }
            optmark = argind + 1;
        } else if (std::strcmp(argument, "--") == 0) {
            complete_permutation(argv);
            return end_scan(argc);
        } else if (argument[1] == '-') {
            return next_long(argc, argv, program, options, longopts, longindex);
        } else {
            nextchar = argument + 1;
            return next_short(argc, argv, program, options);
        }
    }
    return end_scan(argc);
}

}  // namespace mirvok
