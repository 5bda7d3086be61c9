// Null-terminated arrays of heap strings and small string helpers.
//
// A string array is a malloc'ed array of malloc'ed strings ended by a null
// pointer; an empty array is a null pointer. Its owner frees it with
// free_array().
#ifndef DRAVNIK_UTIL_STRINGS_H_
#define DRAVNIK_UTIL_STRINGS_H_

#include <string>

// Appends a heap copy of `str` to `array` (which may be null) and returns the
// grown array. The array passed in is consumed: on allocation failure it is
// freed, the failure is logged and null is returned, so the usual
// `list = string_to_mas(list, s)` neither leaks nor keeps a stale pointer.
char** string_to_mas(char** array, const char* str);

// Frees every string and then the array; null is accepted.
void free_array(char** array);

// Splits `text` at any of the bytes in `delimiters`. Runs of delimiters
// before a field are skipped, but the text after the last delimiter is always
// added: "a,,b," gives "a", "b" and "". Returns null after logging a failure.
char** string_split(const char* text, const char* delimiters);

// Lower-cases `str` in place; null is accepted.
void strtolower(char* str);

namespace tavix {

// `text` as a JSON string, quotes included; bytes of 0x80 and above are
// written as they are (the programs' JSON output is UTF-8 when the names are).
std::string json_quote(const std::string& text);

// `length` bytes as lower-case hexadecimal, two digits each.
std::string hex_string(const unsigned char* bytes, size_t length);

}  // namespace tavix

#endif  // DRAVNIK_UTIL_STRINGS_H_
