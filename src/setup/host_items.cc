#include "setup/host_items.h"

#include <errno.h>
#include <grp.h>
#include <libgen.h>

#include <memory>
#include <optional>
#include <string>

#include "handlers/mail_handlers.h"
#include "mailauth/auth_db.h"
#include "qmail/domain_rename.h"
#include "qmail/line_file.h"
#include "qmail/lock.h"
#include "qmail/paths.h"
#include "util/account.h"
#include "util/fs.h"

namespace tavix {
namespace setup {

namespace {

const char kMailUser[] = "popuser";
const char kAuthGroup[] = "nofiles";

// Root's files and directories that everyone may read.
constexpr Access kRootDir = {0, 0, 0755};
constexpr Access kRootFile = {0, 0, 0644};
// The mail names root: popuser delivers into it.
constexpr mode_t kMailnamesMode = 0755;
// As fix_mh_db_permissions() sets it: root writes, popuser's group reads.
constexpr mode_t kHandlersDBMode = 0640;

std::string Parent(const std::string& path) {
  std::string copy = path;
  return dirname(&copy[0]);
}

bool MakeDirectory(const std::string& path) { return createNestedDirectory(path.c_str()) != 0; }

// A qmail file: empty, or holding `line`. The line goes in through the
// locked editor, so that a dravnik run at the same moment is not disturbed.
bool MakeQmailFile(const std::string& path, const char* line) {
  if (!MakeDirectory(Parent(path)))
    return false;
  if (line)
    return file_str(path.c_str(), line, kLinesAdd, kAddAppend) == 0;
  return create_file(path.c_str()) == 0;
}

Item Directory(const std::string& path, std::optional<Access> access) {
  return {path, Kind::kDirectory, access, [path] { return MakeDirectory(path); }, nullptr};
}

Item QmailFile(const char* suffix, const char* line = nullptr) {
  std::string path = tavix::qmail::qmail_file(suffix);
  return {path, Kind::kFile, kRootFile, [path, line] { return MakeQmailFile(path, line); },
          nullptr};
}

std::optional<Access> MailnamesAccess() {
  uid_t uid = tavix_ugid(kMailUser, 0);
  if (uid == 0)  // unknown: popuser is never root
    return std::nullopt;
  return Access{uid, tavix_ugid(kMailUser, 1), kMailnamesMode};
}

// The authentication files' owners and modes; none while their group is
// missing, which the look-up would otherwise take for root's.
std::optional<MailAuthAccess> AuthAccess() {
  MailAuthAccess access;
  if (!getgrnam(kAuthGroup) || mailAuthDBStyleAccess(0, &access) != 0)
    return std::nullopt;
  return access;
}

// A key made for a database that already holds passwords cannot read
// them; only a database made in the same run is known to hold none.
bool MakeKey(bool db_is_new) {
  if (mailAuthKeyInit() != 0)
    return false;
  if (!db_is_new)
    Warning(std::string("made a new key ") + mailAuthKey + " for the existing " + mailAuthDB +
            ": the passwords stored there cannot be read any more; set each again with "
            "dravnik --set-password");
  return true;
}

void AddAuthItems(std::vector<Item>* items) {
  mailAuthDBSelectStyle(0);
  std::optional<MailAuthAccess> auth = AuthAccess();
  std::optional<Access> dir, db, key;
  if (auth) {
    dir = Access{auth->dir_owner, auth->dir_group, auth->dir_mode};
    db = Access{auth->db_owner, auth->db_group, auth->db_mode};
    key = Access{auth->key_owner, auth->key_group, auth->key_mode};
  }
  items->push_back(Directory(Parent(mailAuthDB), dir));

  // Set when this run makes the database, so that a new key needs no warning.
  auto db_is_new = std::make_shared<bool>(false);
  items->push_back({mailAuthDB, Kind::kFile, db,
                    [db_is_new] { return *db_is_new = mailAuthDBInit() == 0; },
                    [auth] {
                      return mailAuthDBSetAccess(auth->db_owner, auth->db_group, auth->db_mode,
                                                 auth->dir_owner, auth->dir_group,
                                                 auth->dir_mode) == 0;
                    },
                    true});
  items->push_back({mailAuthKey, Kind::kFile, key,
                    [db_is_new] { return MakeKey(*db_is_new); },
                    [auth] {
                      return mailAuthKeySetAccess(auth->key_owner, auth->key_group,
                                                  auth->key_mode) == 0;
                    },
                    true});
}

Item HandlersDB() {
  std::optional<Access> access;
  if (const struct group* gr = getgrnam(kMailUser))
    access = Access{0, gr->gr_gid, kHandlersDBMode};
  return {mh_db_path, Kind::kFile, access,
          [] { return mh_db_create_no_set_permissions() == 0; },
          [] { return fix_mh_db_permissions(mh_db_path) == 0; }, true};
}

}  // namespace

std::vector<Item> HostItems() {
  std::vector<Item> items;
  // First: the locked editor needs it for users/assign below.
  items.push_back(Directory(kLockDir, kRootDir));
  items.push_back(QmailFile("/control/rcpthosts"));
  items.push_back(QmailFile("/control/virtualdomains"));
  items.push_back(QmailFile("/control/locals"));
  // qmail-newu refuses an assign file without its closing ".".
  items.push_back(QmailFile("/users/assign", "."));
  items.push_back(Directory(tavix::qmail::mailnames_root(), MailnamesAccess()));
  AddAuthItems(&items);
  items.push_back(HandlersDB());
  // A domain rename refuses to run without its plug-in directory, even an
  // empty one, and by then it has already changed the qmail files.
  items.push_back(Directory(kDomainRenamePluginDir, kRootDir));
  return items;
}

}  // namespace setup
}  // namespace tavix
