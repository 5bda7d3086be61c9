#include "qmail/qmail_control.h"

#include <csignal>
#include <string>

#include "qmail/lock.h"
#include "qmail/paths.h"
#include "util/account.h"
#include "util/exec.h"
#include "util/log.h"

namespace {

const char kInitScript[] = "/etc/rc.d/init.d/qmail";

bool deferring = false;
QmailRequests noted;

// True when the request was only counted in `*count`.
bool note(int* count) {
  if (deferring)
    ++*count;
  return deferring;
}

int newu_now() {
  std::string assign = tavix::qmail::qmail_file("/users/assign");
  tavix::ScopedLock lock(mk_lock(assign.c_str(), 1));
  if (!lock.locked()) {
    tavix_log(3, "Error occurred while locking %s file", assign.c_str());
    return -1;
  }
  // qmail-newu holds the lock too: killed mid-compile, this run must not
  // let the next compile start while its own is still writing.
  tavix::ChildrenKeepFd keep(lock.get()->descriptor);
  std::string newu = tavix::qmail::qmail_file("/bin/qmail-newu");
  return path_exec(newu.c_str(), static_cast<char*>(nullptr));
}

}  // namespace

// qmail-newu always writes the same users/cdb.tmp and renames it over
// users/cdb: two compiles at once trample each other, and a compile that
// read users/assign before another run's edit could finish after that run's
// own compile and leave a users/cdb older than the file. Under the lock of
// users/assign, the one every edit of the file holds, compiles take turns
// and each reads a whole, current file; as every run compiles after its
// edits, the last compile comes after the last edit.
int run_qmail_newu() {
  return note(&noted.newu) ? 0 : newu_now();
}

int qmail_restart() {
  if (note(&noted.restart))
    return 0;
  return path_exec(kInitScript, "restart", static_cast<char*>(nullptr));
}

int qmail_reload_configuration() {
  if (note(&noted.reload))
    return 0;
  return path_exec(kInitScript, "reload", static_cast<char*>(nullptr));
}

int qmail_soft_reload_configuration() {
  if (note(&noted.hup))
    return 0;
  return send_sig("qmail-send", SIGHUP);
}

void qmail_defer(bool on) { deferring = on; }

QmailRequests qmail_deferred_requests() { return noted; }

QmailRequests qmail_run_deferred() {
  QmailRequests const asked = noted;
  noted = QmailRequests();
  QmailRequests failed;
  failed.newu = asked.newu && newu_now() != 0;
  failed.restart =
      asked.restart && path_exec(kInitScript, "restart", static_cast<char*>(nullptr)) != 0;
  failed.reload =
      asked.reload && path_exec(kInitScript, "reload", static_cast<char*>(nullptr)) != 0;
  failed.hup = asked.hup && send_sig("qmail-send", SIGHUP) != 0;
  return failed;
}

int qmail_refresh() {
  bool const newu_failed = run_qmail_newu() != 0;
  bool const reload_failed = qmail_soft_reload_configuration() != 0;
  return newu_failed || reload_failed ? -1 : 0;
}
