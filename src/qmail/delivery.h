// Delivery lines of mail names and the IMAP/POP3 server they deliver to.
//
// Each mail name's directory holds a .qmail file. Without a mailbox it says
// only "| true"; with one it also hands the mail to the local delivery agent
// of the IMAP/POP3 server installed beside qmail. Which server that is, is
// found by looking for its delivery agent.
#ifndef DRAVNIK_QMAIL_DELIVERY_H_
#define DRAVNIK_QMAIL_DELIVERY_H_

#include <cstddef>

// Server kinds that detectImapPop3Server() returns.
enum {
  kImapPop3Unknown = -1,
  kImapPop3Courier = 0,
  kImapPop3Dovecot = 1,
};

// Finds the installed IMAP/POP3 server by its delivery agent: Courier's
// /usr/bin/deliverquota first, Dovecot's dovecot-lda otherwise. The agent
// must be an executable regular file. A found server is remembered for the
// rest of the process; a failure (logged) is not, so the next call looks
// again. Returns a kImapPop3 kind.
int detectImapPop3Server();

// "Courier-IMAP", "Dovecot", or "" when no server is detected.
const char* getImapPop3ServerHumanReadableName();
// The server's package component: "courier-imap", "dovecot" or "".
const char* getImapPop3ServerParcelmgrComponentName();

// The lower-case path of the mail name's directory, or of its .qmail, in
// `buffer` of `size` bytes; the domain is converted to its ASCII form.
// 0, or -1 after reporting an invalid name or a buffer too short.
int get_mailhome_path(char* buffer, size_t size, const char* mailname,
                      const char* domain);
int get_dotqmail_path(char* buffer, size_t size, const char* mailname,
                      const char* domain);

// The line of a fresh .qmail, which discards the mail: "| true".
extern const char kDiscardLine[];
// 1 when `line` (without its newline) is one of the delivery lines this
// program writes or once wrote: a .qmail holding one makes its mail name a
// mailbox. Else 0.
int is_delivery_line(const char* line);

// Writes a fresh .qmail that discards the mail ("| true"), owned by popuser
// with mode 0600, beside the old one and renamed over it (a link planted at
// the name is replaced, not written through). A failed write leaves no file
// at all. Done under the file's lock, which also lets it remove the
// temporary files of resets killed before their rename. 0 or -1 (logged).
int dotqmail_reset(const char* path);
// dotqmail_reset() in a directory this run has just made: no killed run
// can have left a temporary beside the file, so none is looked for.
int dotqmail_reset_new(const char* path);

// Held .qmail files, for a run that applies many commands in a row. From
// dotqmail_hold() on, a reset only notes the fresh contents, and the
// delivery line edits of a noted file change the note instead of the file;
// dotqmail_write_held() writes each noted file once, as a reset writes it
// (popuser, mode 0600, renamed into place; under the file's lock unless
// its directory was made by this run), skipping one whose directory is gone
// since, and forgets the notes. For a run that holds users/assign as well
// (qmail/line_file.h) until the write. Edits of files
// that no reset noted go to disk as always. Until the write, the file on
// disk is the one of before its reset (none for a new mail name): a run
// killed meanwhile leaves it whole. 0, or 1 after reporting a file that
// could not be written (the others are written; a file not written keeps
// its old contents).
void dotqmail_hold();
int dotqmail_write_held();
// Forgets the notes not written and ends the hold.
void dotqmail_end_hold();

// Makes the detected server's delivery line the only one in the existing
// .qmail at `path`, which then belongs to popuser with mode 0600.
// 0 or -1 (logged).
int dotqmail_add_delivery(const char* path);

// Removes every delivery line this program may have written (older forms
// included) and gives the file to popuser with mode 0600. 0 or -1 (logged).
int dotqmail_remove_delivery(const char* path);

// Removes those delivery lines only. 0 or -1 (logged).
int dotqmail_remove_delivery_strings(const char* path);

// dotqmail_add_delivery() / dotqmail_remove_delivery() on the .qmail of
// mailname@domain. 0 or -1 (logged).
int add_mailname_delivery(const char* mailname, const char* domain);
int remove_mailname_delivery(const char* mailname, const char* domain);

#endif  // DRAVNIK_QMAIL_DELIVERY_H_
