// Mailbox quotas from the session mail data: the domain's default quota
// applied to the mailboxes that have none of their own.
//
// Each returns 1 on success and 0 after logging a failure.
#ifndef DRAVNIK_MAILDATA_SESSION_QUOTA_H_
#define DRAVNIK_MAILDATA_SESSION_QUOTA_H_

#include <cstdint>

// Stores `quota` bytes (negative: unlimited) for every mailbox of the
// session's mail names whose own quota is -1; the session must describe
// `domain`. Mailboxes with a quota of their own are left alone.
int store_default_mbox_quota(const char* domain, int64_t quota);
int store_domain_quota(const char* domain, int64_t quota);

// The same with no limit.
int rm_domain_quota(const char* domain);
int rm_default_mbox_quota(const char* domain);

// Gives the mailbox of mailname@domain the domain's default quota from the
// session mail data; unlimited when the session says nothing about the
// domain.
int rm_mbox_quota(const char* domain, const char* mailname);
// The same for a mailbox of `domain` whose directory is open as `home`.
int rm_mbox_quota_in(const char* domain, int home);

#endif  // DRAVNIK_MAILDATA_SESSION_QUOTA_H_
