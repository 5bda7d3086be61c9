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

// The prefix that the virtualdomains text maps `domain` to; false when no
// line names it.
bool FindVirtualPrefix(const std::string& virtualdomains, const std::string& domain,
                       std::string* prefix);

// The home directory of the exact assign line for `key` ("prefix-local"),
// from the users/assign open on `fd`. The file of a large server holds a
// line per mail name and alias (megabytes), and every login asks for one of
// them: it is searched `block` bytes at a time, never held whole, and only
// that one line is parsed. 1 with `*home` set, 0 when there is no such line
// or it breaks qmail's format, -1 on a read error (errno tells why).
int FindAssignHome(int fd, const std::string& key, std::string* home, size_t block = 65536);

// Both look-ups on the installed files. 1 with `*home` set, 0 when the
// address has no mailbox there, -1 after logging that a file could not be
// read. The commands replace these files by renaming new copies over them,
// so a read without their lock never sees half an edit.
int MailboxHome(const std::string& mailname, const std::string& domain, std::string* home);

}  // namespace auth
}  // namespace tavix

#endif  // DRAVNIK_AUTH_MAILBOX_HOME_H_
