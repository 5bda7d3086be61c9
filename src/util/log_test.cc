#include "util/log.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "util/test_support.h"
#include "util/traceback.h"

namespace {

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
      {"CoNsOlE", 6, 6, "m 6\n", "m 6\n"},
      {"STDERR", 6, 3, "m 3\n", ""},
      {"file", 6, 3, "", ""},
      {"console", 2, 3, "", ""},
      {"stderr", 4, 6, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.location ? c.location : "(null)") << " level "
                                    << c.level << " priority " << c.priority);
    if (c.location)
      tavix_log_init(c.location, c.level, LOG_MAIL, LOG_PERROR, "dravnik");
    else
      LogLevel = c.level;
    auto output = tavix::test::CaptureStreams([&] {
      tavix_log(c.priority, "m %d", c.priority);
      return 0;
    });
    EXPECT_EQ(c.err, output.err);
    EXPECT_EQ(c.out, output.out);
  }
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

TEST(MesslogDeathTest, NonZeroStatusEndsTheProcess) {
  EXPECT_EXIT((errno = 0, messlog2(1, 1, "fatal %d", 7), exit(0)), testing::ExitedWithCode(1),
              "^fatal 7\n$");
}

TEST(TracebackTest, PrintsOneTabbedLinePerFrame) {
  std::ostringstream skipped;
  skipped << tavix::Traceback(100);  // every frame skipped: the heading only
  EXPECT_EQ("Traceback:\n", skipped.str());

  tavix::Traceback traceback(0);
  std::ostringstream first, second;
  first << traceback;
  second << traceback;  // from the cached symbols
  EXPECT_EQ(first.str(), second.str());
  std::istringstream lines(first.str());
  std::string line;
  ASSERT_TRUE(std::getline(lines, line) && line == "Traceback:");
  int frames = 0;
  for (; std::getline(lines, line); ++frames) {
    EXPECT_EQ('\t', line.at(0)) << line;
    EXPECT_NE(std::string::npos, line.find("[0x")) << line;
  }
  EXPECT_GT(frames, 0);
  EXPECT_LE(frames, 11);
}

}  // namespace
