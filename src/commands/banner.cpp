#include "commands/banner.h"

#include "common/diagnostics.h"

namespace mirvok {

void print_banner(const char* operation) {
    report("\nMirvok -- %s\t\t\t\tv:17.4.2[Mon Jul 30 14:18:10 2018]\n", operation);
    report("-------------------------------------------------------------------------\n");
    flush_output();
}

}  // namespace mirvok
