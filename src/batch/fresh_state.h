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

  // Right before a command: notes the descriptors open now (the batch's
  // own and those a checkpoint holds), which the command may not close
  // behind its owners' backs either, and clears errno.
  void before_command();
  // Right after it: closes what the command opened and left open, except
  // what a checkpoint holds on purpose and the connections libraries keep
  // for the process (the log's socket), and puts the noted state back.
  // `failed`: the command did not end with status 0; the signal mask and
  // dispositions are put back too. Throws std::runtime_error when the
  // state cannot be put back.
  void after_command(bool failed);

 private:
  std::vector<int> open_descriptors();

  UniqueFd start_dir_;
  UniqueFd descriptors_dir_;  // /proc/self/fd, read again for each listing
  mode_t umask_;
  sigset_t mask_;
  struct sigaction actions_[NSIG];
  bool action_known_[NSIG];
  std::vector<int> open_before_;
};

}  // namespace batch
}  // namespace tavix

#endif  // DRAVNIK_BATCH_FRESH_STATE_H_
