// Mail names, their mailboxes and their aliases.
//
// A mail name M of domain D is an exact-match line of users/assign,
//   =D-M:popuser:<uid>:<gid>:<root>/D/M:::
// that hands mail for D-M to popuser in the directory <root>/D/M, which
// holds the Maildir, the .qmail delivery file and "@attachments". An alias
// A of M is a second line for D-A with the same directory. The mailbox (the
// part with a password) is the authentication record plus the delivery line
// into ./Maildir.
//
// The functions treat D differently, and callers rely on it:
// add_mailname converts D to ASCII (keeping a name libidn refuses) and
// lower-cases the line and the whole directory path; the alias functions
// convert D (a refused name ends the run) and lower-case the line;
// rm_mailname converts D but lower-cases nothing; ch_mailname uses D as
// given. The caller runs qmail-newu afterwards.
#ifndef DRAVNIK_QMAIL_MAILNAMES_H_
#define DRAVNIK_QMAIL_MAILNAMES_H_

#include <cstdint>

// Adds the assign line, the directory tree and its .qmail ("| true") and
// gives the mailbox the session's default quota. 0, or -1 when the .qmail
// could not be written; other failures undo the mail name and end the run.
int add_mailname(const char* mailname, const char* domain);
// Removes the assign line, the authentication record and the directory
// tree. -1 (the directory kept) when the record could not be removed.
int rm_mailname(const char* mailname, const char* domain);

// The alias line of `alias` pointing at mailname's directory. Adding ends
// the run on failure; removing only reports. Both return 0.
int add_mn_alias(const char* mailname, const char* domain, const char* alias);
int rm_mn_alias(const char* mailname, const char* domain, const char* alias);

// The mailbox: password record, delivery line and default quota. `flag` is
// the authentication flags byte (mailauth/auth_records.h). 0 or -1.
int add_mn_postbox(const char* mailname, const char* domain, const char* password,
                   uint8_t flag);
int rm_mn_postbox(const char* mailname, const char* domain);

// Renames a mail name within its domain: assign lines (aliases included),
// directory, authentication records (moved with a password, dropped
// without one) and the delivery lines of .qmail. Failures up to the
// directory rename are undone and end the run; later ones are reported and
// the rename stands. 0 or -1.
int ch_mailname(const char* old_mailname, const char* domain, const char* new_mailname,
                const char* password);

// Sets the mailbox quota to `bytes`; a negative size returns it to the
// session's domain default. 0 or -1.
int set_quota(const char* domain, const char* mailname, int64_t bytes);

#endif  // DRAVNIK_QMAIL_MAILNAMES_H_
