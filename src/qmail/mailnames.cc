#include "qmail/mailnames.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "mailauth/auth_records.h"
#include "maildata/domain_mail_ops.h"
#include "maildata/session_quota.h"
#include "qmail/delivery.h"
#include "qmail/line_file.h"
#include "qmail/lock.h"
#include "qmail/maildirpp.h"
#include "qmail/paths.h"
#include "qmail/sed_edit.h"
#include "util/account.h"
#include "util/atomic_file.h"
#include "util/exec.h"
#include "util/fs.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"
#include "util/unique_free.h"

namespace {

using tavix::qmail::mailname_dir;
using tavix::qmail::mailnames_root;
using tavix::qmail::qmail_file;

const char kMailUser[] = "popuser";
const char kNoPopuser[] = "Unable to define UID or GID for user popuser";

// The mailbox tree below the mail name's directory, parents first.
const char* const kMailboxDirs[] = {
    "Maildir",           "Maildir/tmp",     "Maildir/new",
    "Maildir/cur",       "Maildir/.Spam",   "Maildir/.Spam/tmp",
    "Maildir/.Spam/new", "Maildir/.Spam/cur", "@attachments",
};

std::string assign() { return qmail_file("/users/assign"); }

[[noreturn]] __attribute__((format(printf, 1, 2))) void fatal(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vmesslog2(1, 0, format, ap);
  va_end(ap);
  _exit(1);  // not reached: a non-zero status ends the process
}

void lower_case(std::string* text) {
  std::transform(text->begin(), text->end(), text->begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
}

struct MailUser {
  uid_t uid = 0;
  gid_t gid = 0;
  bool found() const { return uid != 0 && gid != 0; }
};

// popuser's ids, looked up once per process into `cache`; 0 means unknown,
// since popuser is never root.
const MailUser& cached_mail_user(MailUser* cache) {
  if (!cache->found()) {
    cache->uid = tavix_ugid(kMailUser, 0);
    cache->gid = tavix_ugid(kMailUser, 1);
  }
  return *cache;
}

MailUser lookup_mail_user() {
  MailUser user;
  return cached_mail_user(&user);
}

// ":popuser:U:G:R/D/M:::", the tail of every assign line that delivers to
// mail name M's directory.
std::string home_suffix(const std::string& domain, const std::string& mailname,
                        const MailUser& user) {
  return std::string(":") + kMailUser + ":" + std::to_string(user.uid) + ":" +
         std::to_string(user.gid) + ":" + mailname_dir(domain, mailname) + ":::";
}

// "=D-N:popuser:U:G:R/D/M:::": N is the address's local part (the mail name
// or an alias), M the mail name whose directory receives the mail.
std::string assign_line(const std::string& domain, const std::string& local,
                        const std::string& mailname, const MailUser& user) {
  return "=" + domain + "-" + local + home_suffix(domain, mailname, user);
}

int remove_line(const std::string& line) {
  return file_str(assign().c_str(), line.c_str(), kLinesRemove, 0);
}

// Puts `line` at the top of users/assign in place of every line equal to
// one of `drop`, in one rewrite of the file (it holds every mail name of the
// server). 0, or 1 after reporting the failure; the file is then unchanged.
// With `suffix`, `*seen` tells whether a line kept ends with it.
int put_first(const std::string& line, std::initializer_list<std::string> drop,
              const std::string* suffix = nullptr, bool* seen = nullptr) {
  std::vector<const char*> dropped;
  for (const std::string& text : drop)
    dropped.push_back(text.c_str());
  dropped.push_back(nullptr);
  const char* const lines[] = {line.c_str(), nullptr};
  return file_remove_prepend_watch(assign().c_str(), dropped.data(), lines,
                                   suffix ? suffix->c_str() : nullptr, seen);
}

// qmail-newu reads the file as root, but other tools expect it world-readable.
// The path is root's alone, so a look that finds the mode right (as a batch
// of many new names finds it every time) may spare the open and the chmod.
void assign_mode() {
  struct stat info;
  if (lstat(assign().c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
      (info.st_mode & 07777) == 0644)
    return;
  if (tavix::chmod_nofollow(assign().c_str(), 0644) != 0)
    tavix_log(3, "chmod(%s, 0644) failed: %s", assign().c_str(), strerror(errno));
}

bool valid_names(const char* mailname, const char* domain) {
  return mailname != nullptr && domain != nullptr && is_mailname_valid(mailname) &&
         is_domain_name_valid(domain);
}

// D converted to ASCII; a name libidn refuses ends the run.
std::string ascii_or_die(const char* domain) {
  int rc = 0;
  tavix::unique_free<char> ascii(idn_toascii(domain, &rc));
  if (!ascii)
    fatal("idn_toascii() failed: %s", idn_strerror(rc));
  return ascii.get();
}

// --- add_mailname -----------------------------------------------------------

MailUser add_mailname_user;

// The end of a partly added mail name.
[[noreturn]] __attribute__((format(printf, 3, 4))) void undo_add(
    const char* mailname, const char* domain, const char* format, ...) {
  int saved = errno;
  rm_mailname(mailname, domain);
  errno = saved;
  va_list ap;
  va_start(ap, format);
  vmesslog2(1, 0, format, ap);
  va_end(ap);
  _exit(1);
}

// Makes the directory `name` in `at` for the mail user, and opens it when
// `opened` is given; `sub` is its path in the mailbox `home` (null for the
// mailbox itself), for the messages. The mail user owns the mailbox and may
// have swapped any of it for a link: neither the mkdir nor the chown
// follows one.
void make_popuser_dir(const char* mailname, const char* domain, const std::string& home,
                      const char* sub, int at, const char* name, const MailUser& user,
                      tavix::UniqueFd* opened, bool* made = nullptr) {
  bool chown_failed = false;
  if (tavix::make_owned_dir(at, name, 0700, user.uid, user.gid, opened, &chown_failed, made) ==
      0)
    return;
  const char* step = chown_failed ? "chown" : "make";
  if (sub)
    undo_add(mailname, domain, "Unable to %s %s/%s dir: %s", step, home.c_str(), sub,
             strerror(errno));
  undo_add(mailname, domain, "Unable to %s %s dir: %s", step, home.c_str(), strerror(errno));
}

// The mailbox's own directories, each made through its parent's descriptor;
// only those with directories of their own are kept open.
void make_mailbox_dirs(const char* mailname, const char* domain, const std::string& home,
                       int home_fd, const MailUser& user) {
  std::vector<std::pair<std::string, tavix::UniqueFd>> parents;
  for (const char* sub : kMailboxDirs) {
    std::string parent_path;
    std::string name;
    tavix::split_path(sub, &parent_path, &name);
    int parent = home_fd;
    for (const auto& dir : parents) {
      if (dir.first == parent_path)
        parent = dir.second.get();
    }
    bool has_children = false;
    for (const char* other : kMailboxDirs)
      has_children |= strncmp(other, sub, strlen(sub)) == 0 && other[strlen(sub)] == '/';
    tavix::UniqueFd opened;
    bool made = false;
    make_popuser_dir(mailname, domain, home, sub, parent, name.c_str(), user,
                     has_children ? &opened : nullptr, &made);
    // A Maildir made here has a tmp/ that no killed run can have left a
    // temporary maildirsize in.
    if (made && strcmp(sub, "Maildir") == 0)
      maildirsize_note_new(opened.get());
    if (has_children)
      parents.emplace_back(sub, std::move(opened));
  }
}

// --- ch_mailname ------------------------------------------------------------

// The temporary files of the edits below are "<path>.mail.XXXXXX".
const char kSedTempInfix[] = ".mail.";

// Filters `path` through "sed -e <expression>" into a fresh
// "<path>.mail.XXXXXX" (mode 0644) that `*temp` holds, to be committed over
// `path` or dropped. sed's result, or -1 with `*temp` left empty (no
// descriptor) when the files could not be opened (reported).
int sed_into_temp(const std::string& path, const std::string& expression,
                  tavix::AtomicFile* temp) {
  tavix::UniqueFd in(tavix::open_nofollow(path.c_str(), O_RDONLY));
  if (!in) {
    tavix_log(3, "Unable to open file '%s' for reading: %s", path.c_str(), strerror(errno));
    return -1;
  }
  if (!temp->create(path, tavix::name_beside(path, std::string(kSedTempInfix) + "XXXXXX"),
                    tavix::AtomicFile::Temp::kUnique, 0600) ||
      !temp->set_mode(0644)) {
    tavix_log(3, "Unable to create temporary file: %s", strerror(errno));
    temp->discard();
    return -1;
  }
  pid_t pid = fork_execl_pipes(in.get(), temp->fd(), STDERR_FILENO, "/bin/sed", "sed", "-e",
                               expression.c_str(), static_cast<char*>(nullptr));
  return fork_exec_getres(pid, "/bin/sed");
}

bool sed_failed(int result) { return result == 127 || result < 0; }

// Re-points every assign line that ends with the old home directory (the
// alias lines) at the new one; sed's result goes to `*sed_result`. -1
// when the file could not be locked or filtered at all, else 0. Without
// `any_alias` no line points at the old home and sed is not run.
int repoint_aliases(const std::string& from, const std::string& to, bool any_alias,
                    int* sed_result) {
  const std::string path = assign();
  // sed reads the file on disk, and the lock below is the one a held copy
  // keeps: a held copy is written and let go first.
  if (line_file_write_held(path.c_str()) != 0)
    return -1;
  tavix::ScopedLock lock(mk_lock(path.c_str(), 1));
  if (!lock.locked()) {
    tavix_log(3, "Error occurred while locking %s file", path.c_str());
    return -1;
  }
  // A run killed while its sed was writing left its temporary file behind,
  // a copy of the whole file; under the lock none of them is in use.
  tavix::tidy_stale_temps(path.c_str(), kSedTempInfix);
  if (!any_alias)
    return 0;
  tavix::AtomicFile temp;
  int result = sed_into_temp(
      path, "s|" + sed_regex_literal(from) + "$|" + sed_replacement_literal(to) + "|g",
      &temp);
  if (temp.fd() < 0)
    return -1;
  *sed_result = result;
  if (sed_failed(result)) {
    temp.discard();
    tavix_log(3, "Unable to change aliases in %s\n", path.c_str());
  } else if (!temp.commit()) {
    tavix_log(3, "rename failed: %s\n", strerror(errno));
  }
  if (lock.release() != 0)
    tavix_log(3, "Error occurred while unlocking %s file\n", path.c_str());
  return 0;
}

// Moves the authentication records of OLD to NEW (with a password) or
// drops them (without one). 0 or -1; `sed_result` decides in the
// no-password case, as the caller has always had it.
int move_auth_records(const char* old_name, const char* domain, const char* new_name,
                      const char* password, int sed_result) {
  if (password == nullptr || *password == '\0') {
    if (rm_mname_from_domains(old_name, domain) < 0)
      tavix_log(3, "Unable to delete auth records for %s@%s", old_name, domain);
    return sed_result == 0 ? 0 : -1;
  }
  int failed = 0;
  auto rename_in = [&](const char* in_domain) {
    if (mailAuthRename(old_name, new_name, in_domain) != 0) {
      tavix_log(3, "Unable to rename auth record %s@%s -> %s@%s", old_name, in_domain,
                new_name, in_domain);
      failed = 1;
    }
  };
  rename_in(domain);
  tavix::StringArray aliases;
  if (get_domaliases_by_domain(nullptr, aliases.out(), domain) < 0) {
    tavix_log(3, "Unable to get domain aliases for domain %s", domain);
    return -1;
  }
  for (const char* alias : aliases)
    rename_in(alias);
  return failed ? -1 : 0;
}

// `text` with every "from" replaced by "to", left to right and without
// overlaps. For a `from` without a newline this is exactly what
// "sed -e 's|from|to|g'" writes: no occurrence spans two lines, and a last
// line without its newline stays so.
std::string replace_every(const std::string& text, const std::string& from,
                          const std::string& to) {
  std::string result;
  result.reserve(text.size());
  size_t start = 0;
  for (size_t found; (found = text.find(from, start)) != std::string::npos;
       start = found + from.size()) {
    result.append(text, start, found - start);
    result += to;
  }
  result.append(text, start, std::string::npos);
  return result;
}

// The .qmail text with OLD@ turned into NEW@; false after reporting a file
// that could not be read.
bool renamed_dotqmail_text(const std::string& path, const std::string& old_address,
                           const std::string& new_address, std::string* text) {
  tavix::UniqueFd in(tavix::open_nofollow(path.c_str(), O_RDONLY));
  if (!in) {
    tavix_log(3, "Unable to open file '%s' for reading: %s", path.c_str(), strerror(errno));
    return false;
  }
  std::string old_text;
  if (!tavix::read_to_end(in.get(), &old_text)) {
    tavix_log(3, "Unable to change mailname in dot-qmail in %s: %s\n", path.c_str(),
              strerror(errno));
    return false;
  }
  *text = replace_every(old_text, old_address, new_address);
  return true;
}

// Turns OLD@ into NEW@ in the delivery lines of the renamed mail name's
// .qmail. The file is a few lines long: it is edited here rather than by a
// sed child, whose start would cost more than the whole edit. Failures are
// reported only: the rename stands.
void rename_in_dotqmail(const char* old_name, const char* domain, const char* new_name,
                        const MailUser& user) {
  const std::string path = mailname_dir(domain, new_name) + "/.qmail";
  // The file is read from disk: one whose reset is only noted is written
  // first.
  if (dotqmail_write_held() != 0)
    return;
  tavix::ScopedLock lock(mk_lock(path.c_str(), 1));
  if (!lock.locked()) {
    tavix_log(3, "Error occurred while locking %s file", path.c_str());
    return;
  }
  tavix::tidy_stale_temps(path.c_str(), kSedTempInfix);
  std::string text;
  if (renamed_dotqmail_text(path, std::string(old_name) + "@", std::string(new_name) + "@",
                            &text)) {
    tavix::AtomicFile temp;
    // Owner and mode before the contents, so that the new file is never
    // anyone else's.
    if (!temp.create(path, tavix::name_beside(path, std::string(kSedTempInfix) + "XXXXXX"),
                     tavix::AtomicFile::Temp::kUnique, 0600)) {
      tavix_log(3, "Unable to create temporary file: %s", strerror(errno));
    } else {
      if (!temp.set_mode(0600))
        tavix_log(3, "chmod failed: %s\n", strerror(errno));
      if (!temp.set_owner(user.uid, user.gid))
        tavix_log(3, "chown failed: %s\n", strerror(errno));
      if (!temp.write(text))
        tavix_log(3, "Unable to change mailname in dot-qmail in %s\n", path.c_str());
      else if (!temp.commit())
        tavix_log(3, "rename failed: %s\n", strerror(errno));
    }
  }
  if (lock.release() != 0)
    tavix_log(3, "Error occurred while unlocking %s file\n", path.c_str());
}

}  // namespace

int add_mailname(const char* mailname, const char* domain) {
  if (!valid_names(mailname, domain))
    fatal("invalid mailname or domain name.");
  tavix::unique_free<char> converted(idn_toascii_safe(domain));
  if (!converted)
    fatal("Unable to allocate memory");
  const char* ascii = converted.get();
  const MailUser& user = cached_mail_user(&add_mailname_user);
  if (!user.found())
    fatal("%s", kNoPopuser);

  std::string line = assign_line(ascii, mailname, mailname, user);
  lower_case(&line);
  // Taken out and put back at the top, so that it is there exactly once. A
  // failed pass has neither taken it out nor added it: both are reported.
  if (put_first(line, {line}) != 0) {
    tavix_log(3, "Unable to remove record for %s from assign file", mailname);
    undo_add(mailname, ascii, "Unable to add record for %s to assign file", mailname);
  }
  assign_mode();

  std::string home = mailname_dir(ascii, mailname);
  lower_case(&home);
  tavix::PathParent parent;
  if (!tavix::open_parent_nofollow(home.c_str(), &parent))
    undo_add(mailname, ascii, "Unable to make %s dir: %s", home.c_str(), strerror(errno));
  tavix::UniqueFd home_fd;
  bool made = false;
  make_popuser_dir(mailname, ascii, home, nullptr, parent.dir.get(), parent.name.c_str(), user,
                   &home_fd, &made);

  char saved_cwd[PATH_MAX];
  if (getcwd(saved_cwd, sizeof(saved_cwd)) == nullptr)
    undo_add(mailname, ascii, "Unable to getcwd: %s", strerror(errno));
  if (fchdir(home_fd.get()) != 0)
    undo_add(mailname, ascii, "Unable to chdir %s: %s", home.c_str(), strerror(errno));

  char dotqmail[4096];
  if (get_dotqmail_path(dotqmail, sizeof(dotqmail), mailname, ascii) != 0 ||
      (made ? dotqmail_reset_new(dotqmail) : dotqmail_reset(dotqmail)) != 0)
    return -1;
  make_mailbox_dirs(mailname, ascii, home, home_fd.get(), user);
  // Through the directory just made rather than its path again.
  if (rm_mbox_quota_in(ascii, home_fd.get()) == 0)
    undo_add(mailname, ascii, "Unable to initialize quota settings for %s@%s", mailname, ascii);
  if (chdir(saved_cwd) != 0)
    undo_add(mailname, ascii, "Unable to chdir %s: %s", saved_cwd, strerror(errno));
  return 0;
}

int rm_mailname(const char* mailname, const char* domain) {
  if (!valid_names(mailname, domain))
    fatal("empty mailname or maildomain");
  std::string ascii = ascii_or_die(domain);
  MailUser user = lookup_mail_user();
  if (!user.found())
    fatal("Unable to get popuser uid or gid\n");
  if (remove_line(assign_line(ascii, mailname, mailname, user)) != 0)
    tavix_log(3, "Unable to remove %s mailbox record from assign file", mailname);
  assign_mode();
  if (mailAuthRemove(mailname, ascii.c_str()) != 0)
    return -1;
  rm_tree(mailname_dir(ascii, mailname).c_str(), 1);
  return 0;
}

namespace {

MailUser alias_user;

// The lower-cased line of alias A of mailname@domain, after the checks the
// two alias functions share.
std::string alias_line(const char* mailname, const char* domain, const char* alias,
                       const char* no_user) {
  if (!valid_names(mailname, domain) || alias == nullptr || !is_mailname_valid(alias))
    fatal("empty mailname, maildomain or mailalias");
  std::string ascii = ascii_or_die(domain);
  const MailUser& user = cached_mail_user(&alias_user);
  if (!user.found())
    fatal("%s", no_user);
  std::string line = assign_line(ascii, alias, mailname, user);
  lower_case(&line);
  return line;
}

}  // namespace

int add_mn_alias(const char* mailname, const char* domain, const char* alias) {
  std::string line = alias_line(mailname, domain, alias, kNoPopuser);
  // There exactly once; a failed pass has neither taken it out nor added it.
  if (put_first(line, {line}) != 0) {
    tavix_log(3, "Unable to remove record from assign file");
    fatal("Unable to add record to assign file");
  }
  assign_mode();
  return 0;
}

int rm_mn_alias(const char* mailname, const char* domain, const char* alias) {
  std::string line = alias_line(mailname, domain, alias, "Unable to get popuser uid or gid\n");
  if (remove_line(line) != 0)
    tavix_log(3, "Unable to remove record from assign file");
  assign_mode();
  return 0;
}

int add_mn_postbox(const char* mailname, const char* domain, const char* password,
                   uint8_t flag) {
  if (mailname == nullptr || !is_mailname_valid(mailname)) {
    tavix_log(3, "empty mailname or maildomain");
    return -1;
  }
  if (set_postbox_passwd(mailname, domain, password, flag) != 0) {
    tavix_log(3, "unable to set password");
    return -1;
  }
  if (add_mailname_delivery(mailname, domain) != 0) {
    rm_mn_postbox(mailname, domain);
    return -1;
  }
  if (rm_mbox_quota(domain, mailname) == 0) {
    tavix_log(3, "Unable to initialize quota settings for %s@%s", mailname, domain);
    return -1;
  }
  return 0;
}

int rm_mn_postbox(const char* mailname, const char* domain) {
  if (mailname == nullptr || !is_mailname_valid(mailname)) {
    tavix_log(3, "empty mailname or maildomain");
    return -1;
  }
  if (mailAuthRemove(mailname, domain) != 0)
    return -1;
  return remove_mailname_delivery(mailname, domain);
}

int ch_mailname(const char* old_mailname, const char* domain, const char* new_mailname,
                const char* password) {
  if (!valid_names(old_mailname, domain) || new_mailname == nullptr ||
      !is_mailname_valid(new_mailname))
    fatal("empty mailname or maildomain");
  MailUser user = lookup_mail_user();
  if (!user.found())
    fatal("%s", kNoPopuser);

  const std::string old_line = assign_line(domain, old_mailname, old_mailname, user);
  const std::string new_line = assign_line(domain, new_mailname, new_mailname, user) + "\n";
  const std::string old_home = home_suffix(domain, old_mailname, user);
  // The new line is dropped too so that running an interrupted rename again
  // does not list the mail name twice. A failed pass changed nothing, so
  // there is nothing to put back. The pass also sees whether any line it
  // keeps (an alias) delivers to the old home: if none does, the second
  // pass over the whole file has nothing to change.
  bool any_alias = false;
  if (put_first(new_line, {old_line, new_line}, &old_home, &any_alias) != 0)
    fatal("Unable to remove record from assign file");
  assign_mode();
  if (rename_dir(mailname_dir(domain, old_mailname).c_str(),
                 mailname_dir(domain, new_mailname).c_str()) != 0) {
    put_first(old_line, {new_line});
    fatal("Unable to rename directory");
  }

  int sed_result = 0;
  if (repoint_aliases(old_home, home_suffix(domain, new_mailname, user), any_alias,
                      &sed_result) != 0)
    return -1;
  if (move_auth_records(old_mailname, domain, new_mailname, password, sed_result) != 0)
    return -1;
  rename_in_dotqmail(old_mailname, domain, new_mailname, user);
  return 0;
}

int set_quota(const char* domain, const char* mailname, int64_t bytes) {
  int stored = bytes < 0 ? rm_mbox_quota(domain, mailname)
                         : store_mbox_quota(domain, mailname, bytes);
  return stored != 0 ? 0 : -1;
}
