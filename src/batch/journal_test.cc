#include "batch/journal.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "util/test_support.h"

namespace {

using tavix::batch::Journal;
using tavix::test::read_file;
using tavix::test::TempDir;
using tavix::test::write_file;

const std::vector<std::string> kLines = {"{\"argv\": [\"--a\"]}", "{\"argv\": [\"--b\"]}"};
const char kFirst[] = "{\"line\": 1, \"status\": 0, \"output\": \"\"}\n";

// A kill in the middle of an append leaves a line cut short: it is dropped
// and its checkpoint runs again; the whole lines before it count.
TEST(Journal, ResumesAfterTheLastWholeLineAndLocksOutASecondRun) {
  TempDir tmp;
  const std::string dir = tmp.path("batch");
  std::string error;
  std::string path;
  {
    Journal first;
    ASSERT_TRUE(first.open(kLines, &error, dir.c_str())) << error;
    EXPECT_EQ(0u, first.done_through());
    ASSERT_TRUE(first.record(kFirst, 1));
    Journal second;
    EXPECT_FALSE(second.open(kLines, &error, dir.c_str()));
    EXPECT_NE(std::string::npos, error.find("being run now")) << error;
    path = first.path();
  }
  write_file(path, std::string(kFirst) + "{\"line\": 2, \"sta");

  Journal again;
  ASSERT_TRUE(again.open(kLines, &error, dir.c_str())) << error;
  EXPECT_EQ(1u, again.done_through());
  EXPECT_EQ(kFirst, again.done_report());
  EXPECT_EQ(kFirst, read_file(path));

  // Other lines are another batch, with a journal of its own.
  Journal other;
  ASSERT_TRUE(other.open({kLines[0]}, &error, dir.c_str())) << error;
  EXPECT_NE(path, other.path());
  EXPECT_EQ(0u, other.done_through());
}

// A record the disk has no room for is not left half written: the journal
// stays as it was, to this run and the next.
TEST(Journal, FailedRecordLeavesNoPartOfIt) {
  TempDir tmp;
  const std::string dir = tmp.path("batch");
  std::string error;
  Journal journal;
  ASSERT_TRUE(journal.open(kLines, &error, dir.c_str())) << error;
  ASSERT_TRUE(journal.record(kFirst, 1));
  std::string const second = "{\"line\": 2, \"status\": 0, \"output\": \"\"}\n";
  {
    // A file size limit stands in for a full disk: the write stops short.
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
    struct rlimit small = saved;
    small.rlim_cur = sizeof kFirst - 1 + 10;
    sighandler_t const handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    EXPECT_FALSE(journal.record(second + second, 3));
    int const cause = errno;
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &saved));
    signal(SIGXFSZ, handler);
    EXPECT_EQ(EFBIG, cause);
  }
  EXPECT_EQ(kFirst, read_file(journal.path()));
  EXPECT_EQ(1u, journal.done_through());
  ASSERT_TRUE(journal.record(second, 2));
  EXPECT_EQ(std::string(kFirst) + second, read_file(journal.path()));
}

}  // namespace
