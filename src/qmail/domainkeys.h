// DomainKeys signing keys: "/etc/domainkeys/<domain>/default", root-owned,
// readable by the mail group. Domain lists are comma-separated.
#ifndef DRAVNIK_QMAIL_DOMAINKEYS_H_
#define DRAVNIK_QMAIL_DOMAINKEYS_H_

extern const char* const kDomainKeysDir;  // "/etc/domainkeys"

// The key file's path (malloc'ed, the caller frees it), or null.
char* get_domainkeys_file(const char* domain);
// 1 when the domain's key file exists and is a regular file, else 0.
int domainkeys_enabled(const char* domain);
// Copies `key_file` to every domain of the list; 0 or -1.
int set_domain_key(const char* domains, const char* key_file);
// Gives every domain of `domains` the key of `domain`, if it has one; 0 or -1.
int clone_domain_key(const char* domain, const char* domains);
// Removes the key directories of the listed domains; 0 or -1.
int remove_domain_key(const char* domains);

#endif  // DRAVNIK_QMAIL_DOMAINKEYS_H_
