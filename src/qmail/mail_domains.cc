#include "qmail/mail_domains.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>

#include "mailauth/auth_records.h"
#include "qmail/line_file.h"
#include "qmail/nonexisting_mail.h"
#include "qmail/paths.h"
#include "util/account.h"
#include "util/fs.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/unique_free.h"

namespace {

using tavix::qmail::domain_dir;
using tavix::qmail::mailnames_root;
using tavix::qmail::qmail_file;

const char kMailUser[] = "popuser";

std::string rcpthosts() { return qmail_file("/control/rcpthosts"); }
std::string virtualdomains() { return qmail_file("/control/virtualdomains"); }
std::string locals() { return qmail_file("/control/locals"); }
std::string assign() { return qmail_file("/users/assign"); }

void lower_case(std::string* text) {
  std::transform(text->begin(), text->end(), text->begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
}

bool is_empty(const char* name) { return name == nullptr || *name == '\0'; }

// The qmail form of a name the caller has checked to be non-empty; a name
// libidn refuses cannot be written anywhere, so that ends the run.
std::string qmail_form_or_die(const char* name, bool lower) {
  std::string ascii;
  int rc = 0;
  if (!qmail_domain_form(name, lower, &ascii, &rc))
    messlog2(1, 0, "idn_toascii() failed: %s", idn_strerror(rc));
  return ascii;
}

std::string virtualdomains_line(const std::string& name, const std::string& domain) {
  return name + ":" + domain + "\n";
}

std::string assign_line(const std::string& domain, uid_t uid, gid_t gid) {
  return "+" + domain + ":" + kMailUser + ":" + std::to_string(uid) + ":" +
         std::to_string(gid) + ":" + mailnames_root() + "/" + domain + ":::";
}

int remove_line(const std::string& path, const std::string& line) {
  return file_str(path.c_str(), line.c_str(), kLinesRemove, 0);
}

// Takes `line` out of `path` and appends it again, so that it is there
// exactly once. A failed removal is only reported with `remove_failure`:
// it is a clean-up, and the append decides. 0, or non-zero when the append
// failed.
int put_line_once(const std::string& path, const std::string& line,
                  const char* remove_failure) {
  if (remove_line(path, line) != 0)
    messlog2(0, 0, "%s", remove_failure);
  return file_str(path.c_str(), line.c_str(), kLinesAdd, kAddAppend);
}

int get_mail_user(uid_t* uid, gid_t* gid) {
  errno = 0;
  struct passwd* pw = getpwnam(kMailUser);
  if (pw == nullptr) {
    messlog2(0, 0, "Unable to get %s user info: %s\n", kMailUser, strerror(errno));
    return -1;
  }
  *uid = pw->pw_uid;
  *gid = pw->pw_gid;
  return 0;
}

// How the removal of a domain treats a failed step: a removal asked for
// ends the run where the files would be left inconsistent; the undo of a
// partly added domain does all it can and only logs, because the operator
// must be told why the add failed, not which piece of its clean-up did.
enum class Removal { kRequested, kUndo };

// A failed step of a removal: reported (and, when `fatal`, ending the run)
// for a requested removal, only logged for an undo.
void removal_failed(Removal mode, bool fatal, const char* message) {
  if (mode == Removal::kUndo)
    tavix_log(4, "Undoing a partly added domain: %s", message);
  else
    messlog2(fatal ? 1 : 0, 0, "%s", message);
}

int remove_mail_dom(const char* domain, Removal mode) {
  if (is_empty(domain))
    messlog2(1, 0, "empty maildomain");
  std::string name = qmail_form_or_die(domain, true);
  uid_t uid = tavix_ugid(kMailUser, 0);
  gid_t gid = tavix_ugid(kMailUser, 1);

  if (remove_line(rcpthosts(), name) != 0)
    removal_failed(mode, false, "Unable to remove domain from rcpthosts file");
  if (remove_line(virtualdomains(), virtualdomains_line(name, name)) != 0)
    removal_failed(mode, true, "Unable to remove domain from virtualdomains file");
  if (mailAuthRemoveDomain(domain) != 0 && mode == Removal::kRequested)
    return -1;

  // The mail names' lines all point into the domain's directory.
  std::string dir = domain_dir(name);
  std::string inside = dir + "/";
  if (file_str(assign().c_str(), inside.c_str(), kLinesRemoveBy, kMatchSubstring) != 0)
    removal_failed(mode, true, "error while deleting from file assign");
  rm_tree(dir.c_str(), 1);
  if (remove_line(assign(), assign_line(name, uid, gid)) != 0)
    removal_failed(mode, true, "Unable to remove domain mailbox record from assign file");
  return 0;
}

// Takes away what a failed add made, keeping errno for the report of the
// failure that made the add fail.
void undo_add(const char* domain) {
  int const saved_errno = errno;
  remove_mail_dom(domain, Removal::kUndo);
  errno = saved_errno;
}

// Undo of a partly added domain, then the end of the run with `message`.
[[noreturn]] void undo_and_die(const char* domain, const char* message) {
  undo_add(domain);
  messlog2(1, 0, "%s", message);
  _exit(1);  // not reached: messlog2 with a status ends the process
}

}  // namespace

bool qmail_domain_form(const char* name, bool lower, std::string* out, int* rc) {
  tavix::unique_free<char> ascii(idn_toascii(name, rc));
  if (!ascii)
    return false;
  *out = ascii.get();
  if (lower)
    lower_case(out);
  return true;
}

int mail_create_domain_root_internal(const char* domain, uid_t uid, gid_t gid) {
  std::string path = domain_dir(domain);
  lower_case(&path);
  if (!createNestedDirectory(path.c_str())) {
    messlog2(0, 0, "recursive mkdir(%s) failed: %s\n", path.c_str(), strerror(errno));
    return -1;
  }
  // Changed through one descriptor of the directory itself: a link in its
  // place is refused rather than handing its target to the mail user.
  tavix::UniqueFd dir(tavix::open_dir_nofollow(path.c_str()));
  if (!dir || fchown(dir.get(), uid, gid) != 0) {
    messlog2(0, 0, "chown(%s, %d, %d) failed: %s\n", path.c_str(), static_cast<int>(uid),
             static_cast<int>(gid), strerror(errno));
    return -1;
  }
  if (fchmod(dir.get(), 0700) != 0) {
    messlog2(0, 0, "chmod(%s, %04o) failed: %s\n", path.c_str(), 0700u, strerror(errno));
    return -1;
  }
  return 0;
}

int mail_create_domain_root(const char* domain) {
  uid_t uid;
  gid_t gid;
  if (get_mail_user(&uid, &gid) != 0)
    return -1;
  return mail_create_domain_root_internal(domain, uid, gid);
}

int add_mail_dom(const char* domain) {
  if (is_empty(domain))
    messlog2(1, 0, "empty domain");
  std::string name = qmail_form_or_die(domain, true);
  uid_t uid;
  gid_t gid;
  if (get_mail_user(&uid, &gid) != 0)
    return -1;
  if (mail_create_domain_root_internal(name.c_str(), uid, gid) != 0) {
    undo_add(domain);
    return -1;
  }

  // Prepended: qmail-newu needs the file's final "." line to stay last.
  // Taken out and put back in one rewrite of the file, which holds every
  // mail name of the server; a failed pass has neither taken it out nor
  // added it, and what stopped it is the add that failed.
  std::string line = assign_line(name, uid, gid);
  const char* const lines[] = {line.c_str(), nullptr};
  if (file_remove_prepend(assign().c_str(), lines, lines) != 0)
    undo_and_die(domain, "Unable to add default string to assign file for mail domain");
  tavix::chmod_nofollow(assign().c_str(), 0644);  // qmail reads it as another user

  if (put_line_once(rcpthosts(), name, "Unable to remove domain record from rcpthosts file") != 0)
    undo_and_die(domain, "Unable to add domain record to rcpthosts.");
  if (put_line_once(virtualdomains(), virtualdomains_line(name, name),
                    "Unable to remove record from virtualdomains.") != 0)
    undo_and_die(domain, "Unable to add record to virtualdomains.");
  return 0;
}

int off_mail_dom(const char* domain) {
  if (is_empty(domain))
    messlog2(1, 0, "empty domain");
  std::string name = qmail_form_or_die(domain, true);
  if (remove_line(rcpthosts(), name) != 0) {
    // The message has always named the assign file; kept for log readers.
    messlog2(0, 0, "Unable to remove domain mailbox record from assign file");
    return -1;
  }
  if (remove_line(virtualdomains(), virtualdomains_line(name, name)) != 0) {
    messlog2(0, 0, "ERROR: Unable to remove record from virtualdomains file");
    return -1;
  }
  return mailAuthDisableDomain(domain) == 0 ? 0 : -1;
}

// Keeps the case of the name as given; lines written so are not matched by
// the lower-cased removals.
int on_mail_dom(const char* domain) {
  if (is_empty(domain))
    messlog2(1, 0, "empty domain");
  std::string name = qmail_form_or_die(domain, false);
  if (put_line_once(rcpthosts(), name, "Unable to remove domain mailbox record from assign file") !=
      0) {
    messlog2(0, 0, "Unable to add record to rcpthosts.");
    return -1;
  }
  if (put_line_once(virtualdomains(), virtualdomains_line(name, name),
                    "Unable to remove record from virtualdomains.") != 0) {
    messlog2(0, 0, "Unable to add record to virtualdomains.");
    return -1;
  }
  return mailAuthEnableDomain(domain) == 0 ? 0 : -1;
}

int rm_mail_dom(const char* domain) {
  return remove_mail_dom(domain, Removal::kRequested);
}

int add_domain_alias(const char* domain, const char* alias) {
  if (is_empty(domain) || is_empty(alias))
    messlog2(1, 0, "empty domain or domain alias");
  std::string target = qmail_form_or_die(domain, true);
  std::string name = qmail_form_or_die(alias, true);

  if (put_line_once(rcpthosts(), name, "Unable to remove domain record alias from rcpthosts file") !=
      0) {
    del_domain_alias(domain, alias);
    messlog2(1, 0, "Unable to add domain record alias to rcpthosts.");
  }
  if (put_line_once(virtualdomains(), virtualdomains_line(name, target),
                    "Unable to remove domain record alias from virtualdomains.") != 0) {
    del_domain_alias(domain, alias);
    messlog2(1, 0, "Unable to add domain record alias to virtualdomains.");
  }
  // A name qmail also takes as local would never reach the virtual domain.
  if (remove_line(locals(), alias) != 0)
    messlog2(0, 0, "Unable to remove domain record from locals.");
  return 0;
}

int del_domain_alias(const char* domain, const char* alias) {
  if (is_empty(domain) || is_empty(alias))
    messlog2(1, 0, "empty domain or domain alias");
  std::string target = qmail_form_or_die(domain, true);
  std::string name = qmail_form_or_die(alias, true);

  if (remove_line(rcpthosts(), name) != 0)
    messlog2(0, 0, "Unable to remove domain alias from rcpthosts file");
  if (remove_line(virtualdomains(), virtualdomains_line(name, target)) != 0)
    messlog2(1, 0, "Unable to remove domain alias from virtualdomains file");
  del_reject(alias);
  return 0;
}

int rename_domain_alias(const char* domain, const char* old_alias, const char* new_alias) {
  del_domain_alias(domain, old_alias);
  add_domain_alias(domain, new_alias);
  return 0;
}

int add_domain(const char* domain) {
  if (add_mail_dom(domain) != 0 || add_bounce(domain, nullptr) != 0)
    return -1;
  // A domain qmail takes as local would never reach its virtual users.
  if (remove_line(locals(), domain) != 0) {
    messlog2(0, 0, "Unable to remove domain record from locals.");
    return -1;
  }
  return 0;
}

int remove_domain(const char* domain) {
  if (del_reject(domain) != 0)
    return -1;
  return rm_mail_dom(domain) == 0 ? 0 : -1;
}
