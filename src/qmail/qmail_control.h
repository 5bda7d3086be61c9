// Starting the qmail programs that make a change of its files take effect.
#ifndef DRAVNIK_QMAIL_QMAIL_CONTROL_H_
#define DRAVNIK_QMAIL_QMAIL_CONTROL_H_

// Compiles users/assign into qmail's user database; the program's result
// (0 on success). Needed after every change of users/assign. Returns once
// a users/cdb compiled from a users/assign that holds this process's edits
// (or later ones) is in place; overlapping runs share compiles, so the
// compile may be another run's, and its failure is then reported here with
// qmail-newu's own message (shared_run.h).
int run_qmail_newu();

// Called by every edit of a qmail file under the file's lock (`locked`
// false: the lock could not be had), after it may have replaced the file:
// counts an edit of users/assign for the compile that must read it.
void qmail_note_edit(const char* path, bool locked);

// Whether users/cdb holds every counted edit of users/assign: the last
// edit was compiled, and the compile succeeded. Takes no lock (for a
// reader such as dravnik-auth); an edit made at that very moment is not
// seen, and neither is one whose count failed (logged when it happened)
// until the compile its run then starts by itself has ended.
bool qmail_users_cdb_current();

// qmail's init script with "restart" or "reload"; the script's result. Like
// the compile and the SIGHUP, one run of it serves every run that asked for
// it before it started.
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
