// A checkpoint: the span of commands whose changes of qmail's shared files
// are written together. While one is open, users/assign and the control
// files are edited in memory under their locks, qmail-newu, the init
// script and the SIGHUP to qmail-send are only noted, and each database's
// changes go into one transaction, each mailbox's maildirsize waits for
// its last limits, and each .qmail reset waits with the delivery line
// edits that follow it; closing it writes each changed file once, then
// compiles once, restarts or reloads once, sends at most one SIGHUP, and
// commits.
//
// A batch killed at any instant thus leaves every file whole; the files
// are written before the compile, so a kill between the two leaves a
// users/cdb that the next run's compile (every command that edits
// users/assign asks for one) brings up to date. The databases commit last;
// a kill before leaves them as they were before the checkpoint, and the
// commands, run again, redo their part.
//
// A close that cannot write its files (a full or read-only disk) ends the
// same way: a quota or .qmail file that cannot be written keeps the shared
// files as they were (they would open the new mailboxes to mail without
// their limits or delivery lines), and the databases are rolled back, so that the commands run again
// meet them as they were before the checkpoint.
#ifndef DRAVNIK_BATCH_CHECKPOINT_H_
#define DRAVNIK_BATCH_CHECKPOINT_H_

#include <memory>
#include <string>

#include "mailauth/cipher.h"
#include "qmail/qmail_control.h"

namespace tavix {
namespace batch {

class Checkpoint {
 public:
  Checkpoint() = default;
  // Closes an open checkpoint; its result is lost, so callers close().
  ~Checkpoint();
  Checkpoint(const Checkpoint&) = delete;
  Checkpoint& operator=(const Checkpoint&) = delete;

  void open();
  bool is_open() const { return open_; }

  // What the commands run since open() asked qmail for so far.
  QmailRequests requests() const;

  struct Result {
    bool files_failed = false;
    bool quotas_failed = false;  // a mailbox's maildirsize
    bool dotqmails_failed = false;  // a mail name's .qmail
    bool databases_failed = false;
    bool databases_undone = false;  // rolled back after a failed write
    QmailRequests failed;  // which deferred runs failed
    // Whether the files were written and the databases committed: else the
    // checkpoint's commands are to be run again. A compile or signal that
    // failed does not undo them (qmail may just be stopped); the next
    // compile or signal catches up.
    bool written() const {
      return !files_failed && !quotas_failed && !dotqmails_failed && !databases_failed;
    }
    // The text for the commands that a failure here concerns.
    std::string message() const;
  };
  // Writes, compiles and signals as described above; no-op when closed.
  Result close();

 private:
  bool open_ = false;
  // The mail password cipher, set up once for the checkpoint instead of
  // once per password: a new key comes with the databases' passwords
  // encrypted anew, which waits for the checkpoint's write locks anyway.
  std::unique_ptr<MailCipherReference> cipher_;
};

}  // namespace batch
}  // namespace tavix

#endif  // DRAVNIK_BATCH_CHECKPOINT_H_
