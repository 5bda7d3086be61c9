#include "qmail/domain_rename.h"

#include <dirent.h>
#include <dlfcn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "handlers/handler_ops.h"
#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "qmail/lock.h"
#include "qmail/paths.h"
#include "qmail/qmail_control.h"
#include "qmail/sed_edit.h"
#include "util/account.h"
#include "util/fs.h"
#include "util/log.h"

const char* const kDomainRenamePluginDir = "/usr/lib64/tavix-9.0/domain_rename";

namespace {

using tavix::qmail::domain_dir;
using tavix::qmail::mailnames_root;
using tavix::qmail::qmail_file;

// Longest plug-in path, as the C library allows.
const size_t kMaxPath = 4095;

typedef int (*rename_domain_fn)(const char* old_domain, const char* new_domain);

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
struct LibraryCloser {
  void operator()(void* handle) const { dlclose(handle); }
};

bool is_directory(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool is_regular_file(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool path_exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// The sed expressions of a rename. Names and paths go in as plain text:
// the "." of a domain must match only a dot, so that renaming a.example
// leaves the lines of axexample alone.
std::string substitute(const std::string& regex, const std::string& replacement) {
  return "s|" + regex + "|" + replacement + "|g";
}
std::string whole_line(const std::string& from, const std::string& to) {
  return substitute("^" + sed_regex_literal(from) + "$", sed_replacement_literal(to));
}
std::string delete_line(const std::string& line) {
  return "\\|^" + sed_regex_literal(line) + "$|d";
}
std::string append_line(const std::string& line) {
  return "$ a\\" + sed_replacement_literal(line);
}

void sed(const std::string& expression, const std::string& path) {
  // A failed edit is reported by run_sed_cmd and leaves the file as it
  // was; the rename goes on, as the remaining files are still worth doing.
  run_sed_cmd(expression.c_str(), path.c_str());
}

// The lock of a file for the sed edits of a rename: the line editor of a
// concurrent run takes the same lock and writes the same "<path>.tmp". When
// it cannot be had the edits still run, as every other edit of the file
// fails meanwhile and the moved directory must not be left unnamed.
lock_handle* lock_for_sed(const std::string& path) {
  lock_handle* handle = mk_lock(path.c_str(), 1);
  if (!is_locked(handle))
    tavix_log(LOG_ERR, "Error occurred while locking %s file", path.c_str());
  return handle;
}

void set_root_file(const std::string& path) { file_set_perms(path.c_str(), 0, 0, 0644); }

int move_mail_dir(const std::string& old_domain, const std::string& new_domain) {
  std::string old_dir = domain_dir(old_domain);
  std::string new_dir = domain_dir(new_domain);
  if (!path_exists(old_dir)) {
    // A rename that was interrupted after moving the directory is finished
    // by running it again: every later step can be repeated safely.
    if (path_exists(new_dir)) {
      tavix_log(LOG_INFO, "Mail directory %s already moved to %s, continuing.\n",
                old_dir.c_str(), new_dir.c_str());
      return 0;
    }
    tavix_log(LOG_ERR, "Mail directory %s not exists.\n", old_dir.c_str());
    return 1;
  }
  if (path_exists(new_dir)) {
    tavix_log(LOG_ERR, "Mail directory %s already exists.\n", new_dir.c_str());
    return 1;
  }
  if (rename(old_dir.c_str(), new_dir.c_str()) != 0) {
    tavix_log(LOG_ERR, "Renaming %s to %s failed: %s\n", old_dir.c_str(), new_dir.c_str(),
              strerror(errno));
    return 1;
  }
  return 0;
}

// rcpthosts and locals. The machine's own name must stay accepted and
// local whatever domain is renamed, and a domain that takes the machine's
// name must not stay in locals, where qmail would deliver its mail to
// system accounts instead of the virtual domain.
void rename_in_rcpthosts_and_locals(const std::string& old_domain,
                                    const std::string& new_domain) {
  std::string rcpthosts = qmail_file("/control/rcpthosts");
  std::string locals = qmail_file("/control/locals");
  tavix::ScopedLock rcpthosts_lock(lock_for_sed(rcpthosts));
  tavix::ScopedLock locals_lock(lock_for_sed(locals));
  char host[65];
  if (get_hostname_fqdn(host, sizeof(host)) != 0) {
    sed(whole_line(old_domain, new_domain), rcpthosts);
  } else {
    if (strcasecmp(new_domain.c_str(), host) == 0) {
      sed(delete_line(new_domain), rcpthosts);
      sed(delete_line(new_domain), locals);
    }
    sed(whole_line(old_domain, new_domain), rcpthosts);
    if (strcasecmp(old_domain.c_str(), host) == 0) {
      sed(append_line(old_domain), rcpthosts);
      sed(append_line(old_domain), locals);
    }
  }
  set_root_file(rcpthosts);
}

void rename_in_virtualdomains(const std::string& old_domain, const std::string& new_domain) {
  std::string path = qmail_file("/control/virtualdomains");
  tavix::ScopedLock lock(lock_for_sed(path));
  std::string from = sed_regex_literal(old_domain);
  std::string to = sed_replacement_literal(new_domain);
  sed(substitute("^" + from + ":", to + ":"), path);  // the domain and its prefix
  sed(substitute(":" + from + "$", ":" + to), path);  // its aliases
  set_root_file(path);
}

// Mail name homes, the domain line's home and the addresses of mail names
// and aliases follow the new name. The wildcard line "+<old>:" keeps its
// prefix on purpose: only its home moves.
void rename_in_assign(const std::string& old_domain, const std::string& new_domain) {
  std::string path = qmail_file("/users/assign");
  tavix::ScopedLock lock(lock_for_sed(path));
  std::string old_dir = mailnames_root() + "/" + old_domain;
  std::string new_dir = mailnames_root() + "/" + new_domain;
  sed(substitute(sed_regex_literal(old_dir + "/"), sed_replacement_literal(new_dir + "/")),
      path);
  sed(substitute(sed_regex_literal(old_dir + ":"), sed_replacement_literal(new_dir + ":")),
      path);
  sed(substitute("^=" + sed_regex_literal(old_domain) + "-",
                 "=" + sed_replacement_literal(new_domain) + "-"),
      path);
  set_root_file(path);
  qmail_note_edit(path.c_str(), lock.locked());
}

void rename_in_rejectnonexist(const std::string& old_domain, const std::string& new_domain) {
  std::string path = qmail_file("/control/rejectnonexist");
  if (!path_exists(path))
    return;
  tavix::ScopedLock lock(lock_for_sed(path));
  sed(whole_line(old_domain, new_domain), path);
  set_root_file(path);
}

// The old domain's handlers are removed only once every copy is in.
int move_handlers(const std::string& old_domain, const std::string& new_domain) {
  if (mh_db_clone(nullptr, nullptr, old_domain.c_str(), nullptr, new_domain.c_str()) != 0 ||
      mh_db_remove_all(nullptr, old_domain.c_str()) != 0) {
    tavix_log(LOG_ERR, "Unable to move domain handlers from %s to %s\n", old_domain.c_str(),
              new_domain.c_str());
    return 1;
  }
  return 0;
}

// An exit status keeps only the low 8 bits; a failure such as 256 must not
// arrive as 0.
int exit_code(int result) {
  if (result == 0)
    return 0;
  return (result & 0xff) != 0 ? (result & 0xff) : 1;
}

// Waits for `pid` and turns how it ended into the plug-in's result.
int wait_for_plugin(pid_t pid) {
  int status = 0;
  pid_t got;
  do {
    got = waitpid(pid, &status, 0);
  } while (got < 0 && errno == EINTR);
  if (got != pid) {
    tavix_log(LOG_ERR, "waitpid failed: %s\n", strerror(errno));
    return -1;
  }
  if (WIFSIGNALED(status)) {
    tavix_log(LOG_ERR, "child killed by signal: %d\n", WTERMSIG(status));
    return -1;
  }
  if (WIFEXITED(status)) {
    tavix_log(LOG_DEBUG, "child exited with status: %d\n", WEXITSTATUS(status));
    return WEXITSTATUS(status);
  }
  tavix_log(LOG_ERR, "unknown child behavior");
  return -1;
}

}  // namespace

int RenameDomain(const char* plugin_path, const char* old_domain, const char* new_domain) {
  std::unique_ptr<void, LibraryCloser> library(dlopen(plugin_path, RTLD_LAZY));
  if (!library) {
    tavix_log(LOG_ERR, "cannop load '%s' plugin: %s", plugin_path, dlerror());
    return 0;
  }
  dlerror();
  void* symbol = dlsym(library.get(), "rename_domain");
  if (symbol == nullptr) {
    const char* why = dlerror();
    tavix_log(LOG_INFO, "plugin '%s' doesn't provide required 'rename_domain': %s", plugin_path,
              why ? why : "null symbol");
    return 0;
  }
  return reinterpret_cast<rename_domain_fn>(symbol)(old_domain, new_domain);
}

int RenameDomainPluginCaller(const char* plugin_path, const char* old_domain,
                             const char* new_domain) {
  // What this process has buffered must not be written twice, by the child
  // too.
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    tavix_log(LOG_ERR, "cannot fork: %s\n", strerror(errno));
    return -1;
  }
  if (pid == 0) {
    int result = RenameDomain(plugin_path, old_domain, new_domain);
    fflush(nullptr);
    // _exit: exit handlers and static destructors belong to the parent.
    _exit(exit_code(result));
  }
  return wait_for_plugin(pid);
}

int RenameDomainInServices(const char* old_domain, const char* new_domain) {
  if (!is_directory(kDomainRenamePluginDir)) {
    tavix_log(LOG_ERR, "plugin directory '%s' not exists or not directory",
              kDomainRenamePluginDir);
    return 1;
  }
  std::unique_ptr<DIR, DirCloser> dir(opendir(kDomainRenamePluginDir));
  if (!dir) {
    tavix_log(LOG_ERR, "cannot open plugins dir '%s'", kDomainRenamePluginDir);
    return 1;
  }
  for (;;) {
    errno = 0;
    struct dirent* entry = readdir(dir.get());
    if (entry == nullptr) {
      if (errno == 0)
        return 0;
      // A plug-in left unread would miss the rename unnoticed.
      tavix_log(LOG_ERR, "cannot read plugins dir '%s': %s", kDomainRenamePluginDir,
                strerror(errno));
      return 1;
    }
    std::string path = std::string(kDomainRenamePluginDir) + "/" + entry->d_name;
    if (path.size() > kMaxPath) {
      tavix_log(LOG_ERR, "path '%s/%s' is too long", kDomainRenamePluginDir, entry->d_name);
      return 1;
    }
    if (!is_regular_file(path))
      continue;
    tavix_log(LOG_DEBUG, "call plugin '%s'", path.c_str());
    int result = RenameDomainPluginCaller(path.c_str(), old_domain, new_domain);
    if (result != 0) {
      tavix_log(LOG_ERR, "plugin '%s' failed with status '%d'\n", entry->d_name, result);
      return 1;
    }
    tavix_log(LOG_DEBUG, "plugin '%s' succeeded", entry->d_name);
  }
}

namespace tavix {
namespace mail {
namespace qmail {
namespace dravnik_commands {

int renameDomain(std::string const& oldDomain, std::string const& newDomain) {
  if (move_mail_dir(oldDomain, newDomain) != 0)
    return 1;
  rename_in_rcpthosts_and_locals(oldDomain, newDomain);
  rename_in_virtualdomains(oldDomain, newDomain);
  rename_in_assign(oldDomain, newDomain);

  mailAuthDBSelectStyle(0);
  if (mailAuthRenameDomain(oldDomain.c_str(), newDomain.c_str()) != 0)
    return 1;
  rename_in_rejectnonexist(oldDomain, newDomain);

  // Plug-ins first: a service that refused the new name leaves the
  // handlers and the running qmail as they were.
  if (RenameDomainInServices(oldDomain.c_str(), newDomain.c_str()) != 0)
    return 1;
  if (move_handlers(oldDomain, newDomain) != 0)
    return 1;

  run_qmail_newu();
  qmail_restart();
  return 0;
}

}  // namespace dravnik_commands
}  // namespace qmail
}  // namespace mail
}  // namespace tavix
