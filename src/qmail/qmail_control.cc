#include "qmail/qmail_control.h"

#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>

#include "qmail/lock.h"
#include "qmail/paths.h"
#include "qmail/shared_run.h"
#include "util/account.h"
#include "util/exec.h"
#include "util/log.h"

namespace {

using tavix::qmail::SharedRun;

const char kInitScript[] = "/etc/rc.d/init.d/qmail";

bool deferring = false;
QmailRequests noted;

// True when the request was only counted in `*count`.
bool note(int* count) {
  if (deferring)
    ++*count;
  return deferring;
}

const std::string& assign_path() {
  static const std::string path = tavix::qmail::qmail_file("/users/assign");
  return path;
}

// qmail-newu always writes the same users/cdb.tmp and renames it over
// users/cdb: two compiles at once trample each other, and a compile that
// read users/assign before another run's edit could finish after that
// run's own compile and leave a users/cdb older than the file. So compiles
// take turns under the lock of users/cdb, and each reads users/assign
// under the file's own lock, the one every edit holds: it reads a whole
// file, exactly the one of the generation it serves. Each edit counts
// itself under that lock (qmail_note_edit()), and a run whose edit a
// compile that starts later will read waits for that compile instead of
// starting one of its own (shared_run.h tells how).
const SharedRun& compile() {
  static const SharedRun run(assign_path(), tavix::qmail::qmail_file("/users/cdb"), true);
  return run;
}

// SIGHUP and the init script: what they act on (the control files) is read
// by qmail after the signal or the script, so any one sent after a request
// serves it. Their request locks only count requests.
const SharedRun& hup() {
  static const SharedRun run("qmail-send SIGHUP requests", "qmail-send SIGHUP", false);
  return run;
}

const SharedRun& init_script(const char* action) {
  static const SharedRun reload(std::string(kInitScript) + " reload requests",
                                std::string(kInitScript) + " reload", false);
  static const SharedRun restart(std::string(kInitScript) + " restart requests",
                                 std::string(kInitScript) + " restart", false);
  return strcmp(action, "reload") == 0 ? reload : restart;
}

// The generation of this process's latest edit of users/assign that no
// compile was asked for yet; 0 when there is none, or when one was made
// that could not be counted: then the compile is asked for anew, which any
// compile that starts later serves.
uint64_t assign_generation = 0;

int newu_now() {
  uint64_t generation = assign_generation ? assign_generation : compile().request();
  assign_generation = 0;
  return compile().await(generation, [](std::string* why) {
    std::string newu = tavix::qmail::qmail_file("/bin/qmail-newu");
    char* const argv[] = {&newu[0], nullptr};
    return tavix::run_reporting(newu.c_str(), argv, false, why);
  });
}

int init_now(const char* action) {
  const SharedRun& run = init_script(action);
  return run.await(run.request(), [action](std::string* why) {
    const char* const argv[] = {kInitScript, action, nullptr};
    return tavix::run_reporting(kInitScript, const_cast<char* const*>(argv), false, why);
  });
}

int hup_now() {
  return hup().await(hup().request(), [](std::string* why) {
    return send_sig("qmail-send", SIGHUP, why);
  });
}

}  // namespace

void qmail_note_edit(const char* path, bool locked) {
  if (assign_path() != path)
    return;
  assign_generation = locked ? compile().note_change() : 0;
}

bool qmail_users_cdb_current() { return compile().caught_up(); }

int run_qmail_newu() {
  return note(&noted.newu) ? 0 : newu_now();
}

int qmail_restart() {
  return note(&noted.restart) ? 0 : init_now("restart");
}

int qmail_reload_configuration() {
  return note(&noted.reload) ? 0 : init_now("reload");
}

int qmail_soft_reload_configuration() {
  return note(&noted.hup) ? 0 : hup_now();
}

void qmail_defer(bool on) { deferring = on; }

QmailRequests qmail_deferred_requests() { return noted; }

QmailRequests qmail_run_deferred() {
  QmailRequests const asked = noted;
  noted = QmailRequests();
  QmailRequests failed;
  failed.newu = asked.newu && newu_now() != 0;
  failed.restart = asked.restart && init_now("restart") != 0;
  failed.reload = asked.reload && init_now("reload") != 0;
  failed.hup = asked.hup && hup_now() != 0;
  return failed;
}

int qmail_refresh() {
  bool const newu_failed = run_qmail_newu() != 0;
  bool const reload_failed = qmail_soft_reload_configuration() != 0;
  return newu_failed || reload_failed ? -1 : 0;
}
