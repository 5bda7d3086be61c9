// Reading qmail's line files for the audit and the export:
// control/rcpthosts, control/virtualdomains, control/locals,
// control/rejectnonexist, users/assign and the times of users/assign and
// users/cdb.
//
// Each file is read under its own lock and the lock is let go right after,
// so a running dravnik waits at most for one read. The commands replace
// these files by renaming whole new copies over them, so a read never sees
// half an edit even when a lock stays taken; a lock held longer than the
// audit is willing to wait is reported, and the file is read all the same.
#ifndef DRAVNIK_AUDIT_QMAIL_FILES_H_
#define DRAVNIK_AUDIT_QMAIL_FILES_H_

#include <sys/stat.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tavix {
namespace audit {

// One line of users/assign:
//   =address:user:uid:gid:home:::   (exact)
//   +prefix:user:uid:gid:home:::    (wildcard)
struct AssignLine {
  std::string text;  // as written
  char type = 0;     // '=' or '+'; 0 for a line that does not parse
  std::string key;   // address or prefix
  std::string user;
  std::string home;
};

// Parses one line (without its newline). A line that breaks qmail's format
// gets type 0.
AssignLine ParseAssignLine(const std::string& text);

struct QmailFiles {
  std::set<std::string> rcpthosts;
  std::set<std::string> locals;
  std::set<std::string> rejectnonexist;  // names whose unknown addresses are refused
  std::vector<std::pair<std::string, std::string>> virtualdomains;  // name, prefix
  std::vector<AssignLine> assign;  // without the final "."
  bool assign_terminated = false;  // the last line is "."
  bool assign_trailing = false;    // something follows the "." line
  bool has_cdb = false;
  struct timespec assign_mtime = {0, 0};
  struct timespec cdb_mtime = {0, 0};
  std::vector<std::string> held_locks;   // files whose lock stayed taken
  // Leftovers of killed edits: the temporary file and the file it was to
  // replace, under whose lock it was written.
  std::vector<std::pair<std::string, std::string>> temporaries;
  std::vector<std::string> unreadable;   // "path: reason"
};

// The paths qmail reads, each edited only under its lock.
extern const char* const kEditedFiles[];

// Reads them all. `lock_wait_ms` bounds the wait for each lock.
QmailFiles ReadQmailFiles(int lock_wait_ms);


}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_QMAIL_FILES_H_
