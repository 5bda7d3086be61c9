// One run of a qmail program shared by every overlapping run of dravnik
// that needs it: a compile of users/assign by qmail-newu, a SIGHUP to
// qmail-send, a reload of qmail's init script.
//
// The panel starts runs in bursts (an import, a provisioning job, the busy
// hour). Each run that edits users/assign needs a compile that reads the
// file after its edit; compiles take turns, and at 100,000 names each takes
// over a tenth of a second, so a hundred runs compiling one after the other
// spend most of the burst waiting for compiles that each add one line. A
// compile that starts after several edits serves them all: databases call
// this a group commit.
//
// How it works. A shared program has
//   - a request lock. Whoever changes what the program reads does so
//     holding it (for qmail-newu it is the lock of users/assign, which
//     every edit of the file holds anyway) and, before letting it go,
//     counts the change: the counter in the state file goes up by one and
//     the new value is the change's generation. A run that has changed
//     nothing itself and still needs the program takes a generation the
//     same way (request());
//   - a run lock, held by the one run of the program under way (the
//     leader) and by the program itself while it runs: a leader killed
//     mid-run leaves its child holding it, so two runs never overlap;
//   - a state file beside the run lock (open_lock_state_file()) holding
//     the last generation handed out and the ledger of the runs: the
//     highest generation a run has served, the highest a successful one
//     has served, and the range and message of the last few failures.
// A run with generation g calls await(g). When the ledger already says a
// run that served g ended, that is its result. Otherwise it waits for the
// run lock; holding it, it reads the ledger again (the run it waited for
// may have served it) and if not, it leads: it reads the counter G under
// the request lock, runs the program and enters "served through G, with
// this result" into the ledger. Every change counted at or below G was
// made before the program started, so the program saw it; for qmail-newu
// the request lock is kept for the whole compile, so the compile reads
// exactly the file of generation G, and any later edit gets a generation
// above G and a compile of its own (the last compile reads the last edit).
//
// A failed run fails every request it served, each with the program's own
// message: the first run that served g decides for g, even when a later
// one succeeded. A run killed at any instant cannot make another succeed
// wrongly: a leader killed before writing the ledger leaves it as it was,
// so its followers find themselves unserved and lead in turn; a change
// counted by a killed run only makes a later run serve more. The state
// file is written in place in fixed slots with a checksum, so a write cut
// short reads as unknown and a kill leaves no temporary file behind: a
// ledger that cannot be read counts as "nothing served", and the counter
// is kept in two slots written in turn, so that one cut short leaves the
// last value handed out in the other.
#ifndef DRAVNIK_QMAIL_SHARED_RUN_H_
#define DRAVNIK_QMAIL_SHARED_RUN_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

namespace tavix {
namespace qmail {

// The ledger of one program's runs: which generations were served, and
// how.
class RunLedger {
 public:
  enum class Verdict { kPending, kSucceeded, kFailed };

  // What the request of generation `g` got. For kFailed, `*why` is the
  // message of the run that served it.
  Verdict judge(uint64_t g, std::string* why) const;
  // Enters a run that served every generation up to `through`.
  void enter(uint64_t through, bool ok, const std::string& why);
  uint64_t through() const { return through_; }
  // The highest generation a successful run has served.
  uint64_t succeeded() const { return succeeded_; }

  std::string encode() const;
  // False for text that is not a whole ledger; `*ledger` is then unchanged.
  static bool decode(const std::string& text, RunLedger* ledger);

  // Failures kept, and the length of the message kept for each.
  static constexpr size_t kKeptFailures = 3;
  static constexpr size_t kMessageLimit = 600;

 private:
  struct Failure {
    uint64_t after;    // served the generations above this
    uint64_t through;  // up to and including this
    std::string why;
  };
  uint64_t through_ = 0;
  uint64_t succeeded_ = 0;
  std::deque<Failure> failures_;
};

// A slot of `size` bytes holding `payload` and its checksum, padded with
// NULs; unseal_slot() gives the payload back, or false for a slot whose
// write was cut short or that holds anything else. An all-NUL slot (never
// written) is an empty payload.
std::string seal_slot(const std::string& payload, size_t size);
bool unseal_slot(const std::string& slot, std::string* payload);

class SharedRun {
 public:
  // The locks by the paths they are taken on (see lock.h); the state file
  // goes with the run lock. With `hold_requests` the program runs with
  // the request lock held: it reads what the changes changed.
  SharedRun(std::string request_lock, std::string run_lock, bool hold_requests);

  // For a caller that holds the request lock and has just changed what the
  // program reads: the change's generation, or 0 (logged) when it could
  // not be counted.
  uint64_t note_change() const;
  // Takes the request lock and counts a request: any run of the program
  // that starts after this serves it. The generation, or 0 (reported).
  uint64_t request() const;

  // Runs the program: 0, or non-zero after showing why, with the message
  // in `*why`.
  using Program = std::function<int(std::string* why)>;
  // Returns once a run of the program that served `generation` has ended,
  // leading that run itself when none is under way or on its way: 0 when
  // it succeeded; non-zero when it failed, after showing its message (the
  // leader's program shows its own). With generation 0 (none could be had)
  // the program runs for this caller alone, as it always could.
  int await(uint64_t generation, const Program& program) const;

  // Whether a successful run has served every change counted so far, so
  // that what the program made (users/cdb) holds them all: read without a
  // lock, for a reader that must not wait on the runs. A change being made
  // at that very moment is not counted yet; false when the state file
  // cannot be read or no run has made it yet.
  bool caught_up() const;

 private:
  int run_alone(const Program& program) const;

  std::string request_lock_;
  std::string run_lock_;
  bool hold_requests_;
};

}  // namespace qmail
}  // namespace tavix

#endif  // DRAVNIK_QMAIL_SHARED_RUN_H_
