// Helpers shared by the support library's unit tests: a scratch directory,
// a recorder for the leveled log and a capture of both output streams.
#ifndef DRAVNIK_UTIL_TEST_SUPPORT_H_
#define DRAVNIK_UTIL_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "util/log.h"

namespace tavix {
namespace test {

// A fresh directory under `parent`, removed with everything in it at the end.
class TempDir {
 public:
  explicit TempDir(const std::string& parent = "/tmp") {
    std::string name = parent + "/dravnik-test.XXXXXX";
    if (mkdtemp(&name[0]) == nullptr)
      ADD_FAILURE() << "mkdtemp under " << parent << " failed";
    else
      path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty())
      std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string path(const std::string& relative) const {
    return path_ + "/" + relative;
  }

 private:
  std::string path_;
};

inline bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// lstat() of `path`; a failure fails the test.
inline struct stat lstat_of(const std::string& path) {
  struct stat info = {};
  EXPECT_EQ(0, lstat(path.c_str(), &info)) << path;
  return info;
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  ASSERT_TRUE(out.good()) << path;
}

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct LogLine {
  int priority;
  std::string text;
};

// Points tavix_log at itself while alive and keeps every line logged.
class LogRecorder {
 public:
  LogRecorder() : saved_(tavix_log) {
    lines().clear();
    tavix_log = &Record;
  }
  ~LogRecorder() { tavix_log = saved_; }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  static std::vector<LogLine>& lines() {
    static std::vector<LogLine> recorded;
    return recorded;
  }
  // True when a line of `priority` contains `text`.
  static bool Has(int priority, const std::string& text) {
    for (const LogLine& line : lines()) {
      if (line.priority == priority &&
          line.text.find(text) != std::string::npos)
        return true;
    }
    return false;
  }

 private:
  static void Record(int priority, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    char text[8192];
    vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    lines().push_back(LogLine{priority, text});
  }

  tavix_log_fn saved_;
};

// What a body returned and what it wrote on the standard streams.
template <typename Result>
struct Captured {
  Result result;
  std::string out;
  std::string err;
};

// Sends one standard stream to a memory file while alive. (GoogleTest's own
// capture needs a writable /tmp, which the sandbox does not have.)
class StreamCapture {
 public:
  explicit StreamCapture(int target) : target_(target) {
    fflush(stdout);
    fflush(stderr);
    memory_ = memfd_create("captured", MFD_CLOEXEC);
    saved_ = dup(target);
    if (memory_ < 0 || saved_ < 0 || dup2(memory_, target) < 0)
      ADD_FAILURE() << "cannot capture descriptor " << target;
  }
  ~StreamCapture() { finish(); }
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;

  // Puts the stream back and returns what was written to it.
  std::string finish() {
    std::string text;
    if (saved_ < 0)
      return text;
    fflush(stdout);
    fflush(stderr);
    dup2(saved_, target_);
    close(saved_);
    saved_ = -1;
    char block[4096];
    ssize_t got;
    lseek(memory_, 0, SEEK_SET);
    while ((got = read(memory_, block, sizeof(block))) > 0)
      text.append(block, got);
    close(memory_);
    return text;
  }

 private:
  int target_;
  int memory_ = -1;
  int saved_ = -1;
};

// Runs `body` with standard output and standard error captured. Assertions
// belong outside the body: their own reports would be captured too.
template <typename Body>
Captured<decltype(std::declval<Body>()())> CaptureStreams(Body body) {
  StreamCapture out(STDOUT_FILENO);
  StreamCapture err(STDERR_FILENO);
  auto result = body();
  std::string err_text = err.finish();
  std::string out_text = out.finish();
  return {result, out_text, err_text};
}

}  // namespace test
}  // namespace tavix

#endif  // DRAVNIK_UTIL_TEST_SUPPORT_H_
