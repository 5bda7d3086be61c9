// Whole-file copies and small file helpers.
#ifndef DRAVNIK_QMAIL_FILE_COPY_H_
#define DRAVNIK_QMAIL_FILE_COPY_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdio>

// Copies `source` to a temporary file beside `destination`, gives it
// uid:gid and `mode`, and renames it over `destination`, so that readers see
// the old file or the whole new one. Any failure ends the process.
void copy_file_atomic(const char* source, const char* destination, uid_t uid,
                      gid_t gid, mode_t mode);

// Copies `source` to `destination` ("-": standard output) under the
// destination's lock. A new destination gets the source's mode. Equal names
// are success at once. 0, or 1 after reporting the failure.
int copy_file(const char* source, const char* destination);

// fclose() that reports a failure; fclose()'s result.
int p_fclose(FILE* stream);

// Points `*found` at the first of the null-terminated `candidates` that
// exists and returns 1; null and 0 when none does.
int find_file(const char** found, const char* const* candidates);

// Copies the first line of `path`, without surrounding white space, into
// `buffer` of `size` bytes. An empty file gives "". 0, or -1 after
// reporting the failure (including a line too long for the buffer).
int get_string_from_file(char* buffer, size_t size, const char* path);

#endif  // DRAVNIK_QMAIL_FILE_COPY_H_
