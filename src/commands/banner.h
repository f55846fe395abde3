// The head of what find and flash print.
#pragma once

namespace mirvok {

// Prints product, operation and version to standard output and, where one is open, to the log.
void print_banner(const char* operation);

}  // namespace mirvok
