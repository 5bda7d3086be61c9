// Mail domains as qmail sees them, and their domain aliases.
//
// A domain D is served when four things agree: D is a line of
// control/rcpthosts, "D:D" a line of control/virtualdomains, the wildcard
// line "+D:popuser:<uid>:<gid>:<root>/D:::" heads users/assign, and the
// directory <root>/D exists. Names are written to those files in their
// lower-case ASCII (IDNA) form; the authentication database, the reject
// list and control/locals get the name as the caller gave it.
//
// Every add first removes the line it is about to write, so repeating an
// operation never duplicates a line. Failures that would leave qmail's files
// inconsistent end the process with status 1; the others return -1 after
// reporting why. The caller runs qmail-newu and signals qmail-send
// afterwards (qmail_control.h).
#ifndef DRAVNIK_QMAIL_MAIL_DOMAINS_H_
#define DRAVNIK_QMAIL_MAIL_DOMAINS_H_

#include <sys/types.h>

#include <string>

// The form in which `name` is written to qmail's files: its ASCII form,
// lower-cased when `lower`. False when libidn refuses the name; its result
// code goes to `*rc`.
bool qmail_domain_form(const char* name, bool lower, std::string* out, int* rc);

// Creates the domain's directory (the whole path lower-cased) owned by
// popuser, or by uid:gid, with mode 0700. 0 or -1.
int mail_create_domain_root(const char* domain);
int mail_create_domain_root_internal(const char* domain, uid_t uid, gid_t gid);

// Makes `domain` served; on failure takes away what it made. 0 or -1.
int add_mail_dom(const char* domain);
// Stops (off) or resumes (on) accepting mail for the domain; users/assign,
// the directory and the mailboxes stay. Enabling keeps the name's case.
int off_mail_dom(const char* domain);
int on_mail_dom(const char* domain);
// Removes the domain with its mail names' assign lines, its directory tree
// and its authentication records. 0 or -1.
int rm_mail_dom(const char* domain);

// Domain aliases: "A:D" in control/virtualdomains and A in rcpthosts.
// Return 0; every failure that matters ends the process.
int add_domain_alias(const char* domain, const char* alias);
int del_domain_alias(const char* domain, const char* alias);
int rename_domain_alias(const char* domain, const char* old_alias, const char* new_alias);

// What the add-domain and remove-domain commands run: add_mail_dom(), a
// bounce for unknown names and the name out of control/locals; the reject
// entries off and rm_mail_dom(). 0 or -1.
int add_domain(const char* domain);
int remove_domain(const char* domain);

#endif  // DRAVNIK_QMAIL_MAIL_DOMAINS_H_
