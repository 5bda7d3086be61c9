// What each command of a batch starts from: the process state a run of its
// own would start from. A command may leave its working directory in a
// directory its undo removed, a descriptor (and the lock it carries) that
// a fatal failure cut off from its owner, errno set, or a signal
// disposition that a guard it skipped was to put back; none of that may
// reach the next command.
#ifndef DRAVNIK_BATCH_FRESH_STATE_H_
#define DRAVNIK_BATCH_FRESH_STATE_H_

#include <signal.h>
#include <sys/types.h>

#include <vector>

#include "util/fs.h"

namespace tavix {
namespace batch {

class FreshState {
 public:
  // Notes the state to start each command from: this process's working
  // directory, umask, signal mask and dispositions as they are now. Throws
  // std::runtime_error when they cannot be had.
  FreshState();
  FreshState(const FreshState&) = delete;
  FreshState& operator=(const FreshState&) = delete;

  // Right before a command: clears errno and, when the descriptors may
  // have changed since the last look, notes those open now (the batch's
  // own), which a command may not close behind their owners' backs.
  void before_command();
  // Right after it: lets go of the locks it kept "until exit", puts the
  // working directory and umask back and, when it failed (`failed`: its
  // status was not 0), closes what it left open and puts the signal mask
  // and dispositions back; what a checkpoint holds on purpose and the
  // connections libraries keep for the process (the log's socket) stay.
  // Throws std::runtime_error when the state cannot be put back.
  void after_command(bool failed);
  // The batch opened or closed descriptors of its own (a checkpoint's
  // close, the journal): before_command() looks again.
  void descriptors_changed() { baseline_known_ = false; }

 private:
  std::vector<int> open_descriptors();

  UniqueFd start_dir_;
  UniqueFd descriptors_dir_;  // /proc/self/fd, read again for each listing
  mode_t umask_;
  sigset_t mask_;
  struct sigaction actions_[NSIG];
  bool action_known_[NSIG];
  std::vector<int> baseline_;  // open before the commands, sorted
  bool baseline_known_ = false;
};

}  // namespace batch
}  // namespace tavix

#endif  // DRAVNIK_BATCH_FRESH_STATE_H_
