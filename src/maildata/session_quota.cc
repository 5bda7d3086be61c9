#include "maildata/session_quota.h"

#include <cstring>

#include "maildata/session_mail_data.h"
#include "qmail/maildirpp.h"
#include "util/log.h"

namespace {

const int kLogError = 3;
const int64_t kUnlimited = -1;

bool describes(const mail_db_data_t* session, const char* domain) {
  return session->name && strcmp(session->name, domain) == 0;
}

}  // namespace

int store_default_mbox_quota(const char* domain, int64_t quota) {
  const mail_db_data_t* session = session_mail_db_info;
  if (!session) {
    tavix_log(kLogError,
              "Session mail DB info is not filled in call to %s(). Probably a "
              "programming error.",
              __func__);
    return 0;
  }
  if (!describes(session, domain)) {
    tavix_log(kLogError,
              "Session mail DB info is invalid, expected one for domain '%s', "
              "got '%s'",
              domain, session->name ? session->name : "");
    return 0;
  }
  for (size_t i = 0; i < session->mails.count; ++i) {
    const mail_db_mail_t& mail = session->mails.values[i];
    if (mail.mbox_quota != kUnlimited)
      continue;  // a quota of its own wins over the default
    if (!store_mbox_quota(domain, mail.name, quota)) {
      tavix_log(kLogError,
                "Unable to set default mbox quota for domain '%s' (processing "
                "'%s')",
                domain, mail.name);
      return 0;
    }
  }
  return 1;
}

int store_domain_quota(const char* domain, int64_t quota) {
  return store_default_mbox_quota(domain, quota);
}

int rm_domain_quota(const char* domain) {
  return store_default_mbox_quota(domain, kUnlimited);
}

int rm_default_mbox_quota(const char* domain) {
  return store_default_mbox_quota(domain, kUnlimited);
}

namespace {

// Commands run without session data have no domain default: unlimited.
int64_t default_mbox_quota(const char* domain) {
  const mail_db_data_t* session = session_mail_db_info;
  return session && describes(session, domain) ? session->mbox_quota : kUnlimited;
}

}  // namespace

int rm_mbox_quota(const char* domain, const char* mailname) {
  return store_mbox_quota(domain, mailname, default_mbox_quota(domain)) != 0;
}

int rm_mbox_quota_in(const char* domain, int home) {
  return store_mbox_quota_in(home, default_mbox_quota(domain)) != 0;
}
