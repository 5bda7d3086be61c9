// dravnik-batch: many dravnik commands applied in one run, with the effects
// of running them one after the other. See doc/dravnik-batch.8.
#ifndef DRAVNIK_BATCH_BATCH_H_
#define DRAVNIK_BATCH_BATCH_H_

#include <string>
#include <vector>

namespace tavix {
namespace batch {

struct Options {
  std::string input;  // a path, or "-" for standard input
  bool stop_on_error = false;
  long checkpoint = 1000;  // commands per checkpoint
};

// The lines of the input, read whole. A file given by path must be a
// regular file owned by root that nobody else may read or write: it may
// hold passwords. False with `*error` set.
bool read_input(const std::string& input, std::vector<std::string>* lines,
                std::string* error);

// Runs the lines as commands and writes one JSON line per command on
// standard output. The program's exit status: 0 when every command had
// status 0, 1 when any failed or a line could not be read.
int run_batch(const Options& options, const std::vector<std::string>& lines);

}  // namespace batch
}  // namespace tavix

#endif  // DRAVNIK_BATCH_BATCH_H_
