// What happens to mail for a name a hosted domain does not have: a bounce
// with a text or forwarding to a catch-all address, written as the domain's
// .qmail-default, or rejection during the SMTP dialogue, by listing the
// domain and its aliases in control/rejectnonexist.
//
// None of these ends the process: failures are reported and give -1.
#ifndef DRAVNIK_QMAIL_NONEXISTING_MAIL_H_
#define DRAVNIK_QMAIL_NONEXISTING_MAIL_H_

#include <string>

// The .qmail-default line that bounces with `text` (null or empty: the
// default text), as add_bounce() writes it.
std::string bounce_line(const char* text);

// Bounces with `text` (null or empty: the default text), or forwards to
// `address`; either takes the domain off the reject list. 0 or -1.
// Both refuse, with -1 and nothing changed, what is_bounce_text_safe() or
// is_catchall_address_safe() refuses.
int add_bounce(const char* domain, const char* text);
int add_catch(const char* domain, const char* address);
// Whether the text may go into the domain's one delivery line. A newline
// would end that line and let the rest stand as a delivery line of its own,
// so no control character (below 0x20, and 0x7f) is allowed; the one
// exception is a bounce text's newline (and tab), which the bounce writes
// as a blank (and quotes). 1 safe, 0 not; null counts as safe.
int is_catchall_address_safe(const char* address);
int is_bounce_text_safe(const char* text);
// Replaces the domain's .qmail-default with the one delivery line `line`,
// owned by popuser, mode 0600, written beside it and renamed over it. A
// failure leaves no .qmail-default at all. 0 or -1.
int add_qmail_default(const char* domain, const char* line);

// Lists (on 1) or unlists (on 0) the domain and each of its aliases known to
// the session mail data. add_reject() lists each name exactly once,
// del_reject() unlists them. 0 or -1.
int add_reject(const char* domain);
int del_reject(const char* domain);
int set_reject(const char* domain, int on);
// Lists the single name `name` exactly once. 0 or -1.
int add_reject_for(const char* name);
// Appends `name` to, or removes it from, the list file `file`. 0 or -1.
int set_reject_for(const char* file, const char* name, int on);
// Forms the list file's path in `buffer` (4096 bytes) and creates the file
// (empty, 0644) when it is missing. 0 or -1.
int touch_qmail_rejectnonexists_file(char* buffer);

#endif  // DRAVNIK_QMAIL_NONEXISTING_MAIL_H_
