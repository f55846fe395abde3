// The machine that the lab plays: its drives with what lasts from run to run, its nodes, its faults and the
// journal of what reached it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bytes.h"

namespace mirvok::lab {

using nlohmann::json;

// The variable that names the state directory to the library.
constexpr const char* home_variable = "MIRVOK_LAB";

// Additional sense code and qualifier of unit attentions (SPC-4, annex F).
constexpr uint16_t attention_reset = 0x2900;
constexpr uint16_t attention_microcode = 0x3F01;

struct drive {  // NOLINT(bugprone-exception-escape): json moves without throwing
    std::string name;
    json self;               // the description in the machine file
    json lasting;            // "level", "smart", "next_level": kept in state.json
    bytes received;          // the firmware image of the download under way
    bool vanished = false;   // gone from its nodes for the rest of the run
    uint16_t attention = 0;  // additional sense code and qualifier of a unit attention that waits
};

struct fault {
    json rule;
    uint32_t seen = 0;  // occurrences so far
};

struct machine {                 // NOLINT(bugprone-exception-escape)
    std::filesystem::path home;  // the state directory
    json description;            // the machine file as the command left it
    std::map<std::string, drive> drives;
    std::map<std::string, std::string> nodes;  // node to drive name
    std::vector<fault> faults;
    pid_t program = 0;  // whom a fault's signal is for; 0 is the calling process
};

// Read at the first call from the directory that home_variable names; an empty machine without one.
machine& the_machine();

// Held while a call is answered: drives, faults and journal are one thread's at a time. Reading the machine
// makes calls of its own.
std::recursive_mutex& machine_lock();

// The drive behind a node or of a name; null when there is none.
drive* drive_at(const std::string& node);
drive* drive_named(const std::string& name);

// Counts one occurrence of `command` for every fault that it matches, and returns the first fault that is
// due; an empty object when none is. `subject` holds the keys that a fault may name: "drive", "node",
// "library".
json due_fault(const json& subject, const std::string& command);

// Sets a lasting value of a drive and writes state.json.
void remember(drive& d, const std::string& key, const json& value);

std::string text_of(const json& object, const std::string& key, const std::string& fallback);
// Numbers may be written as numbers or as texts ("0x1F").
uint64_t number_of(const json& object, const std::string& key, uint64_t fallback);
std::string level_of(const drive& d);
bool smart_on(const drive& d);

// Appends one line; it is in the file when the call returns.
void journal(const std::string& line);

}  // namespace mirvok::lab
