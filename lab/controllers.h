// What the stand-in controller libraries have in common: the machine's controllers, faults of requests, and
// the checks of what a program hands to a library.
#pragma once

#include <string>

#include "commands.h"
#include "machine.h"

namespace mirvok::lab {

// Filled where a library's answer says nothing, so that a byte read from the wrong place shows.
constexpr uint8_t noise = 0xA5;

// The machine's controllers of a type ("MR", "IR", "IR2", "IR3", "IT", "MARVELL").
const std::vector<json>& controllers_of(const std::string& type);

// The entry of a controller's "drives" with this device id; an empty object when there is none.
json entry_of(const json& controller, uint64_t device);

// What a due fault makes of a request: a status instead of carrying it out, one given after it, or other
// content of its data, of the kind that `spoil` knows.
struct request_fault {
    uint32_t instead = 0;
    uint32_t afterwards = 0;
    std::string data;
};
request_fault request_fault_of(const std::string& library, const std::string& command);

// What the machine file lets a library do beyond answering, when it is initialised (`life` is what its thread
// runs) and when it is asked to exit.
void begin_life(const std::string& file, void* (*life)(void*));
void end_life(const std::string& file);

// Journals what a real library would choke on, unless `holds`; returns `holds`.
bool demand(bool holds, const std::string& request, const std::string& what);

// A drive's answer through a library: completions that only carry ATA registers count as good. The caller
// holds the machine once, and does not while the drive takes its time.
reply run_behind_controller(drive& d, const scsi_command& c);

}  // namespace mirvok::lab
