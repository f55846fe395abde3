// Two questions about an identified drive: does it carry one of the maker's vendor identifications, and was
// it already handled in this run through another path?
#pragma once

#include <cstdint>

#include "storage/device_model.h"

namespace mirvok {

// 0 when the drive carries one of the maker's vendor identifications, 1 when it does not.
uint16_t is_veltra_disk(_pd_info* pd);

// 1 when a drive with the same part number and serial number was seen before, 0 when the drive is new; a new
// drive is entered in the serial-number list. A SATA drive without a usable serial number of the maker's
// takes the last 8 characters of its own serial number.
int check_serial_number(_pd_info* pd);

// The drive that the last duplicate was seen as before.
const _pd_info* duplicate_of();

// 1 when each of the first `length` characters is an ASCII digit or letter.
int is_digital_letter(const char* text, uint16_t length);
int is_digital(char character);
int is_letter(char character);

}  // namespace mirvok
