// Where the mail authentication database and its key live, and how they are
// created, owned and protected.
//
// Two installation styles put them in different places: 0 beside the other
// qmail data ("/var/lib/tavix/mail/auth"), 1 inside postfix's spool. The
// record operations (auth_records.h) work on whatever the paths say.
#ifndef DRAVNIK_MAILAUTH_AUTH_DB_H_
#define DRAVNIK_MAILAUTH_AUTH_DB_H_

#include <sys/types.h>

extern const char* mailAuthDB;
extern const char* mailAuthKey;

// Style 0 or 1 sets both paths; any other value leaves them alone.
void mailAuthDBSelectStyle(int style);
// The pointer is kept, not copied.
void mailAuthDBSetPath(const char* path);
void mailAuthKeySetPath(const char* path);
// The directory of `db_path` followed by "/passwd_db_key" (free() it);
// null on allocation failure.
char* mailAuthDBToKeyPath(const char* db_path);

// Asks the installed server program which mail server it serves: 0 qmail,
// 1 postfix, -1 when it cannot tell.
int mailAuthDBDetectStyle();
// One line of that program's feature list: 0 or 1 when it names the
// server, -1 when it decides nothing (the reason is logged).
int mailAuthDBStyleFromFeatureLine(const char* line);

// Owners and modes of one style's files.
struct MailAuthAccess {
  uid_t db_owner;
  gid_t db_group;
  mode_t db_mode;
  uid_t dir_owner;
  gid_t dir_group;
  mode_t dir_mode;
  uid_t key_owner;
  gid_t key_group;
  mode_t key_mode;
};
// The owners and modes that mailAuthDBInitStyle() gives the files of
// `style`, for tools that check an installation. 0, or -1 when a look-up
// fails. A missing group "nofiles" fails only when the look-up sets errno,
// and is otherwise taken for group 0: callers make sure it exists first.
int mailAuthDBStyleAccess(int style, MailAuthAccess* access);

// Selects the paths of `style`, re-creates database and key (every stored
// password is lost) and gives them the style's owners and modes. 0 or -1.
int mailAuthDBInitStyle(int style);
// Re-create the database with an empty schema, or the key file with fresh
// random bytes, at the current path; neither changes owners. 0 or -1.
int mailAuthDBInit();
int mailAuthKeyInit();
// Owner and mode of the database's directory, then of the file. 0 or -1.
int mailAuthDBSetAccess(uid_t db_owner, gid_t db_group, mode_t db_mode, uid_t dir_owner,
                        gid_t dir_group, mode_t dir_mode);
int mailAuthKeySetAccess(uid_t owner, gid_t group, mode_t mode);
// Creates the missing directories above `file`. 0 or -1.
int createDBPath(const char* file);

// Shared with the mail handlers database; `label` names the database in messages.
int sqlite_create_db_path(const char* path, const char* label);
// Runs `sql` on the database at `path`, created when missing. 0 or -1.
int sqlite_db_create(const char* path, const char* sql, const char* label);

#endif  // DRAVNIK_MAILAUTH_AUTH_DB_H_
