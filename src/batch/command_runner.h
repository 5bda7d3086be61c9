// Running one dravnik command inside this process, as its own run would:
// from the state a run of its own starts from (fresh_state.h), its document
// on standard input, its passwords where the front end looks for them,
// whatever it prints on standard output and standard error kept for the
// caller, and a fatal failure ending that command only.
#ifndef DRAVNIK_BATCH_COMMAND_RUNNER_H_
#define DRAVNIK_BATCH_COMMAND_RUNNER_H_

#include <functional>
#include <string>

#include "batch/batch_input.h"
#include "batch/fresh_state.h"
#include "util/fs.h"

namespace tavix {
namespace batch {

struct Outcome {
  int status = 0;
  std::string output;  // standard output and standard error, interleaved
};

class CommandRunner {
 public:
  // Keeps this process's own standard streams aside for the caller's use
  // (see output_fd()) and sets the fatal handler. Throws std::runtime_error
  // when descriptors cannot be had.
  CommandRunner();
  ~CommandRunner();
  CommandRunner(const CommandRunner&) = delete;
  CommandRunner& operator=(const CommandRunner&) = delete;

  // Leaves the standard streams on the command's files, for the next
  // command; restore() gives them back before anything else may print.
  Outcome run(const Command& command);
  void restore();

  // Runs `work` (a checkpoint's close) with the standard streams on the
  // output file, as a command runs, and gives back what it printed: the
  // message printer writes standard output too, which carries the report.
  std::string capture(const std::function<void()>& work);

  // The process's standard output and error as they were at construction.
  int output_fd() const { return saved_out_.get(); }
  int error_fd() const { return saved_err_.get(); }

 private:
  void redirect(int in);
  void load_input(const std::string& text);
  void clear_output();

  FreshState fresh_;
  UniqueFd saved_in_;
  UniqueFd saved_out_;
  UniqueFd saved_err_;
  // Kept for the whole batch: the command's standard input when it has no
  // document, its document, and what it prints.
  UniqueFd no_input_;
  UniqueFd input_;
  UniqueFd output_;
  bool redirected_ = false;
  int input_now_ = -1;
  // What the input file holds (commands of a batch mostly repeat their
  // document), and whether the output file may hold anything.
  std::string input_text_;
  bool input_loaded_ = false;
  bool output_used_ = true;
};

}  // namespace batch
}  // namespace tavix

#endif  // DRAVNIK_BATCH_COMMAND_RUNNER_H_
