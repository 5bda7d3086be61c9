#include "mailauth/auth_db.h"

#include <errno.h>
#include <libgen.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <openssl/crypto.h>

#include <functional>
#include <memory>
#include <string>

#include "mailauth/cipher.h"
#include "mailauth/sqlite_db.h"
#include "util/account.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/unique_free.h"

namespace {

const char kQmailStyleDB[] = "/var/lib/tavix/mail/auth/passwd.db";
const char kQmailStyleKey[] = "/var/lib/tavix/mail/auth/passwd_db_key";
const char kPostfixStyleDB[] = "/var/spool/postfix/tavix/passwd.db";
const char kPostfixStyleKey[] = "/var/spool/postfix/tavix/passwd_db_key";

// The mail server's authentication side reads this schema as it is, so the
// text is kept byte for byte, spacing included.
const char kSchema[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT, name   VARCHAR(255) UNIQUE, status INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX domains_name ON domains(name);"
    "CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  FOR EACH ROW BEGIN    DELETE FROM users WHERE dom_id = OLD.id;  END;"
    "CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT, dom_id       INTEGER NOT NULL, name         VARCHAR(255) NOT NULL, userPassword VARCHAR(255), cmusaslsecretPLAIN VARCHAR(255), status INT NOT NULL DEFAULT 0, UNIQUE(name, dom_id));"
    "CREATE INDEX users_name ON users(name);"
    "CREATE INDEX users_dom_id ON users(dom_id);"
    "CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "COMMIT;";

constexpr size_t kKeyBytes = 32;

const char kProductRoot[] = "/usr/local/zon";
// Lines of the feature list that name the mail server begin with this.
const char kServerFeature[] = "$features['SMTP_Server']";

// The steps of creating the directories above a file, for the callers that
// word their own reports.
enum class DirFailure { kNone, kMemory, kDirname, kMkdir };

// Creates the missing directories above `file`; `*dir` receives the
// directory (when it could be determined) for the report.
DirFailure make_parent_dirs(const char* file, std::string* dir) {
  tavix::unique_free<char> copy(strdup(file));
  if (!copy) {
    errno = ENOMEM;
    return DirFailure::kMemory;
  }
  const char* parent = dirname(copy.get());
  if (!parent)
    return DirFailure::kDirname;
  dir->assign(parent);
  if (!createNestedDirectory(parent))
    return DirFailure::kMkdir;
  return DirFailure::kNone;
}

// Owner, then mode, of `path`; the first failure is reported. 0 or -1.
int set_owner_and_mode(const char* path, uid_t owner, gid_t group, mode_t mode) {
  if (chown(path, owner, group) != 0) {
    tavix_log(LOG_CRIT, "chown(\"%s\", %d, %d) failed: %s", path, static_cast<int>(owner),
              static_cast<int>(group), strerror(errno));
    return -1;
  }
  if (chmod(path, mode) != 0) {
    tavix_log(LOG_CRIT, "chmod(\"%s\", %04o) failed: %s", path, static_cast<unsigned>(mode),
              strerror(errno));
    return -1;
  }
  return 0;
}

// Opens (creating when missing) the database at `path`, runs `sql` and
// closes it, all under the busy rule. A failing script is reported through
// `report` with SQLite's message, empty when it gave none.
int run_script(const char* path, const char* sql,
               const std::function<void(const std::string&)>& report) {
  tavix::sqlite::Database db;
  if (db.open(path) != 0)
    return -1;
  std::string message;
  int result = 0;
  if (db.exec(sql, &message) != SQLITE_OK) {
    report(message);
    result = -1;
  }
  if (db.close() != SQLITE_OK)
    result = -1;
  return result;
}

class UmaskScope {
 public:
  explicit UmaskScope(mode_t mask) : saved_(umask(mask)) {}
  ~UmaskScope() { umask(saved_); }
  UmaskScope(const UmaskScope&) = delete;
  UmaskScope& operator=(const UmaskScope&) = delete;

 private:
  mode_t saved_;
};

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

// getline()'s buffer.
struct LineBuffer {
  LineBuffer() = default;
  ~LineBuffer() { free(data); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  char* data = nullptr;
  size_t capacity = 0;
};

// Key bytes that are wiped on every way out of the frame holding them.
struct WipedKey {
  WipedKey() = default;
  ~WipedKey() { OPENSSL_cleanse(bytes, sizeof(bytes)); }
  WipedKey(const WipedKey&) = delete;
  WipedKey& operator=(const WipedKey&) = delete;

  unsigned char bytes[kKeyBytes];
};

}  // namespace

int mailAuthDBStyleAccess(int style, MailAuthAccess* access) {
  if (style == 0) {
    // The mail server's authentication side reads through this group.
    gid_t nofiles = get_group_id("nofiles");
    if (errno != 0)
      return -1;
    *access = {0, nofiles, 0640, 0, nofiles, 0750, 0, nofiles, 0440};
    return 0;
  }
  if (style == 1) {
    errno = 0;
    const struct passwd* postfix = getpwnam("postfix");
    if (!postfix) {
      tavix_log(LOG_CRIT, "Unable to get user id for \"%s\": %s", "postfix", strerror(errno));
      return -1;
    }
    // Owner may only read and the group may write: intended for this layout.
    *access = {postfix->pw_uid, 0, 0460, postfix->pw_uid, postfix->pw_gid, 0770,
               postfix->pw_uid, 0, 0440};
    return 0;
  }
  *access = {0, 0, 0600, 0, 0, 0750, 0, 0, 0400};
  return 0;
}

const char* mailAuthDB = kQmailStyleDB;
const char* mailAuthKey = kQmailStyleKey;

void mailAuthDBSelectStyle(int style) {
  if (style == 0) {
    mailAuthDB = kQmailStyleDB;
    mailAuthKey = kQmailStyleKey;
  } else if (style == 1) {
    mailAuthDB = kPostfixStyleDB;
    mailAuthKey = kPostfixStyleKey;
  }
}

void mailAuthDBSetPath(const char* path) { mailAuthDB = path; }

void mailAuthKeySetPath(const char* path) { mailAuthKey = path; }

char* mailAuthDBToKeyPath(const char* db_path) {
  tavix::unique_free<char> copy(strdup(db_path));
  if (!copy)
    return nullptr;
  char* key_path = nullptr;
  if (asprintf(&key_path, "%s/passwd_db_key", dirname(copy.get())) < 0)
    return nullptr;
  return key_path;
}

int mailAuthDBStyleFromFeatureLine(const char* line) {
  const size_t prefix = sizeof(kServerFeature) - 1;
  if (strncmp(line, kServerFeature, prefix) != 0)
    return -1;
  const char* open = strpbrk(line + prefix, "'\"");
  const char* value = open ? open + 1 : nullptr;
  const char* close = value && *value ? strpbrk(value, "'\"") : nullptr;
  if (!close) {
    tavix_log(LOG_INFO, "Unparseable line \"%s\", skipped", line);
    return -1;
  }
  // Only the value's length minus one is compared, so its last character
  // never counts (and a one-character value is taken for postfix). Other
  // tools read the same list this way; the two must agree.
  size_t length = static_cast<size_t>(close - value);
  if (length > 0) {
    if (strncasecmp(value, "postfix", length - 1) == 0)
      return 1;
    if (strncasecmp(value, "qmail", length - 1) == 0)
      return 0;
  }
  int shown = length > 0 ? static_cast<int>(length - 1) : 0;
  tavix_log(LOG_INFO, "Unknown server style \"%.*s\", skipped", shown, value);
  return -1;
}

int mailAuthDBDetectStyle() {
  char command[4096];
  int length = snprintf(command, sizeof(command), "%s/admin/sbin/dravnik-server --features",
                        kProductRoot);
  if (length <= 0 || static_cast<size_t>(length) >= sizeof(command)) {
    tavix_log(LOG_ERR, "path to dravnik is too long, check PRODUCT_ROOT_D (%s)", kProductRoot);
    return -1;
  }
  std::unique_ptr<FILE, PipeCloser> features(popen(command, "r"));
  if (!features) {
    tavix_log(LOG_ERR, "unable to execute %s: %s", command, strerror(errno));
    return -1;
  }
  LineBuffer line;
  ssize_t read;
  while ((read = getline(&line.data, &line.capacity, features.get())) >= 0) {
    if (read > 0 && line.data[read - 1] == '\n')
      line.data[read - 1] = '\0';
    int style = mailAuthDBStyleFromFeatureLine(line.data);
    if (style >= 0)
      return style;
  }
  features.reset();
  tavix_log(LOG_INFO,
            "Unable to determine mail server type from ``dravnik-server --features''");
  return -1;
}

int createDBPath(const char* file) {
  std::string dir;
  switch (make_parent_dirs(file, &dir)) {
    case DirFailure::kNone:
      return 0;
    case DirFailure::kMemory:
      tavix_log(LOG_CRIT, "Memory allocation error");
      break;
    case DirFailure::kDirname:
      tavix_log(LOG_CRIT, "dirname(%s) failed: %s", file, strerror(errno));
      break;
    case DirFailure::kMkdir:
      tavix_log(LOG_CRIT, "recursive mkdir(%s) failed: %s", dir.c_str(), strerror(errno));
      break;
  }
  return -1;
}

int sqlite_create_db_path(const char* path, const char* label) {
  std::string dir;
  switch (make_parent_dirs(path, &dir)) {
    case DirFailure::kNone:
      return 0;
    case DirFailure::kMemory:
      tavix_log(LOG_CRIT, "Memory allocation error");
      break;
    case DirFailure::kDirname:
      tavix_log(LOG_CRIT, "Unable to get dirname for %s database (%s): %s (%d)", label, path,
                strerror(errno), errno);
      break;
    case DirFailure::kMkdir:
      tavix_log(LOG_CRIT, "Unable to create directories for %s database (%s): %s (%d)", label,
                dir.c_str(), strerror(errno), errno);
      break;
  }
  return -1;
}

int sqlite_db_create(const char* path, const char* sql, const char* label) {
  return run_script(path, sql, [label](const std::string& message) {
    if (message.empty())
      tavix_log(LOG_ERR, "Unable to re-create %s database", label);
    else
      tavix_log(LOG_ERR, "Unable to re-create %s database: %s", label, message.c_str());
  });
}

int mailAuthDBInit() {
  if (createDBPath(mailAuthDB) != 0)
    return -1;
  // Always from scratch: whatever the old file held is given up.
  unlink(mailAuthDB);
  return run_script(mailAuthDB, kSchema, [](const std::string& message) {
    if (message.empty())
      tavix_log(LOG_ERR, "Unable to re-create Mail Authentication Database");
    else
      tavix_log(LOG_ERR, "Unable to re-create Mail Authentication Database: %s",
                message.c_str());
  });
}

int mailAuthKeyInit() {
  if (createDBPath(mailAuthKey) != 0)
    return -1;
  unlink(mailAuthKey);

  WipedKey key;
  if (mail_aes_gen_key(key.bytes, sizeof(key.bytes)) == 0) {
    tavix_log(LOG_CRIT, "Unable to generate new Mail Authentication Password Encryption Key data: %s",
              strerror(errno));
    return -1;
  }

  UmaskScope private_files(077);
  tavix::UniqueFile file(fopen(mailAuthKey, "w"));
  bool written = file && fwrite(key.bytes, sizeof(key.bytes), 1, file.get()) == 1;
  if (file && fclose(file.release()) != 0)
    written = false;
  if (!written) {
    tavix_log(LOG_ERR, "Unable to re-create Mail Authentication Password Encryption Key: %s",
              strerror(errno));
    return -1;
  }
  return 0;
}

int mailAuthDBSetAccess(uid_t db_owner, gid_t db_group, mode_t db_mode, uid_t dir_owner,
                        gid_t dir_group, mode_t dir_mode) {
  tavix::unique_free<char> copy(strdup(mailAuthDB));
  if (!copy) {
    errno = ENOMEM;
    tavix_log(LOG_CRIT, "Memory allocation error");
    return -1;
  }
  // Never hand "/" or the current directory to the database's owner.
  const char* dir = dirname(copy.get());
  if (dir[0] != '/' || dir[1] == '\0') {
    tavix_log(LOG_CRIT, "Invalid mail authentication DB path %s", mailAuthDB);
    return -1;
  }
  if (set_owner_and_mode(dir, dir_owner, dir_group, dir_mode) != 0)
    return -1;
  return set_owner_and_mode(mailAuthDB, db_owner, db_group, db_mode);
}

int mailAuthKeySetAccess(uid_t owner, gid_t group, mode_t mode) {
  return set_owner_and_mode(mailAuthKey, owner, group, mode);
}

int mailAuthDBInitStyle(int style) {
  mailAuthDBSelectStyle(style);
  if (mailAuthDBInit() != 0 || mailAuthKeyInit() != 0)
    return -1;
  MailAuthAccess access;
  if (mailAuthDBStyleAccess(style, &access) != 0)
    return -1;
  if (mailAuthDBSetAccess(access.db_owner, access.db_group, access.db_mode, access.dir_owner,
                          access.dir_group, access.dir_mode) != 0)
    return -1;
  return mailAuthKeySetAccess(access.key_owner, access.key_group, access.key_mode);
}
