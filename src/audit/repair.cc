#include "audit/repair.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audit/qmail_files.h"
#include "handlers/handler_ops.h"
#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "qmail/line_file.h"
#include "qmail/lock.h"
#include "qmail/maildirpp.h"
#include "qmail/paths.h"
#include "qmail/qmail_control.h"
#include "util/fs.h"

namespace tavix {
namespace audit {

using qmail::qmail_file;

namespace {

std::string Errno(const std::string& what) { return what + ": " + strerror(errno); }

// Owner and mode through a descriptor opened without following a link, so
// that a link put in the entry's place since the walk is refused (ELOOP).
Repaired OwnerMode(const Finding& f) {
  PathParent parent;
  if (!open_parent_nofollow(f.path.c_str(), &parent))
    return {&f, false, Errno("cannot open its directory")};
  UniqueFd fd(openat(parent.dir.get(), parent.name.c_str(),
                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd)
    return {&f, false, Errno("cannot open it")};
  if (fchown(fd.get(), f.uid, f.gid) != 0 || fchmod(fd.get(), f.mode) != 0)
    return {&f, false, Errno("cannot set owner and mode")};
  char done[64];
  snprintf(done, sizeof(done), "owner %u:%u, mode %04o", unsigned(f.uid), unsigned(f.gid),
           unsigned(f.mode));
  return {&f, true, done};
}

Repaired RemoveTemporary(const Finding& f, int lock_wait_ms) {
  // Under the lock of the file it was meant to replace: no living run is
  // writing it then.
  bool held = false;
  ScopedLock lock(mk_lock_within(f.target.c_str(), lock_wait_ms, &held));
  if (!lock.get())
    return {&f, false, held ? "the lock of " + f.target + " stays taken"
                            : Errno("cannot lock " + f.target)};
  if (unlink_nofollow(f.path.c_str()) != 0 && errno != ENOENT)
    return {&f, false, Errno("cannot remove it")};
  return {&f, true, "removed"};
}

Repaired Recount(const Finding& f) {
  UniqueFd here(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat st;
  bool ok = here && lstat(f.target.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
            write_maildirpp_maildirsize(f.target.c_str(), st.st_uid, st.st_gid, f.size_limit,
                                        f.count_limit) != 0;
  std::string why = ok ? "" : Errno("cannot rewrite it");
  // The writer leaves the process inside the Maildir.
  if (here && fchdir(here.get()) != 0)
    return {&f, false, Errno("cannot return to the working directory")};
  if (!ok)
    return {&f, false, why};
  return {&f, true, "usage counted anew from the messages"};
}

Repaired Apply(const Finding& f, int lock_wait_ms) {
  std::string assign = qmail_file("/users/assign");
  const char* line = f.line.c_str();
  const char* const lines[] = {line, nullptr};
  switch (f.fix) {
    case Fix::kOwnerMode:
      return OwnerMode(f);
    case Fix::kRemoveTemporary:
      return RemoveTemporary(f, lock_wait_ms);
    case Fix::kRecount:
      return Recount(f);
    case Fix::kDropAssignLine:
      if (file_str(assign.c_str(), line, kLinesRemove, 0) != 0)
        return {&f, false, "cannot edit users/assign"};
      return {&f, true, "\"" + f.line + "\" taken out of users/assign"};
    case Fix::kAddAssignLine:
      if (file_remove_prepend(assign.c_str(), lines, lines) != 0)
        return {&f, false, "cannot edit users/assign"};
      return {&f, true, "\"" + f.line + "\" put at the top of users/assign"};
    case Fix::kRemoveAuthUser:
      mailAuthDBSelectStyle(0);
      if (mailAuthRemove(f.mailname.c_str(), f.target.c_str()) != 0)
        return {&f, false, "cannot remove the record"};
      return {&f, true, "record removed"};
    case Fix::kRemoveAuthDomain:
      mailAuthDBSelectStyle(0);
      if (mailAuthRemoveDomain(f.target.c_str()) != 0)
        return {&f, false, "cannot remove the record"};
      return {&f, true, "domain record and its users removed"};
    case Fix::kRemoveHandlers:
      if (mh_db_remove_addr(nullptr, f.target.c_str()) != 0)
        return {&f, false, "cannot remove the rows"};
      return {&f, true, "handler rows removed"};
    case Fix::kCompileAssign:
    case Fix::kNone:
      break;
  }
  return {&f, false, "nothing can be done safely"};
}

}  // namespace

std::vector<Repaired> Repair(const std::vector<Finding>& findings, int lock_wait_ms) {
  std::vector<Repaired> done;
  bool compile = false;
  const Finding* outdated = nullptr;
  for (const Finding& f : findings) {
    if (f.fix == Fix::kNone)
      continue;
    if (f.fix == Fix::kCompileAssign) {
      outdated = &f;
      compile = true;
      continue;
    }
    done.push_back(Apply(f, lock_wait_ms));
    if (done.back().ok && (f.fix == Fix::kDropAssignLine || f.fix == Fix::kAddAssignLine))
      compile = true;
  }
  if (compile) {
    // qmail-newu takes the lock of users/assign itself; none is held here.
    bool ok = run_qmail_newu() == 0;
    static const Finding kCompile = [] {
      Finding f;
      f.kind = "cdb-outdated";
      f.path = qmail_file("/users/cdb");
      f.detail = "users/assign changed";
      return f;
    }();
    done.push_back({outdated ? outdated : &kCompile, ok,
                    ok ? "users/assign compiled" : "qmail-newu failed"});
  }
  return done;
}

}  // namespace audit
}  // namespace tavix
