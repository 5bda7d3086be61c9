#include "batch/journal.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "util/strings.h"

namespace tavix {
namespace batch {

const char kJournalDir[] = "/var/lib/tavix/mail/batch";

namespace {

bool fail(std::string* error, const std::string& text) {
  *error = text + ": " + strerror(errno);
  return false;
}

std::string digest_hex(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += line + "\n";
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1)
    return std::string();
  return hex_string(digest, length);
}

// The input line number of a report line, which starts {"line": N, ...};
// 0 when it does not.
size_t reported_line(const std::string& report) {
  static const char kStart[] = "{\"line\": ";
  if (report.compare(0, sizeof kStart - 1, kStart) != 0)
    return 0;
  return strtoul(report.c_str() + sizeof kStart - 1, nullptr, 10);
}

}  // namespace

bool Journal::open(const std::vector<std::string>& lines, std::string* error,
                   const char* dir) {
  std::string const name = digest_hex(lines);
  if (name.empty()) {
    errno = EIO;
    return fail(error, "cannot compute the batch's digest");
  }
  // The journals are readable by root alone; the directory (and any parent
  // a fresh server lacks) is not what keeps them so.
  if (createNestedDirectory(dir) == 0)
    return fail(error, std::string("cannot make ") + dir);
  path_ = std::string(dir) + "/" + name;
  fd_ = open_nofollow(path_.c_str(), O_RDWR | O_CREAT, 0600);
  if (!fd_)
    return fail(error, "cannot open " + path_);
  if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      *error = "the same batch is being run now (" + path_ + " is locked)";
      return false;
    }
    return fail(error, "cannot lock " + path_);
  }
  return load(error);
}

// Keeps the whole lines of the journal; a line cut short by a kill in the
// middle of an append is dropped from the file, and its checkpoint runs
// again.
bool Journal::load(std::string* error) {
  std::string text;
  if (!read_to_end(fd_.get(), &text))
    return fail(error, "cannot read " + path_);
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    size_t const line = reported_line(text.substr(start, end - start));
    if (line <= through_)
      break;
    through_ = line;
    done_.append(text, start, end + 1 - start);
  }
  if (done_.size() != text.size() &&
      (ftruncate(fd_.get(), static_cast<off_t>(done_.size())) != 0 || fsync(fd_.get()) != 0))
    return fail(error, "cannot truncate " + path_);
  if (lseek(fd_.get(), 0, SEEK_END) < 0)
    return fail(error, "cannot seek in " + path_);
  size_ = static_cast<off_t>(done_.size());
  return true;
}

bool Journal::record(const std::string& report, size_t last) {
  if (report.empty())
    return true;
  if (write_all(fd_.get(), report) && fdatasync(fd_.get()) == 0) {
    size_ += static_cast<off_t>(report.size());
    through_ = last;
    return true;
  }
  // A disk that filled up midway leaves whole lines of the checkpoint, which
  // the next run would take for done: cut them off (which needs no room).
  int const saved = errno;
  if (ftruncate(fd_.get(), size_) == 0)
    (void)lseek(fd_.get(), size_, SEEK_SET);
  errno = saved;
  return false;
}

}  // namespace batch
}  // namespace tavix
