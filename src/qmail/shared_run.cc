#include "qmail/shared_run.h"

#include <errno.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

#include "qmail/lock.h"
#include "util/exec.h"
#include "util/fs.h"
#include "util/log.h"

namespace tavix {
namespace qmail {

namespace {

// The state file: the counter, then the ledger, in slots of their own so
// that the writers of one (under the request lock) and of the other (under
// the run lock) never write over each other, all in the first page of the
// file. The counter takes two slots, written in turn (value v goes to slot
// v % 2): a write cut short spoils only the slot of a value nobody was
// handed, and the other slot still holds the last one that was.
struct Slot {
  off_t offset;
  size_t size;
};
const Slot kCounterSlots[2] = {{0, 64}, {64, 64}};
const Slot kLedgerSlot = {128, 4096 - 128};

const char kUnkeptMessage[] =
    "the run that served this request failed (its message is no longer kept)";

uint64_t fnv1a(const std::string& text) {
  uint64_t hash = 14695981039346656037ULL;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ULL;
  }
  return hash;
}

std::string checksum_line(const std::string& payload) {
  char line[24];
  snprintf(line, sizeof line, "#%016" PRIx64 "\n", fnv1a(payload));
  return line;
}

// Messages go in one line each.
std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else
      out += c;
  }
  return out;
}

bool unescape(const std::string& text, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      *out += text[i];
      continue;
    }
    if (++i == text.size())
      return false;
    if (text[i] == 'n')
      *out += '\n';
    else if (text[i] == '\\')
      *out += '\\';
    else
      return false;
  }
  return true;
}

bool parse_number(const std::string& text, uint64_t* value) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  errno = 0;
  unsigned long long parsed = strtoull(text.c_str(), nullptr, 10);
  if (errno != 0)
    return false;
  *value = parsed;
  return true;
}

// Reads a slot; bytes past the end of the file read as NULs. False (errno
// set) when the read failed.
bool read_slot(int fd, const Slot& slot, std::string* bytes) {
  bytes->assign(slot.size, '\0');
  return read_at(fd, &(*bytes)[0], slot.size, slot.offset) >= 0;
}

// One write of the whole slot: a kill cannot leave half of it.
bool write_slot(int fd, const Slot& slot, const std::string& payload) {
  std::string bytes = seal_slot(payload, slot.size);
  ssize_t n;
  do {
    n = pwrite(fd, bytes.data(), bytes.size(), slot.offset);
  } while (n < 0 && errno == EINTR);
  if (n >= 0 && static_cast<size_t>(n) != bytes.size())
    errno = EIO;
  return n >= 0 && static_cast<size_t>(n) == bytes.size();
}

enum class Read { kOk, kUnknown, kFailed };

// The last value handed out: the larger of the two slots.
Read read_counter(int fd, uint64_t* value) {
  *value = 0;
  int whole = 0;
  for (const Slot& slot : kCounterSlots) {
    std::string bytes, payload;
    if (!read_slot(fd, slot, &bytes))
      return Read::kFailed;
    uint64_t n = 0;
    if (unseal_slot(bytes, &payload) && (payload.empty() || parse_number(payload, &n))) {
      *value = std::max(*value, n);
      ++whole;
    }
  }
  return whole > 0 ? Read::kOk : Read::kUnknown;
}

bool write_counter(int fd, uint64_t value) {
  return write_slot(fd, kCounterSlots[value % 2], std::to_string(value));
}

Read read_ledger(int fd, RunLedger* ledger) {
  std::string bytes, payload;
  if (!read_slot(fd, kLedgerSlot, &bytes))
    return Read::kFailed;
  *ledger = RunLedger();
  if (!unseal_slot(bytes, &payload))
    return Read::kUnknown;
  return payload.empty() || RunLedger::decode(payload, ledger) ? Read::kOk : Read::kUnknown;
}

// What a follower shows for the run that served it.
int report(RunLedger::Verdict verdict, const std::string& why) {
  if (verdict == RunLedger::Verdict::kSucceeded)
    return 0;
  errno = 0;  // the program's failure, not a system error of ours
  messlog2(0, 0, "%s", why.c_str());
  return 1;
}

}  // namespace

// --- The ledger ---------------------------------------------------------------

RunLedger::Verdict RunLedger::judge(uint64_t g, std::string* why) const {
  if (g > through_)
    return Verdict::kPending;
  for (const Failure& f : failures_) {
    if (f.after < g && g <= f.through) {
      *why = f.why;
      return Verdict::kFailed;
    }
  }
  if (g <= succeeded_)
    return Verdict::kSucceeded;
  // Served by a failure whose entry made room for later ones.
  *why = kUnkeptMessage;
  return Verdict::kFailed;
}

void RunLedger::enter(uint64_t through, bool ok, const std::string& why) {
  uint64_t after = through_;
  through_ = std::max(through_, through);
  if (ok) {
    succeeded_ = std::max(succeeded_, through);
    return;
  }
  if (through_ == after)
    return;  // served nothing new
  failures_.push_back({after, through_, why.substr(0, kMessageLimit)});
  if (failures_.size() > kKeptFailures)
    failures_.pop_front();
}

// "through N", "succeeded N", then a line "failed A T message" per kept
// failure, oldest first.
std::string RunLedger::encode() const {
  std::string text = "through " + std::to_string(through_) + "\nsucceeded " +
                     std::to_string(succeeded_) + "\n";
  for (const Failure& f : failures_) {
    text += "failed " + std::to_string(f.after) + " " + std::to_string(f.through) + " " +
            escape(f.why) + "\n";
  }
  return text;
}

bool RunLedger::decode(const std::string& text, RunLedger* ledger) {
  RunLedger read;
  size_t at = 0;
  int line_number = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos)
      return false;
    std::string line = text.substr(at, end - at);
    at = end + 1;
    size_t space = line.find(' ');
    if (space == std::string::npos)
      return false;
    std::string word = line.substr(0, space), rest = line.substr(space + 1);
    ++line_number;
    if (line_number == 1 && word == "through") {
      if (!parse_number(rest, &read.through_))
        return false;
    } else if (line_number == 2 && word == "succeeded") {
      if (!parse_number(rest, &read.succeeded_))
        return false;
    } else if (line_number > 2 && word == "failed") {
      Failure f;
      size_t second = rest.find(' ');
      size_t third = second == std::string::npos ? second : rest.find(' ', second + 1);
      if (third == std::string::npos || !parse_number(rest.substr(0, second), &f.after) ||
          !parse_number(rest.substr(second + 1, third - second - 1), &f.through) ||
          !unescape(rest.substr(third + 1), &f.why))
        return false;
      read.failures_.push_back(std::move(f));
    } else {
      return false;
    }
  }
  if (line_number < 2)
    return false;
  *ledger = std::move(read);
  return true;
}

std::string seal_slot(const std::string& payload, size_t size) {
  std::string bytes = payload + checksum_line(payload);
  bytes.resize(std::max(size, bytes.size()), '\0');
  return bytes;
}

bool unseal_slot(const std::string& slot, std::string* payload) {
  std::string body = slot.substr(0, slot.find('\0'));
  if (body.empty()) {
    // Never written, unless something follows the first NUL.
    payload->clear();
    return slot.find_first_not_of('\0') == std::string::npos;
  }
  const size_t kLine = 18;  // "#" + 16 hex digits + "\n"
  if (body.size() < kLine)
    return false;
  std::string text = body.substr(0, body.size() - kLine);
  if (body.compare(text.size(), kLine, checksum_line(text)) != 0)
    return false;
  *payload = std::move(text);
  return true;
}

// --- The shared run -------------------------------------------------------------

SharedRun::SharedRun(std::string request_lock, std::string run_lock, bool hold_requests)
    : request_lock_(std::move(request_lock)),
      run_lock_(std::move(run_lock)),
      hold_requests_(hold_requests) {}

uint64_t SharedRun::note_change() const {
  UniqueFd state = open_lock_state_file(run_lock_.c_str());
  uint64_t counter = 0;
  Read counted = state ? read_counter(state.get(), &counter) : Read::kFailed;
  if (counted == Read::kUnknown) {
    // Both slots spoilt (by hand: a kill spoils one at most). No generation
    // handed out may be handed out again, and every one a run has served
    // was handed out: the best that is known.
    RunLedger ledger;
    if (read_ledger(state.get(), &ledger) != Read::kOk) {
      counted = Read::kFailed;
      errno = EIO;
    }
    counter = std::max(counter, ledger.through());
  }
  if (counted != Read::kFailed && write_counter(state.get(), counter + 1))
    return counter + 1;
  tavix_log(LOG_ERR, "Unable to count a change in the state file of %s: %s", run_lock_.c_str(),
            strerror(errno));
  return 0;
}

uint64_t SharedRun::request() const {
  ScopedLock requests(mk_lock(request_lock_.c_str(), 1));
  if (!requests.locked()) {
    tavix_log(LOG_ERR, "Error occurred while locking %s file", request_lock_.c_str());
    return 0;
  }
  return note_change();
}

int SharedRun::await(uint64_t generation, const Program& program) const {
  if (generation == 0)
    return run_alone(program);
  UniqueFd state = open_lock_state_file(run_lock_.c_str());
  if (!state)
    return run_alone(program);
  RunLedger ledger;
  std::string why;
  // What the ledger says of this generation now; kPending when unread.
  auto judged = [&] {
    return read_ledger(state.get(), &ledger) == Read::kOk ? ledger.judge(generation, &why)
                                                          : RunLedger::Verdict::kPending;
  };
  RunLedger::Verdict verdict = judged();
  if (verdict != RunLedger::Verdict::kPending)
    return report(verdict, why);

  ScopedLock running(mk_lock(run_lock_.c_str(), 1));
  if (!running.locked()) {
    tavix_log(LOG_ERR, "Error occurred while locking %s file", run_lock_.c_str());
    return -1;
  }
  // The run this one waited for may have served it.
  verdict = judged();
  if (verdict != RunLedger::Verdict::kPending)
    return report(verdict, why);

  // Lead. Everything counted up to `through` was changed before the
  // program starts.
  ScopedLock requests(mk_lock(request_lock_.c_str(), 1));
  if (!requests.locked()) {
    tavix_log(LOG_ERR, "Error occurred while locking %s file", request_lock_.c_str());
    return -1;
  }
  uint64_t through = 0;
  if (read_counter(state.get(), &through) != Read::kOk)
    through = 0;  // then it serves what it knows it serves: this request
  through = std::max(through, generation);
  if (!hold_requests_)
    requests.release();
  int result;
  {
    // The program holds the run lock too: killed mid-run, this process
    // must not let the next run start while its own is still at work.
    ChildrenKeepFd keep(running.get()->descriptor);
    result = program(&why);
  }
  ledger.enter(through, result == 0, why);
  if (!write_slot(state.get(), kLedgerSlot, ledger.encode())) {
    // Those waiting find themselves unserved and run the program again.
    tavix_log(LOG_ERR, "Unable to write the state file of %s: %s", run_lock_.c_str(),
              strerror(errno));
  }
  return result;
}

bool SharedRun::caught_up() const {
  UniqueFd state = open_lock_state_file_for_reading(run_lock_.c_str());
  uint64_t counter = 0;
  RunLedger ledger;
  return state && read_counter(state.get(), &counter) == Read::kOk &&
         read_ledger(state.get(), &ledger) == Read::kOk && counter <= ledger.succeeded();
}

int SharedRun::run_alone(const Program& program) const {
  ScopedLock running(mk_lock(run_lock_.c_str(), 1));
  if (!running.locked()) {
    tavix_log(LOG_ERR, "Error occurred while locking %s file", run_lock_.c_str());
    return -1;
  }
  ScopedLock requests(hold_requests_ ? mk_lock(request_lock_.c_str(), 1) : nullptr);
  if (hold_requests_ && !requests.locked()) {
    tavix_log(LOG_ERR, "Error occurred while locking %s file", request_lock_.c_str());
    return -1;
  }
  ChildrenKeepFd keep(running.get()->descriptor);
  std::string why;
  return program(&why);
}

}  // namespace qmail
}  // namespace tavix
