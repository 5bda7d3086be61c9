// Mail users and domains in the authentication database.
// Every call opens the database, does its work and closes it again.
#ifndef DRAVNIK_MAILAUTH_AUTH_RECORDS_H_
#define DRAVNIK_MAILAUTH_AUTH_RECORDS_H_

#include <cstdint>
#include <string>

// Flags byte passed with passwords.
enum {
  MAIL_AUTH_RAW_PASSWORD = 1,    // stored unencrypted in cmusaslsecretPLAIN
  MAIL_AUTH_USER_DISABLED = 2,
  MAIL_AUTH_DOMAIN_DISABLED = 4,
  MAIL_AUTH_NO_DOMAIN_REGISTER = 8,  // domain lookups only
};

// Called with the full address, the password and the flags byte; a result of
// 0 or less stops an iteration.
typedef int (*mail_auth_callback)(const char* address, const char* password, uint8_t flags,
                                  void* data);

int mailAuthSet(const char* mailname, const char* domain, const char* password, uint8_t flags);
int mailAuthSetRaw(const char* mailname, const char* domain, const char* password, uint8_t flags);
int set_postbox_passwd(const char* mailname, const char* domain, const char* password,
                       uint8_t flags);
int mailAuthRemove(const char* mailname, const char* domain);
int mailAuthRename(const char* old_mailname, const char* new_mailname, const char* domain);
int mailAuthClone(const char* old_mailname, const char* old_domain, const char* new_mailname,
                  const char* new_domain);
int mailAuthEnableDomain(const char* domain);
int mailAuthDisableDomain(const char* domain);
int mailAuthRenameDomain(const char* old_domain, const char* new_domain);
int mailAuthRemoveDomain(const char* domain);
int mailAuthCheck(const char* address, mail_auth_callback callback, void* data);
int mailAuthCheckShort(const char* mailname, mail_auth_callback callback, void* data);
int mailAuthIterateAll(mail_auth_callback callback, void* data);

// One user's stored record as it is, for a program that judges a login
// itself: nothing decrypted, nothing handed to a callback.
struct MailAuthRecord {
  bool has_encrypted = false;  // userPassword is not NULL
  std::string encrypted;       // userPassword, "$AES-256-CBC:PKCS$..."
  bool has_raw = false;        // cmusaslsecretPLAIN is not NULL
  std::string raw;             // cmusaslsecretPLAIN, a crypt hash
  bool user_disabled = false;
  bool domain_disabled = false;
};
// Looks mailname@domain up with the single-user query on a connection that
// never writes. 1 with `*record` filled, 0 when there is no such user, -1
// after logging a failure (SQLITE_BUSY beyond the limit of
// tavix::sqlite::limit_busy_wait included).
int mailAuthLookup(const char* mailname, const char* domain, MailAuthRecord* record);

#endif  // DRAVNIK_MAILAUTH_AUTH_RECORDS_H_
