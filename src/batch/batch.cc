#include "batch/batch.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "batch/batch_input.h"
#include "batch/checkpoint.h"
#include "batch/command_runner.h"
#include "batch/journal.h"
#include "qmail/lock.h"
#include "util/fs.h"
#include "util/strings.h"

namespace tavix {
namespace batch {

namespace {

// A command whose work cannot be held (a domain rename runs plug-ins and
// sed on the shared files), or that must not be run a second time after a
// kill (a mail name rename moves the mailbox at once: run again from the
// start of its checkpoint, "add m2" would make m2 anew beside the r2 it
// became). It ends the checkpoint and runs as it does alone, in a
// checkpoint of its own.
bool runs_alone(const Command& command) {
  return command.argv[0] == "--rename-domain" || command.argv[0] == "--rename-mailname";
}

// Whether a report line (as the journal keeps them) tells of a failure.
bool reports_failure(const std::string& report) {
  static const char kStatus[] = "\"status\": ";
  size_t const at = report.find(kStatus);
  return at == std::string::npos || report.compare(at + sizeof kStatus - 1, 2, "0,") != 0;
}

double now() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + t.tv_nsec / 1e9;
}

struct Done {
  size_t line;
  Outcome outcome;
  bool asked_qmail;  // the command asked for a compile, restart or SIGHUP
};

class Batch {
 public:
  Batch(const Options& options, Journal* journal, size_t total)
      : options_(options), journal_(journal), total_(total), started_(now()),
        progress_(isatty(runner_.error_fd()) == 1) {}

  // Writes what the journal tells of the commands a killed run of this
  // batch finished; false when it could not be written.
  bool resume();

  // False once the batch is to stop.
  bool run_line(size_t number, const std::string& line);
  // Ends the checkpoint and reports what it holds. False when the batch is
  // to stop: the checkpoint could not be closed, or its report not written.
  bool flush();
  int status() const { return failed_ ? 1 : 0; }
  // Whether the report or the journal could not be written, and why.
  bool unrecorded() const { return unrecorded_ != 0; }
  int unrecorded_errno() const { return unrecorded_; }
  // What an operator is to know when a checkpoint could not be closed.
  void explain_stop();
  void end_progress();

 private:
  // False when the batch is to stop at the checkpoint that a command run
  // alone ends.
  bool run_command(size_t number, const Command& command);
  void show_progress();

  const Options& options_;
  Journal* journal_;
  CommandRunner runner_;
  Checkpoint checkpoint_;
  std::vector<Done> done_;
  size_t total_;
  size_t finished_ = 0;
  double started_;
  bool progress_;
  bool failed_ = false;
  bool retry_last_ = false;  // stopped on a failure, which is run again
  int unrecorded_ = 0;  // the errno of the failed write of the report or journal
  // The lines of the checkpoint that could not be closed; 0 while none.
  size_t undone_first_ = 0;
  size_t undone_last_ = 0;
};

bool Batch::run_command(size_t number, const Command& command) {
  if (runs_alone(command)) {
    if (!flush())
      return false;
    done_.push_back({number, runner_.run(command), false});
    return true;
  }
  checkpoint_.open();
  int const asked_before = checkpoint_.requests().total();
  Outcome outcome = runner_.run(command);
  done_.push_back({number, std::move(outcome), checkpoint_.requests().total() > asked_before});
  return true;
}

bool Batch::run_line(size_t number, const std::string& line) {
  Command command;
  std::string error;
  bool alone = false;
  if (parse_command(line, &command, &error)) {
    alone = runs_alone(command);
    if (!run_command(number, command))
      return false;
  } else {
    Outcome outcome;
    outcome.status = 1;
    outcome.output = "dravnik-batch: line " + std::to_string(number) + ": " + error + "\n";
    done_.push_back({number, outcome, false});
  }
  ++finished_;
  bool const failed = done_.empty() || done_.back().outcome.status != 0;
  if (failed && options_.stop_on_error) {
    retry_last_ = true;
    return false;
  }
  // A command run alone is its own checkpoint.
  if ((alone || done_.size() >= static_cast<size_t>(options_.checkpoint)) && !flush())
    return false;
  show_progress();
  return true;
}

bool Batch::resume() {
  const std::string& report = journal_->done_report();
  for (size_t start = 0, end; (end = report.find('\n', start)) != std::string::npos;
       start = end + 1) {
    ++finished_;
    if (reports_failure(report.substr(start, end - start)))
      failed_ = true;
  }
  return write_all(runner_.output_fd(), report);
}

// A checkpoint whose files or databases could not be written is not
// recorded as done: the same batch run again starts with its first line, and
// since the close left the databases as they were before it, its commands
// redo their part. The batch stops there, --stop-on-error or not: the
// journal tells how far the batch got by one line number, so no later
// checkpoint could be recorded.
bool Batch::flush() {
  Checkpoint::Result result;
  std::string const printed = runner_.capture([&] { result = checkpoint_.close(); });
  bool const closed = result.written();
  // What the close printed explains a failure it reports; otherwise it
  // belongs to no command, and goes to standard error.
  std::string message = result.message();
  if (!message.empty())
    message = printed + message;
  else if (!printed.empty())
    (void)write_all(runner_.error_fd(), printed);
  std::string report;
  size_t recorded = 0;  // how much of the report goes into the journal
  size_t last = 0;
  for (Done& done : done_) {
    // Every command of a checkpoint not written is to be run again; a failed
    // compile or signal concerns those that asked for one.
    if (!message.empty() && (!closed || done.asked_qmail)) {
      done.outcome.status = done.outcome.status ? done.outcome.status : 1;
      done.outcome.output += message;
    }
    if (done.outcome.status != 0)
      failed_ = true;
    report += "{\"line\": " + std::to_string(done.line) +
              ", \"status\": " + std::to_string(done.outcome.status) +
              ", \"output\": " + json_quote(done.outcome.output) + "}\n";
    // The failure the batch stopped at is not recorded as done: the same
    // batch run again, once its cause is mended, starts with it.
    if (closed && (&done != &done_.back() || !retry_last_)) {
      recorded = report.size();
      last = done.line;
    }
  }
  if (!closed && !done_.empty()) {
    undone_first_ = done_.front().line;
    undone_last_ = done_.back().line;
  }
  done_.clear();
  // Recorded after the checkpoint is closed: a kill before the record runs
  // this checkpoint again, a kill after does not.
  if (!write_all(runner_.output_fd(), report) ||
      !journal_->record(report.substr(0, recorded), last)) {
    unrecorded_ = errno ? errno : EIO;
    return false;
  }
  return undone_first_ == 0;
}

void Batch::explain_stop() {
  if (undone_first_ == 0)
    return;
  std::string text = "dravnik-batch: the checkpoint of lines " + std::to_string(undone_first_) +
                     " to " + std::to_string(undone_last_) +
                     " could not be closed; they are not recorded as done";
  if (finished_ < total_)
    text += ", and the " + std::to_string(total_ - finished_) + " commands after them were not run";
  text += ". Once the cause is mended, run the same batch again: it goes on with line " +
          std::to_string(undone_first_) + ".\n";
  (void)write_all(runner_.error_fd(), text);
}

void Batch::show_progress() {
  if (!progress_)
    return;
  double const elapsed = now() - started_;
  double const rate = elapsed > 0 ? finished_ / elapsed : 0;
  double const left = rate > 0 ? (total_ - finished_) / rate : 0;
  char text[128];
  snprintf(text, sizeof text, "\r%zu/%zu  %.0f/s  %.0f s left ", finished_, total_, rate, left);
  (void)write_all(runner_.error_fd(), text);
}

void Batch::end_progress() {
  if (progress_)
    (void)write_all(runner_.error_fd(), "\n");
}

bool refuse(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

}  // namespace

bool read_input(const std::string& input, std::vector<std::string>* lines,
                std::string* error) {
  std::string text;
  if (input == "-") {
    if (!read_to_end(STDIN_FILENO, &text))
      return refuse(error, std::string("cannot read standard input: ") + strerror(errno));
  } else {
    UniqueFd fd(open(input.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0)
      return refuse(error, "cannot open " + input + ": " + strerror(errno));
    if (!S_ISREG(status.st_mode) || status.st_uid != 0 || (status.st_mode & 066) != 0)
      return refuse(error, input +
                               " must be a regular file owned by root that neither its group "
                               "nor others may read or write: it may hold passwords");
    if (!read_to_end(fd.get(), &text))
      return refuse(error, "cannot read " + input + ": " + strerror(errno));
  }
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos)
      end = text.size();
    lines->push_back(text.substr(start, end - start));
    start = end + 1;
  }
  size_t blank = 0;
  for (const std::string& line : *lines)
    blank += is_blank(line) ? 1 : 0;
  if (blank == lines->size())
    return refuse(error, "no commands in " + (input == "-" ? "standard input" : input));
  return true;
}

int run_batch(const Options& options, const std::vector<std::string>& lines) {
  size_t total = 0;
  for (const std::string& line : lines)
    total += is_blank(line) ? 0 : 1;
  Journal journal;
  std::string error;
  if (!journal.open(lines, &error)) {
    fprintf(stderr, "dravnik-batch: %s\n", error.c_str());
    return 1;
  }
  // Held for the whole batch, before any command runs: see qmail/lock.h.
  if (hold_setup_lock_shared() != 0) {
    fprintf(stderr, "dravnik-batch: cannot lock the mail setup: %s\n", strerror(errno));
    return 1;
  }
  Batch batch(options, &journal, total);
  if (!batch.resume()) {
    fprintf(stderr, "dravnik-batch: cannot write the report: %s\n", strerror(errno));
    return 1;
  }
  for (size_t i = journal.done_through(); i < lines.size(); ++i) {
    if (is_blank(lines[i]))
      continue;
    if (!batch.run_line(i + 1, lines[i]))
      break;
  }
  (void)batch.flush();
  batch.end_progress();
  if (batch.unrecorded()) {
    fprintf(stderr, "dravnik-batch: cannot write the report or the journal: %s\n",
            strerror(batch.unrecorded_errno()));
    return 1;
  }
  batch.explain_stop();
  return batch.status();
}

}  // namespace batch
}  // namespace tavix
