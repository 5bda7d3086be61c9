#include "util/log.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <functional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "util/error_stream.h"
#include "util/traceback.h"

namespace {

struct Output {
  std::string err, out;
};

Output capture(const std::function<void()>& body) {
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  body();
  std::string out = testing::internal::GetCapturedStdout();
  return {testing::internal::GetCapturedStderr(), out};
}

// Each test starts from the state the program has before tavix_log_init.
class LogTest : public testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    tavix_log = _tavix_utility_log;
    tavix_logv = _tavix_utility_logv;
    LogLevel = LOG_INFO;
    LogEnabled = 1;
    LogLocation = nullptr;
    PROGNAME = nullptr;
  }
};

TEST_F(LogTest, ConsoleWritersFollowLocationAndLevel) {
  const struct {
    const char* location;
    int level, priority;
    const char* err;
    const char* out;
  } cases[] = {
      {nullptr, 6, 3, "m 3\n", "m 3\n"},  // before init: both streams
      {"console", 6, 3, "m 3\n", "m 3\n"},
      {"CoNsOlE", 6, 6, "m 6\n", "m 6\n"},
      {"stderr", 6, 3, "m 3\n", ""},
      {"STDERR", 6, 3, "m 3\n", ""},
      {"file", 6, 3, "", ""},
      {"console", 2, 3, "", ""},
      {"console", 6, 7, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.location ? c.location : "(null)") << " level "
                                    << c.level << " priority " << c.priority);
    LogLocation = c.location;
    LogLevel = c.level;
    Output output = capture([&] { tavix_log(c.priority, "m %d", c.priority); });
    EXPECT_EQ(c.err, output.err);
    EXPECT_EQ(c.out, output.out);
  }
}

TEST_F(LogTest, InitWithLocationKeepsConsoleWriters) {
  tavix_log_init("stderr", 4, LOG_MAIL, LOG_PERROR, "dravnik");
  Output output = capture([] {
    tavix_log(LOG_WARNING, "warn");
    tavix_log(LOG_INFO, "info");
  });
  EXPECT_EQ("warn\n", output.err);
  EXPECT_EQ("", output.out);
}

// Run in a child: opening syslog changes process-wide state. Nothing is
// logged, so the host's syslog is never contacted.
TEST(LogInitDeathTest, SyslogUsesSystemLoggerAndMask) {
  auto check = [] {
    tavix_log_init(nullptr, 6, LOG_MAIL, LOG_PERROR, "dravnik");
    if (tavix_log != syslog || tavix_logv != vsyslog) return 2;
    if (setlogmask(0) != 127 || LogLevel != 6 || LogEnabled != 1) return 3;
    tavix_log_set_level(3);
    if (setlogmask(0) != 15 || LogLevel != 3) return 4;
    tavix_log_set_level(0);
    if (setlogmask(0) != 1 || LogLevel != 0 || LogEnabled != 0) return 5;
    return 0;
  };
  EXPECT_EXIT(exit(check()), testing::ExitedWithCode(0), "");
}

TEST_F(LogTest, MesslogPrintsOnBothStreamsWithSystemError) {
  const std::string enoent = strerror(ENOENT);
  char progname[] = "/usr/local/sbin/dravnik";
  const struct {
    int err;
    char* progname;  // only its base name is shown
    const char* text;
    std::string expected;
  } cases[] = {
      {0, nullptr, "x", "x\n"},
      {0, nullptr, "x\n", "x\n"},  // no second newline
      {ENOENT, nullptr, "x", "x\nSystem error 2: " + enoent + "\n"},
      {ENOENT, nullptr, "x\n", "x\n\nSystem error 2: " + enoent + "\n"},
      {0, progname, "done", "dravnik: done\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    PROGNAME = c.progname;
    int errno_after = -1;
    Output output = capture([&] {
      errno = c.err;
      messlog2(0, 0, "%s", c.text);
      errno_after = errno;
    });
    EXPECT_EQ(c.expected, output.err);
    EXPECT_EQ(c.expected, output.out);
    EXPECT_EQ(c.err, errno_after);
  }
}

TEST_F(LogTest, SystemErrorOnlyWhereItFitsTheFixedBuffer) {
  const std::string suffix = "\nSystem error 2: " + std::string(strerror(2));
  const struct {
    size_t length;
    bool has_suffix;
  } cases[] = {
      {4096 - suffix.size() - 1, true},  // exactly fits with its NUL
      {4096 - suffix.size(), false},
      {4095, false},
      {5000, false},  // grown buffer: printed whole, never with the suffix
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    const std::string text(c.length, 'a');
    Output output = capture([&] {
      errno = ENOENT;
      messlog2(0, 1, "%s", text.c_str());
    });
    const std::string expected = text + (c.has_suffix ? suffix : "") + "\n";
    EXPECT_EQ(expected, output.err);
    EXPECT_EQ(expected, output.out);
  }
}

TEST(MesslogDeathTest, NonZeroStatusEndsTheProcess) {
  EXPECT_EXIT(
      {
        errno = 0;
        messlog2(1, 1, "fatal %d", 7);
        exit(0);  // not reached
      },
      testing::ExitedWithCode(1), "^fatal 7\n$");
}

TEST(UtilityErrorStreamTest, StderrAtOnceStdoutAtFlush) {
  capture([] { tavix::uerr << std::flush; });  // whatever earlier tests left

  Output first = capture([] { tavix::uerr << "abc"; });
  EXPECT_EQ("abc", first.err);
  EXPECT_EQ("", first.out);

  Output second = capture([] { tavix::uerr << "de" << std::endl; });
  EXPECT_EQ("de\n", second.err);
  EXPECT_EQ("abcde\n", second.out);

  Output third = capture([] { tavix::uerr << std::flush; });
  EXPECT_EQ("", third.out);  // the buffer was emptied by the last flush
}

TEST(TracebackTest, PrintsOneTabbedLinePerFrame) {
  std::ostringstream skipped;
  skipped << tavix::Traceback(100);  // every frame skipped: the heading only
  EXPECT_EQ("Traceback:\n", skipped.str());

  tavix::Traceback traceback(0);
  std::ostringstream out;
  out << traceback << traceback;  // symbols are cached, the second print is the same
  std::istringstream lines(out.str());
  std::string line;
  int headings = 0, frames = 0;
  while (std::getline(lines, line)) {
    if (line == "Traceback:") {
      ++headings;
      continue;
    }
    ++frames;
    EXPECT_EQ('\t', line.at(0)) << line;
    EXPECT_NE(std::string::npos, line.find("[0x")) << line;
  }
  EXPECT_EQ(2, headings);
  EXPECT_GT(frames, 0);
  EXPECT_LE(frames, 2 * 11);
  EXPECT_EQ(0, frames % 2);
}

TEST(SymbolLineDemanglerTest, RewritesMangledNamesOnly) {
  const struct {
    const char* line;
    const char* expected;
  } cases[] = {
      {"./dravnik(_Z1fv+0x1) [0x1]", "./dravnik(f()+0x1) [0x1]"},
      // longer than the buffer the previous line left behind
      {"./dravnik(_ZN5tavix9TracebackC1Em+0x1f) [0x401234]",
       "./dravnik(tavix::Traceback::Traceback(unsigned long)+0x1f) [0x401234]"},
      {"./dravnik(_Z1gi+0x2) [0x2]", "./dravnik(g(int)+0x2) [0x2]"},
      {"./dravnik(+0x1234) [0x55]", "./dravnik(+0x1234) [0x55]"},
      {"/lib/libc.so.6(__libc_start_main+0x85) [0x7f]",
       "/lib/libc.so.6(__libc_start_main+0x85) [0x7f]"},
      {"./dravnik(_Z1fv) [0x1]", "./dravnik(_Z1fv) [0x1]"},
      {"[0x401234]", "[0x401234]"},
      {"./a+b(_Z1fv) [0x1]", "./a+b(_Z1fv) [0x1]"},
  };
  tavix::SymbolLineDemangler demangle;
  for (const auto& c : cases) EXPECT_EQ(c.expected, demangle(c.line));
}

}  // namespace
