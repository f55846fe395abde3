// Writes one JSON document to a file, a value at a time; nesting and commas are kept here.
#pragma once

#include <cstdint>
#include <cstdio>

namespace mirvok {

// Begins a document on an open file, which stays the caller's.
void json_begin(std::FILE* file);

// Ends the document. Returns 0 when everything was written, else 1.
int json_end();

// `key` is null for an element of an array. Keys are plain ASCII texts of our own.
void json_open_object(const char* key);
void json_open_array(const char* key);
void json_close();
void json_null(const char* key);
void json_bool(const char* key, bool value);
void json_number(const char* key, int64_t value);
void json_unsigned(const char* key, uint64_t value);

// A text, or null. Bytes outside 20h to 7Eh are written as \u00XX, so that the document is valid whatever a
// drive says.
void json_text(const char* key, const char* text);

}  // namespace mirvok
