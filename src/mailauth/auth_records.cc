#include "mailauth/auth_records.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <new>
#include <string>

#include "mailauth/auth_db.h"
#include "mailauth/cipher.h"
#include "mailauth/sqlite_db.h"
#include "util/log.h"
#include "util/unique_free.h"

namespace {

using tavix::sqlite::Database;
using tavix::sqlite::Statement;

// Queries and messages are kept whole, each on one line, so that a logged
// text leads to its source with a plain search.

// Names are compared and stored in lower case by SQLite itself (LOWER), so
// every caller's spelling finds the same row.
const char kDomainLookup[] = "SELECT id FROM domains WHERE name=LOWER(?)";
const char kDomainRegister[] = "INSERT INTO domains (name, status) VALUES(LOWER(?), ?)";
// A password is written in one of two columns; replacing the whole row on
// the unique (name, dom_id) pair clears whatever the other column held.
const char kUserWriteEncrypted[] =
    "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) VALUES (LOWER(?), ?, ?, ?)";
const char kUserWriteRaw[] =
    "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, status, dom_id) VALUES (LOWER(?), ?, ?, ?)";
const char kUserDelete[] = "DELETE FROM users WHERE name=LOWER(?) AND dom_id=?";
const char kUserRename[] = "UPDATE users SET name=LOWER(?) WHERE name=LOWER(?) AND dom_id=?";
const char kDomainStatus[] = "UPDATE domains SET status=? WHERE name=LOWER(?)";
const char kDomainRename[] = "UPDATE domains SET name=LOWER(?) WHERE name=LOWER(?)";
// The schema's trigger deletes the domain's users with it.
const char kDomainDelete[] = "DELETE FROM domains WHERE name=LOWER(?)";
const char kSingleCheck[] =
    "SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, u.status AS userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = d.id AND u.name=LOWER(?) AND d.name=LOWER(?)";
const char kIterateBase[] =
    "SELECT u.name || '@' || d.name as mailAddress, u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, u.status AS userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = d.id";
const char kIterateAll[] = "ORDER BY d.name, u.name";
const char kIterateMailname[] = "AND u.name=LOWER(?)";
const char kCopyDomain[] = "SELECT id, status FROM domains WHERE name=LOWER(?)";
const char kCopyUser[] =
    "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users WHERE dom_id=? AND name=LOWER(?)";

// Steps a prepared write to its end. 0, or -1 after logging `format` with
// the query and SQLite's message.
int execute(Statement& stmt, const char* format, const char* query) {
  if (stmt.step() == SQLITE_DONE)
    return 0;
  return stmt.fail(format, query);
}

// The id of `domain` on the open `db`, or -1. A missing domain is
// registered (disabled with MAIL_AUTH_DOMAIN_DISABLED) unless `flags` has
// MAIL_AUTH_NO_DOMAIN_REGISTER; an existing one is never changed.
sqlite3_int64 getDomainId(const char* domain, Database& db, int flags) {
  {
    Statement lookup;
    if (lookup.prepare(db, kDomainLookup) != 0 ||
        !lookup.bind_text(
            1, domain, "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s",
            domain, kDomainLookup))
      return -1;
    int rc = lookup.step();
    if (rc == SQLITE_ROW)
      return lookup.column_int(0);
    if (rc != SQLITE_DONE) {
      lookup.fail("Unable to execute the domain selection query: %s");
      return -1;
    }
  }
  if (flags & MAIL_AUTH_NO_DOMAIN_REGISTER)
    return -1;

  int status = (flags & MAIL_AUTH_DOMAIN_DISABLED) ? 1 : 0;
  Statement registration;
  if (registration.prepare(db, kDomainRegister) != 0 ||
      !registration.bind_text(
          1, domain, "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s",
          domain, kDomainRegister) ||
      !registration.bind_int(
          2, status, "Unable to bind parameter status '%d' for domain '%s' to SQL statement for query '%s': %s",
          status, domain, kDomainRegister))
    return -1;
  if (registration.step() != SQLITE_DONE) {
    registration.fail("Unable to execute the mail domain authentication registration query: %s");
    return -1;
  }
  return sqlite3_last_insert_rowid(db.get());
}

// Hands one stored password to `callback`: the decrypted userPassword when
// there is one (the stored text itself if it cannot be decrypted), else the
// raw column, flagged as raw when present. The callback's result.
int checkPassword(const char* address, const char* encrypted, const char* raw,
                  sqlite3_int64 user_status, sqlite3_int64 domain_status,
                  mail_auth_callback callback, void* data) {
  tavix::unique_free<char> decrypted;
  const char* password = raw;
  uint8_t flags = 0;
  if (encrypted && *encrypted) {
    decrypted.reset(mailPasswdCipherOp(encrypted, 0, address, nullptr));
    password = decrypted ? decrypted.get() : encrypted;
  } else if (raw) {
    flags |= MAIL_AUTH_RAW_PASSWORD;
  }
  if (user_status)
    flags |= MAIL_AUTH_USER_DISABLED;
  if (domain_status)
    flags |= MAIL_AUTH_DOMAIN_DISABLED;
  return callback(address, password, flags, data);
}

// Opens the database read-only and prepares the iteration query ended by
// `suffix`. 0 or -1.
int prepareIterateDBQuery(Database& db, Statement& stmt, const char* suffix) {
  std::string query;
  try {
    query = std::string(kIterateBase) + " " + suffix;
  } catch (const std::bad_alloc&) {
    tavix_log(LOG_ERR, "Insufficient memory");
    return -1;
  }
  if (db.open_readonly(mailAuthDB) != 0)
    return -1;
  return stmt.prepare(db, query.c_str());
}

// Hands every row of the iteration query to `callback` until it answers 0
// or less. That answer, the last one, 1 when it was never called, or -1.
int doIterateDB(Statement& stmt, mail_auth_callback callback, void* data) {
  int result = 1;
  int rc;
  while ((rc = stmt.step()) == SQLITE_ROW) {
    const char* address = stmt.column_text(0);
    const char* encrypted = stmt.column_text(1);
    const char* raw = stmt.column_text(2);
    if (!address || !*address) {
      tavix_log(LOG_WARNING, "NULL or empty mail address stored in the database, skipped");
      continue;
    }
    if (!encrypted && !raw) {
      tavix_log(LOG_INFO,
                "empty password properties (both plain and encrypted) for user %s, skipped",
                address);
      continue;
    }
    result = checkPassword(address, encrypted, raw, stmt.column_int(3), stmt.column_int(4),
                           callback, data);
    if (result <= 0)
      return result;
  }
  if (rc != SQLITE_DONE)
    return stmt.fail("Unable to execute the user selection query: %s");
  return result;
}

// One user's record as stored, for copying it elsewhere.
struct StoredUser {
  tavix::unique_free<char> mailname;  // null: there is no such user
  tavix::unique_free<char> password;  // as stored, still encrypted
  uint8_t flags = 0;
};

// A heap copy of a column's text; false when the copy failed.
bool copy_text(const char* text, tavix::unique_free<char>* out) {
  if (!text)
    return true;
  out->reset(strdup(text));
  return out->get() != nullptr;
}

// Reads the stored record of mailname@domain into `*record`, which stays
// empty when the domain or the user is unknown. 0 or -1.
int get_user_data(const char* mailname, const char* domain, StoredUser* record) {
  Database db;
  if (db.open_readonly(mailAuthDB) != 0)
    return -1;

  sqlite3_int64 dom_id;
  sqlite3_int64 dom_status;
  {
    Statement lookup;
    if (lookup.prepare(db, kCopyDomain, "Unable to get domain id: %s") != 0 ||
        !lookup.bind_text(1, domain, "Unable to bind parameter domain id for: %s: %s", domain))
      return -1;
    int rc = lookup.step();
    if (rc == SQLITE_DONE)
      return 0;
    if (rc != SQLITE_ROW) {
      tavix_log(LOG_ERR, "Unable to get mail domain id for: %s", domain);
      return -1;
    }
    dom_id = lookup.column_int(0);
    dom_status = lookup.column_int(1);
  }

  Statement user;
  if (user.prepare(db, kCopyUser) != 0 ||
      !user.bind_int(1, dom_id, "Unable to bind parameter bind domain id for: %s: %s", domain) ||
      !user.bind_text(2, mailname, "Unable to bind parameter bind mailname %s: %s", mailname))
    return -1;
  int rc = user.step();
  if (rc == SQLITE_DONE)
    return 0;
  if (rc != SQLITE_ROW)
    return user.fail("Unable to get passwd for mailname: %s: %s", mailname);

  const char* raw = user.column_text(2);
  uint8_t flags = 0;
  if (dom_status)
    flags |= MAIL_AUTH_DOMAIN_DISABLED;
  if (user.column_int(3))
    flags |= MAIL_AUTH_USER_DISABLED;
  if (raw)
    flags |= MAIL_AUTH_RAW_PASSWORD;
  if (!copy_text(user.column_text(0), &record->mailname) ||
      !copy_text(raw ? raw : user.column_text(1), &record->password)) {
    tavix_log(LOG_ERR, "System error: %s", strerror(errno));
    record->mailname.reset();
    record->password.reset();
    return -1;
  }
  record->flags = flags;
  return 0;
}

// Sets the status of `domain`: 0 enabled, 1 disabled. An unknown domain
// is no error.
int set_domain_status(const char* domain, int status) {
  Database db;
  Statement stmt;
  if (db.open(mailAuthDB) != 0 || stmt.prepare(db, kDomainStatus) != 0 ||
      !stmt.bind_int(1, status,
                     "Unable to bind parameter status %d to  SQL statement for query '%s': %s",
                     status, kDomainStatus) ||
      !stmt.bind_text(2, domain,
                      "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s",
                      domain, kDomainStatus))
    return -1;
  return execute(stmt,
                 "Unable to execute the mail domain authorization status change query: %s: %s",
                 kDomainStatus);
}

}  // namespace

int mailAuthSet(const char* mailname, const char* domain, const char* password, uint8_t flags) {
  if (!password || (flags & MAIL_AUTH_RAW_PASSWORD))
    return mailAuthSetRaw(mailname, domain, password, flags);
  tavix::unique_free<char> encrypted(mailPasswdCipherOp(password, 1, mailname, domain));
  if (!encrypted)
    return -1;
  return mailAuthSetRaw(mailname, domain, encrypted.get(), flags);
}

int mailAuthSetRaw(const char* mailname, const char* domain, const char* password,
                   uint8_t flags) {
  Database db;
  if (db.open(mailAuthDB) != 0)
    return -1;
  sqlite3_int64 dom_id = getDomainId(domain, db, flags & MAIL_AUTH_DOMAIN_DISABLED);
  if (dom_id < 0) {
    tavix_log(LOG_ERR, "No such domain '%s' in the mail authentication DB", domain);
    return -1;
  }

  const char* query = (flags & MAIL_AUTH_RAW_PASSWORD) ? kUserWriteRaw : kUserWriteEncrypted;
  int status = (flags & MAIL_AUTH_USER_DISABLED) ? 1 : 0;
  Statement stmt;
  if (stmt.prepare(db, query) != 0 ||
      !stmt.bind_text(1, mailname,
                      "Unable to bind parameter mailname '%s' to SQL statement for query '%s': %s",
                      mailname, query) ||
      !stmt.bind_text(2, password,
                      "Unable to bind parameter password for mail address '%s@%s' to SQL statement for query '%s': %s",
                      mailname, domain, query) ||
      !stmt.bind_int(3, status,
                     "Unable to bind parameter status for mail address '%s@%s' to  SQL statement for query '%s': %s",
                     mailname, domain, query) ||
      !stmt.bind_int(4, dom_id,
                     "Unable to bind parameter domain ID for mail address '%s@%s' to  SQL statement for query '%s': %s",
                     mailname, domain, query))
    return -1;
  return execute(stmt, "Unable to execute the mail authorization registration query: %s: %s",
                 query);
}

int set_postbox_passwd(const char* mailname, const char* domain, const char* password,
                       uint8_t flags) {
  if (password && *password)
    return mailAuthSet(mailname, domain, password, flags);
  return mailAuthRemove(mailname, domain);
}

int mailAuthRemove(const char* mailname, const char* domain) {
  Database db;
  if (db.open(mailAuthDB) != 0)
    return -1;
  // A domain that was never registered has no users to remove.
  sqlite3_int64 dom_id = getDomainId(domain, db, MAIL_AUTH_NO_DOMAIN_REGISTER);
  if (dom_id < 0)
    return 0;

  Statement stmt;
  if (stmt.prepare(db, kUserDelete) != 0 ||
      !stmt.bind_text(
          1, mailname, "Unable to bind parameter mailname '%s' to  SQL statement for query '%s': %s",
          mailname, kUserDelete) ||
      !stmt.bind_int(2, dom_id,
                     "Unable to bind parameter domain ID for mail address '%s@%s' to  SQL statement for query '%s': %s",
                     mailname, domain, kUserDelete))
    return -1;
  return execute(stmt, "Unable to execute the mail authorization removal query: %s: %s",
                 kUserDelete);
}

int mailAuthRename(const char* old_mailname, const char* new_mailname, const char* domain) {
  Database db;
  if (db.open(mailAuthDB) != 0)
    return -1;
  sqlite3_int64 dom_id = getDomainId(domain, db, MAIL_AUTH_NO_DOMAIN_REGISTER);
  if (dom_id < 0) {
    tavix_log(LOG_ERR, "No such domain '%s' in the mail authentication DB", domain);
    return -1;
  }

  Statement stmt;
  if (stmt.prepare(db, kUserRename) != 0 ||
      !stmt.bind_text(1, new_mailname,
                      "Unable to bind parameter new mailname '%s' to  SQL statement for query '%s': %s",
                      new_mailname, kUserRename) ||
      !stmt.bind_text(2, old_mailname,
                      "Unable to bind parameter old mailname '%s' to  SQL statement for query '%s': %s",
                      old_mailname, kUserRename) ||
      !stmt.bind_int(3, dom_id,
                     "Unable to bind parameter domain ID for mail address '%s@%s' to  SQL statement for query '%s': %s",
                     old_mailname, domain, kUserRename))
    return -1;
  return execute(stmt, "Unable to execute the mail authorization renaming query: %s: %s",
                 kUserRename);
}

int mailAuthClone(const char* old_mailname, const char* old_domain, const char* new_mailname,
                  const char* new_domain) {
  StoredUser record;
  if (get_user_data(old_mailname, old_domain, &record) != 0) {
    tavix_log(LOG_ERR, "Unable to get users list from MTA password database");
    return -1;
  }
  if (!record.mailname)
    return 0;
  // The stored text is copied as it is: an encrypted password stays
  // encrypted under the same key, and the flags carry the source domain's
  // state over to a target domain that has to be registered.
  return mailAuthSetRaw(new_mailname, new_domain, record.password.get(), record.flags);
}

int mailAuthEnableDomain(const char* domain) { return set_domain_status(domain, 0); }

int mailAuthDisableDomain(const char* domain) { return set_domain_status(domain, 1); }

int mailAuthRenameDomain(const char* old_domain, const char* new_domain) {
  Database db;
  Statement stmt;
  if (db.open(mailAuthDB) != 0 || stmt.prepare(db, kDomainRename) != 0 ||
      !stmt.bind_text(1, new_domain,
                      "Unable to bind parameter new domain name '%s' to SQL statement for query '%s': %s",
                      new_domain, kDomainRename) ||
      !stmt.bind_text(2, old_domain,
                      "Unable to bind parameter old domain name '%s' to SQL statement for query '%s': %s",
                      old_domain, kDomainRename))
    return -1;
  return execute(stmt, "Unable to execute the mail domain authorization name change query: %s: %s",
                 kDomainRename);
}

int mailAuthRemoveDomain(const char* domain) {
  Database db;
  Statement stmt;
  if (db.open(mailAuthDB) != 0 || stmt.prepare(db, kDomainDelete) != 0 ||
      !stmt.bind_text(1, domain,
                      "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                      domain, kDomainDelete))
    return -1;
  return execute(stmt, "Unable to execute the domain mail authorization removal query: %s: %s",
                 kDomainDelete);
}

int mailAuthCheck(const char* address, mail_auth_callback callback, void* data) {
  const char* at = address ? strchr(address, '@') : nullptr;
  if (!at || at == address || at[1] == '\0') {
    tavix_log(LOG_ERR, "Invalid mail address '%s'", address ? address : "");
    return -1;
  }
  const char* domain = at + 1;
  int mailname_length = static_cast<int>(at - address);

  Database db;
  Statement stmt;
  if (db.open_readonly(mailAuthDB) != 0 || stmt.prepare(db, kSingleCheck) != 0 ||
      !stmt.bind_prefix(1, address, mailname_length,
                        "Unable to bind parameter mailname '%.*s' to SQL statement for query '%s': %s",
                        mailname_length, address, kSingleCheck) ||
      !stmt.bind_text(2, domain,
                      "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                      domain, kSingleCheck))
    return -1;

  int rc = stmt.step();
  if (rc == SQLITE_ROW) {
    const char* encrypted = stmt.column_text(0);
    const char* raw = stmt.column_text(1);
    if (!encrypted && !raw) {
      tavix_log(LOG_INFO, "NULL password fields (both plain and encrypted) for user %s, skipped",
                address);
      return -1;
    }
    return checkPassword(address, encrypted, raw, stmt.column_int(2), stmt.column_int(3),
                         callback, data);
  }
  if (rc == SQLITE_DONE) {
    tavix_log(LOG_INFO, "No such user '%s' in mail authorization database", address);
    return 1;
  }
  return stmt.fail("Unable to execute the user selection query: %s");
}

int mailAuthLookup(const char* mailname, const char* domain, MailAuthRecord* record) {
  Database db;
  Statement stmt;
  if (db.open_never_writing(mailAuthDB) != 0 || stmt.prepare(db, kSingleCheck) != 0 ||
      !stmt.bind_text(1, mailname,
                      "Unable to bind parameter mailname '%s' to SQL statement for query '%s': %s",
                      mailname, kSingleCheck) ||
      !stmt.bind_text(2, domain,
                      "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                      domain, kSingleCheck))
    return -1;
  int rc = stmt.step();
  if (rc == SQLITE_DONE)
    return 0;
  if (rc != SQLITE_ROW)
    return stmt.fail("Unable to execute the user selection query: %s");
  const char* encrypted = stmt.column_text(0);
  const char* raw = stmt.column_text(1);
  record->has_encrypted = encrypted != nullptr;
  record->encrypted = encrypted ? encrypted : "";
  record->has_raw = raw != nullptr;
  record->raw = raw ? raw : "";
  record->user_disabled = stmt.column_int(2) != 0;
  record->domain_disabled = stmt.column_int(3) != 0;
  return 1;
}

int mailAuthCheckShort(const char* mailname, mail_auth_callback callback, void* data) {
  Database db;
  Statement stmt;
  if (prepareIterateDBQuery(db, stmt, kIterateMailname) != 0 ||
      !stmt.bind_text(1, mailname, "Unable to bind parameter mailname '%s' to  SQL statement: %s",
                      mailname))
    return -1;
  return doIterateDB(stmt, callback, data);
}

int mailAuthIterateAll(mail_auth_callback callback, void* data) {
  Database db;
  Statement stmt;
  if (prepareIterateDBQuery(db, stmt, kIterateAll) != 0)
    return -1;
  return doIterateDB(stmt, callback, data);
}
