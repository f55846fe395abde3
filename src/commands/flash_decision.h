// Whether a drive is updated, and what became of it.
#pragma once

#include <cstdint>

#include "commands/drive_lookup.h"

namespace mirvok {

// Decides whether a drive with a matched record needs its firmware: slot->update and slot->result tell.
void check_is_update(drive* slot);

// With --idle, for a drive that is to be updated: refuses it when somebody uses it, or when that is unknown.
void check_is_idle(drive* slot);

// What became of a drive that has been dealt with.
outcome_t outcome_of(const drive* slot);

// 0 when both texts are equal; 2 when their lengths differ, else the sign of the first byte that does.
int compare_code_level(const char* current, uint32_t current_length, const char* expected,
                       uint32_t expected_length);

}  // namespace mirvok
