// The terminal's line: on standard error, below the line in work, what is being done and how far it is. Only
// where standard error is a terminal that can move its cursor, and neither trace nor dumps are printed;
// everywhere else these functions do nothing. What is shown is gone before the next text on standard output:
// call progress_clear before it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirvok {

// Called once, after the global switches are known.
void init_progress();

// Drive `number` of `count` is in work; nothing of its line stands on standard output.
void progress_drive(uint32_t number, uint32_t count);

// The number of characters that were printed and flushed of its line.
void progress_continue(size_t column);

// What is being done to it.
void progress_step(const char* step);
void progress_sent(uint64_t sent, uint64_t size);  // bytes
void progress_percentage(uint32_t percentage);
void progress_attempt(int attempt, int attempts);

// Sleeps whole seconds and shows how many are left.
void progress_wait(unsigned int seconds);

// The same, but only until a signal is held that ends the run.
void progress_wait_unless_stopped(unsigned int seconds);

void progress_clear();

}  // namespace mirvok
