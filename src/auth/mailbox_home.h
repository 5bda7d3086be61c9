// Where the mailbox of an address is: the home directory that qmail's
// users/assign gives the address's local part, through the prefix that
// control/virtualdomains gives its domain. A mail name's own line, an
// alias's line (the mail name's directory) and a domain alias (whose
// virtualdomains line points at the real domain's prefix) all end there.
#ifndef DRAVNIK_AUTH_MAILBOX_HOME_H_
#define DRAVNIK_AUTH_MAILBOX_HOME_H_

#include <string>

namespace tavix {
namespace auth {

// The first line of the file open on `fd` that starts with `start`,
// without its newline. The files asked (users/assign, control/
// virtualdomains) hold a line per mail name or domain, megabytes on a large
// server, and every login asks for one line of each: the file is searched
// `block` bytes at a time, never read whole, and the search stops at the
// line. 1 with `*line` set, 0 when no line starts so, -1 on a read error
// (errno tells why).
int FindLineStarting(int fd, const std::string& start, std::string* line, size_t block = 65536);

// The prefix that the virtualdomains file open on `fd` maps `domain` to: 1
// with `*prefix` set, 0 when no line names it, -1 on a read error.
int FindVirtualPrefix(int fd, const std::string& domain, std::string* prefix,
                      size_t block = 65536);

// The home directory of the exact assign line for `key` ("prefix-local"),
// from the users/assign open on `fd`: 1 with `*home` set, 0 when there is
// no such line or it breaks qmail's format, -1 on a read error.
int FindAssignHome(int fd, const std::string& key, std::string* home, size_t block = 65536);

// Both look-ups on the installed files. 1 with `*home` set, 0 when the
// address has no mailbox there, -1 after logging that a file could not be
// read. The commands replace these files by renaming new copies over them,
// so a read without their lock never sees half an edit.
int MailboxHome(const std::string& mailname, const std::string& domain, std::string* home);

}  // namespace auth
}  // namespace tavix

#endif  // DRAVNIK_AUTH_MAILBOX_HOME_H_
