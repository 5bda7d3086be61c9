#include "qmail/qmail_control.h"

#include <csignal>
#include <string>

#include "qmail/paths.h"
#include "util/account.h"
#include "util/exec.h"

namespace {

const char kInitScript[] = "/etc/rc.d/init.d/qmail";

}  // namespace

int run_qmail_newu() {
  std::string newu = tavix::qmail::qmail_file("/bin/qmail-newu");
  return path_exec(newu.c_str(), static_cast<char*>(nullptr));
}

int qmail_restart() {
  return path_exec(kInitScript, "restart", static_cast<char*>(nullptr));
}

int qmail_reload_configuration() {
  return path_exec(kInitScript, "reload", static_cast<char*>(nullptr));
}

int qmail_soft_reload_configuration() {
  return send_sig("qmail-send", SIGHUP);
}

int qmail_refresh() {
  bool const newu_failed = run_qmail_newu() != 0;
  bool const reload_failed = qmail_soft_reload_configuration() != 0;
  return newu_failed || reload_failed ? -1 : 0;
}
