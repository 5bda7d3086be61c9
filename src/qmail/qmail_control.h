// Starting the qmail programs that make a change of its files take effect.
#ifndef DRAVNIK_QMAIL_QMAIL_CONTROL_H_
#define DRAVNIK_QMAIL_QMAIL_CONTROL_H_

// Compiles users/assign into qmail's user database; the program's result
// (0 on success). Needed after every change of users/assign.
int run_qmail_newu();

// qmail's init script with "restart" or "reload"; the script's result.
int qmail_restart();
int qmail_reload_configuration();

// SIGHUP to every running qmail-send, which then re-reads its control files
// (rcpthosts, virtualdomains, locals); the result of send_sig().
int qmail_soft_reload_configuration();

// run_qmail_newu(), then qmail_soft_reload_configuration(): what a change of
// users/assign and the control files needs. Both always run; 0, or -1 when
// either failed.
int qmail_refresh();

// Deferred mode, for a run that applies many commands in a row: while it is
// on, the functions above only note that they were asked for and give 0;
// qmail_run_deferred() then runs each noted one once, in the order qmail
// needs (the compile, the restart or reload, the SIGHUP).
// Counts of requests; in a result of qmail_run_deferred(), 1 for a failure.
struct QmailRequests {
  int newu = 0;
  int restart = 0;
  int reload = 0;
  int hup = 0;
  int total() const { return newu + restart + reload + hup; }
};
void qmail_defer(bool on);
// What was noted since the last qmail_run_deferred().
QmailRequests qmail_deferred_requests();
// Runs what was noted (deferred mode stays as it is) and forgets it. The
// flags of the result tell which of them failed.
QmailRequests qmail_run_deferred();

#endif  // DRAVNIK_QMAIL_QMAIL_CONTROL_H_
