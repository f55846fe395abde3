// What became of a SCSI command, in the same sentences for every route: was it carried out, is it to be sent
// again, and did its data come?
#pragma once

#include <cstdint>

namespace mirvok {

// Whether `sense` (18 bytes or more) holds sense data of key 0h or 1h, with which the command was carried out
// (SPC-4, 4.5 and 4.5.6). A deferred error (71h, 73h) is an earlier command's, and this one was not.
bool is_carried_out(const uint8_t* sense);

// Whether the device refused the command: a status that is not GOOD without such sense data, or GOOD beside
// sense data of another key.
bool is_refused(uint8_t status, const uint8_t* sense);

// A unit attention condition came in the command's place (SPC-4, 5.14): it was not carried out, and is taken
// the next time.
bool is_unit_attention(uint8_t status, const uint8_t* sense);

// Bytes of `data` up to the last one that is not zero: what came, where nothing else tells.
uint32_t count_up_to_zeros(const void* data, uint32_t length);

// Whether `length` bytes are all zero.
bool is_zero(const void* data, uint32_t length);

// Whether data came at all, zeros being none, and reach to `end`.
bool has_data_up_to(uint32_t end, const void* data, uint32_t received);

}  // namespace mirvok
