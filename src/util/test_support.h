// Helpers shared by the support library's unit tests: a scratch directory,
// a recorder for the leveled log and a capture of both output streams.
#ifndef DRAVNIK_UTIL_TEST_SUPPORT_H_
#define DRAVNIK_UTIL_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>

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

// A fresh directory under /tmp, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/dravnik-test.XXXXXX";
    if (mkdtemp(name) == nullptr)
      ADD_FAILURE() << "mkdtemp failed";
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

// Runs `body` with standard output and standard error captured. Assertions
// belong outside the body: their own reports would be captured too.
template <typename Body>
Captured<decltype(std::declval<Body>()())> CaptureOutput(Body body) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  auto result = body();
  fflush(stdout);
  fflush(stderr);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();
  return {result, out, err};
}

}  // namespace test
}  // namespace tavix

#endif  // DRAVNIK_UTIL_TEST_SUPPORT_H_
