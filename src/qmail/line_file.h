// Locked editing of qmail's line-oriented files (control/rcpthosts,
// control/virtualdomains, users/assign, .qmail delivery files): the one way
// this program adds lines to them and removes lines from them.
//
// Every edit holds the file's lock (qmail/lock.h) and, except an append,
// writes the new contents to "<path>.tmp" (util/atomic_file.h), gives it the
// file's owner, group and mode, puts it on disk and renames it over the
// file, so readers, a crash or a power loss find the old or the new
// contents, never a mixture or a part. A failed edit removes the temporary
// file, except that a prepend to a missing file leaves it holding the new
// lines; one left by a killed run is taken over by the next edit. A
// symbolic link that the mail user planted in the path is not followed.
#ifndef DRAVNIK_QMAIL_LINE_FILE_H_
#define DRAVNIK_QMAIL_LINE_FILE_H_

#include <cstdio>

// (op, how) of file_strings().
enum {
  kLinesAdd = 0,       // how: kAddPrepend or kAddAppend
  kLinesRemove = 1,    // lines exactly equal to a given one; how ignored
  kLinesRemoveBy = 2,  // how: kMatchPrefix, kMatchSuffix or kMatchSubstring
};
enum { kAddPrepend = 0, kAddAppend = 1 };
enum { kMatchPrefix = 0, kMatchSuffix = 1, kMatchSubstring = 2 };

// Edits `path` under its lock. `lines` is a null-terminated list; a line may
// or may not end with "\n" (one is added when written).
//   (0, 0) prepend the lines (the file must exist);
//   (0, 1) append them (the file is created if missing);
//   (1, _) remove every line equal to one of them (the file must exist);
//   (2, 0|1|2) remove every line that starts with, ends with or contains
//          one of them. With several strings a kept line is written once for
//          every string tried before the first that matches it, so callers
//          pass one string.
// Any other code leaves the contents as they are. Returns 0, or 1 after
// reporting the failure.
int file_strings(const char* path, const char* const* lines, int op, int how);

// Takes every line equal to one of `drop` out of `path` (as (1, _) does)
// and puts `lines` at the top (as (0, 0) does), in one rewrite under one
// lock: the result is byte for byte that of the two edits in turn, but the
// file is copied once and no reader sees it between them. The file must
// exist; when it does not, the temporary file is left holding the new
// lines, as a prepend leaves it. Either list may be null (empty). Returns 0,
// or 1 after reporting the failure; a failure changes nothing.
int file_remove_prepend(const char* path, const char* const* drop,
                        const char* const* lines);

// file_remove_prepend() that also sets `*seen` when a line it keeps (one
// not in `drop`) ends with `suffix`: whether a second edit that changes
// such lines has anything to do.
int file_remove_prepend_watch(const char* path, const char* const* drop,
                              const char* const* lines, const char* suffix, bool* seen);

// Takes every line equal to one of `drop` out of `path` (as (1, _) does)
// and appends `lines` (as (0, 1) does), under one lock: the result is byte
// for byte that of the two edits in turn. The file must exist. Returns 0;
// kRemoveFailed (nothing appended) or kAppendFailed after reporting.
enum { kRemoveFailed = 1, kAppendFailed = 2 };
int file_remove_append(const char* path, const char* const* drop, const char* const* lines);

// file_strings() with a one-line list.
int file_str(const char* path, const char* line, int op, int how);

// Writes each line to `stream`, adding "\n" where a line lacks one.
// 0, or -1 when a write failed (errno tells why); nothing is reported.
int write_strings(FILE* stream, const char* const* lines);

// Held editing, for a run that applies many commands in a row. While a
// hold is open, the first edit of one of the `paths` given takes the file's
// lock and KEEPS it, and reads the file into memory once; that edit and
// every later one of the path work on the lines in memory, with the same
// results the edits on the file would have had. line_files_write_held()
// then writes each changed file once, as an edit does (temporary file,
// the current file's owner and mode, fsync, rename), and lets the locks go.
// Other paths are edited on disk as always. Until the write, the file on
// disk is the one of before the hold: a run killed meanwhile leaves it
// whole and as it was.
void line_files_hold(const char* const* paths);
// Writes and releases everything held and ends the hold. 0, or 1 after
// reporting a file that could not be written (the others are written).
int line_files_write_held();
// Ends the hold without writing: the held edits are forgotten, the locks
// let go, and every held file stays as it was before the hold. For a run
// whose other writes failed, so that the files do not run ahead of them.
void line_files_drop_held();
// Writes one held path now and lets its lock go, for an edit that must
// read or lock the real file (a sed child); its next edit holds it again.
// 0 when it was not held or is written, else 1 after reporting.
int line_file_write_held(const char* path);
// Whether `fd` carries the lock of a held file, which outlives the edit
// that took it on purpose.
bool line_files_hold_descriptor(int fd);

#endif  // DRAVNIK_QMAIL_LINE_FILE_H_
