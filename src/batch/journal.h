// The record of how far a batch got, so that running the same batch again
// after a kill goes on where the last checkpoint ended instead of starting
// over: commands such as "add m2, then rename m2 to r2" cannot simply be run
// twice.
//
// A batch is known by the SHA-256 of its lines; its journal is the file
// kJournalDir/<hex digest>, holding the report lines (one JSON object per
// command, as written on standard output) of every checkpoint already
// closed, appended and synced after each checkpoint. It stays when the
// batch has ended: the same batch run again (after a kill that came just
// after the end, or by mistake) reports what it did and changes nothing,
// where running "add m2, rename m2 to r2" a second time would add m2 anew.
// To apply the same lines again on purpose, the operator removes the
// journal. It is kept locked while its batch runs: a second run of the
// same batch at the same time is refused.
#ifndef DRAVNIK_BATCH_JOURNAL_H_
#define DRAVNIK_BATCH_JOURNAL_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "util/fs.h"

namespace tavix {
namespace batch {

extern const char kJournalDir[];

class Journal {
 public:
  // Opens (creating if need be) and locks the journal of the batch made of
  // `lines` in `dir`. False with `*error` set.
  bool open(const std::vector<std::string>& lines, std::string* error,
            const char* dir = kJournalDir);

  // The report lines of the commands already done, each ending in "\n",
  // and the number of the last input line they cover (0: none).
  const std::string& done_report() const { return done_; }
  size_t done_through() const { return through_; }
  const std::string& path() const { return path_; }

  // Appends the report of a closed checkpoint that ends with input line
  // `last` and puts it on disk. False with errno set, the journal then as
  // it was.
  bool record(const std::string& report, size_t last);

 private:
  bool load(std::string* error);

  std::string path_;
  UniqueFd fd_;
  std::string done_;
  size_t through_ = 0;
  off_t size_ = 0;  // what the whole records take in the file
};

}  // namespace batch
}  // namespace tavix

#endif  // DRAVNIK_BATCH_JOURNAL_H_
