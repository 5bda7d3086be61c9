// The Maildir++ quota file: each input is the text of a maildirsize, a file
// the mailbox owner can write. Its lines go through the header and usage
// line parsers one by one, and the whole text through the reader the quota
// checks use.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "qmail/maildirpp.h"

namespace {

const int64_t kUnset = -12345;

std::string maildir;
std::string maildirsize;

void check_header(const std::string& line) {
  int64_t size_limit = kUnset;
  int64_t count_limit = kUnset;
  if (parse_header_string(line.c_str(), &size_limit, &count_limit)) {
    require(size_limit >= 0, "an accepted header has no negative size limit");
  } else {
    require(size_limit == INT64_MAX && count_limit == INT64_MAX,
            "a refused header leaves both limits unset (INT64_MAX)");
  }
}

void check_usage_line(const std::string& line) {
  int64_t bytes = kUnset;
  int64_t count = kUnset;
  if (!parse_string_common(line.c_str(), &bytes, &count, 0))
    require(bytes == kUnset && count == kUnset,
            "a refused usage line changes nothing");
}

void write_maildirsize(const uint8_t* data, size_t size) {
  int fd = open(maildirsize.c_str(),
                O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) ||
      close(fd) != 0) {
    perror(maildirsize.c_str());
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  quiet_logging();
  // In memory where possible: rewriting a file millions of times on a disk
  // file system costs more than the parsing under test.
  for (const char* base : {"/dev/shm", "/tmp"}) {
    std::string pattern = std::string(base) + "/maildirsize_fuzzer.XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr) {
      maildir = pattern;
      break;
    }
  }
  if (maildir.empty()) {
    perror("mkdtemp");
    exit(1);
  }
  maildirsize = maildir + "/maildirsize";
  atexit([] {
    unlink(maildirsize.c_str());
    rmdir(maildir.c_str());
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  bool first = true;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos)
      end = text.size();
    std::string line = text.substr(start, end - start);
    if (first)
      check_header(line);
    check_usage_line(line);
    first = false;
    start = end + 1;
  }

  write_maildirsize(data, size);
  int64_t bytes = kUnset;
  int64_t count = kUnset;
  int64_t size_limit;
  int64_t count_limit;
  if (get_maildirpp_usage_and_limits(maildir.c_str(), 1, &bytes, &count,
                                     &size_limit, &count_limit))
    require(bytes >= 0 && count >= 0, "an accepted usage is never negative");
  check_maildirpp_overquota(maildir.c_str(), INT64_MAX, 1);
  check_maildirpp_overquota(maildir.c_str(), 1, INT64_MAX);
  return 0;
}
