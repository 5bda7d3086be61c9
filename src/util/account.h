// System accounts and groups, the host's fully qualified name, and signals
// to processes by name.
#ifndef DRAVNIK_UTIL_ACCOUNT_H_
#define DRAVNIK_UTIL_ACCOUNT_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

// Looks the account `user` up and fills what is asked for (each out may be
// null); `*home` receives a heap copy of the home directory (free() it).
// Returns 0, or -1 after printing why.
int tavix_getpw(const char* user, uid_t* uid, gid_t* gid, char** home);

// The uid of `user` (want_gid 0) or its gid (want_gid non-zero); 0 when the
// account is unknown, so callers treat 0 as "not found".
uid_t tavix_ugid(const char* user, int want_gid);

// The ids of `user`, found once per process: a batch of thousands of
// commands asks for popuser's several times in each. False when there is
// no such account (that answer is not kept).
bool tavix_account_ids(const char* user, uid_t* uid, gid_t* gid);

// The id of a group given by name or by number. Returns 0 after printing
// why when there is no such group; errno is left as the look-up set it, for
// callers that must tell "root" from "not found".
gid_t get_group_id(const char* group);

// Copies the host's fully qualified name (it must contain a ".") into
// `buffer` of `length` bytes. Returns 0, or -1 after logging why.
int get_hostname_fqdn(char* buffer, size_t length);

// Sends signal `sig` to every process named `name` with killall; returns the
// result of running it (0 when a process was signalled).
int send_sig(const char* name, int sig);
// The same; when killall fails, what it reported also goes to `*failure`.
int send_sig(const char* name, int sig, std::string* failure);

#endif  // DRAVNIK_UTIL_ACCOUNT_H_
