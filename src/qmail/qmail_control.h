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

#endif  // DRAVNIK_QMAIL_QMAIL_CONTROL_H_
