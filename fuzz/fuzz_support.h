// What every fuzz target shares.
#ifndef DRAVNIK_FUZZ_FUZZ_SUPPORT_H_
#define DRAVNIK_FUZZ_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>

// Points the process-wide log at a writer that formats each message (so its
// arguments are still read, under the sanitizers) and drops it: millions of
// rejected inputs must not flood the terminal.
void quiet_logging();

// The input as the NUL-terminated text a C-level function would be given:
// everything up to the first NUL byte.
std::string input_text(const uint8_t* data, size_t size);

// Ends the run as a finding when a property the rest of the program relies
// on does not hold; libFuzzer saves the input that did it.
void require(bool holds, const char* property);

#endif  // DRAVNIK_FUZZ_FUZZ_SUPPORT_H_
