#include "qmail/file_copy.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "qmail/lock.h"
#include "util/atomic_file.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/unique_free.h"

namespace {

using tavix::AtomicFile;
using tavix::ScopedLock;
using tavix::UniqueFd;
using tavix::UniqueFile;

const size_t kBlock = 4096;

// The atomic copy's failures end the process; its temporary file goes with
// the AtomicFile, so that a failed copy leaves nothing beside the
// destination.
class AtomicCopy {
 public:
  AtomicCopy(const char* source, const char* destination)
      : source_(source), destination_(destination) {}

  [[noreturn]] void die(const char* step) {
    temp_.discard();
    messlog2(1, 1, "copy_file_atomic(%s -> %s): %s failed", source_,
             destination_, step);
    exit(1);  // not reached: messlog2() has ended the process
  }

  void run(uid_t uid, gid_t gid, mode_t mode) {
    UniqueFd in(open(source_, O_RDONLY | O_CLOEXEC));
    if (!in)
      die("open");
    if (!temp_.create(destination_, tavix::name_beside(destination_, ".XXXXXX"),
                      AtomicFile::Temp::kUnique, 0600))
      die("mkstemp");

    copy(in.get());
    if (!temp_.set_owner(uid, gid))
      die("chown");
    if (!temp_.set_mode(mode))
      die("chmod");
    if (!temp_.sync())
      die("flush");
    in.reset();
    if (!temp_.commit())
      die("rename");
  }

 private:
  void copy(int in) {
    char block[kBlock];
    for (;;) {
      ssize_t got = read(in, block, sizeof(block));
      if (got == 0)
        return;
      if (got < 0) {
        if (errno == EINTR)
          continue;
        die("read");
      }
      if (!temp_.write(std::string_view(block, got)))
        die("write");
    }
  }

  const char* source_;
  const char* destination_;
  AtomicFile temp_;
};

// Copies `in` to `out` in blocks; false after reporting a failure.
bool copy_blocks(int in, int out, const char* source, const char* destination) {
  char block[kBlock];
  for (;;) {
    ssize_t got = read(in, block, sizeof(block));
    if (got == 0)
      return true;
    if (got < 0) {
      if (errno == EINTR)
        continue;
      messlog2(0, 0, "Error while copying file %s to %s: %s", source,
               destination, strerror(errno));
      return false;
    }
    if (write(out, block, got) != got) {
      messlog2(0, 0, "Unable to copy file %s to %s: %s\n", source, destination,
               strerror(errno));
      return false;
    }
  }
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isspace(static_cast<unsigned char>(text.front())))
    text.remove_prefix(1);
  while (!text.empty() && isspace(static_cast<unsigned char>(text.back())))
    text.remove_suffix(1);
  return text;
}

}  // namespace

void copy_file_atomic(const char* source, const char* destination, uid_t uid,
                      gid_t gid, mode_t mode) {
  AtomicCopy(source, destination).run(uid, gid, mode);
}

int copy_file(const char* source, const char* destination) {
  if (strcmp(source, destination) == 0)
    return 0;
  ScopedLock lock(mk_lock(destination, 1));
  if (!lock.locked()) {
    messlog2(0, 0, "Error occurred while locking the file %s\n", destination);
    return 1;
  }
  UniqueFd in(open(source, O_RDONLY | O_CLOEXEC));
  if (!in) {
    messlog2(0, 0, "Unable to open file %s: %s", source, strerror(errno));
    return 1;
  }
  struct stat info;
  if (fstat(in.get(), &info) != 0) {
    tavix_log(3, "Unable to get info for file '%s': %s", source,
              strerror(errno));
    return 1;
  }

  UniqueFd owned;
  int out = STDOUT_FILENO;
  if (strcmp(destination, "-") == 0) {
    fflush(stdout);  // what stdio holds comes before the copy
  } else {
    owned = tavix::open_nofollow(destination, O_WRONLY | O_CREAT | O_TRUNC,
                                 info.st_mode & 07777);
    if (!owned) {
      messlog2(0, 0, "Unable to open file %s: %s", destination,
               strerror(errno));
      return 1;
    }
    out = owned.get();
  }
  if (!copy_blocks(in.get(), out, source, destination))
    return 1;
  if (owned && owned.close() != 0) {
    messlog2(0, 0, "Unable to close file %s: %s\n", destination,
             strerror(errno));
    return 1;
  }
  // The copy is complete; a lock that does not close cleanly is only noted.
  if (lock.release() != 0)
    messlog2(0, 0, "Error occurred while unlocking the file %s\n", destination);
  return 0;
}

int p_fclose(FILE* stream) {
  int result = fclose(stream);
  if (result != 0)
    messlog2(0, 0, "Unable to close the file: %s\n", strerror(errno));
  return result;
}

int find_file(const char** found, const char* const* candidates) {
  for (; candidates && *candidates; ++candidates) {
    struct stat info;
    if (stat(*candidates, &info) == 0) {
      *found = *candidates;
      return 1;
    }
    errno = 0;  // a missing candidate is not an error of the caller's
  }
  *found = nullptr;
  return 0;
}

int get_string_from_file(char* buffer, size_t size, const char* path) {
  UniqueFile file(fopen(path, "r"));
  if (!file) {
    messlog2(0, 0, "Unable to open file %s: %s\n", path, strerror(errno));
    return -1;
  }
  char* line = nullptr;
  size_t capacity = 0;
  errno = 0;
  ssize_t length = getline(&line, &capacity, file.get());
  tavix::unique_free<char> owned(line);
  if (length < 0) {
    if (ferror(file.get())) {
      messlog2(0, 0, "Unable to read line from file: %s\n", strerror(errno));
      return -1;
    }
    length = 0;  // an empty file holds the empty string
  }
  std::string_view text = trimmed(std::string_view(line ? line : "", length));
  if (text.size() >= size) {
    errno = 0;  // no system error behind this one
    messlog2(0, 0, "The buffer too short\n");
    return -1;
  }
  memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
  return 0;
}
