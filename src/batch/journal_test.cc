#include "batch/journal.h"

#include <gtest/gtest.h>

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

}  // namespace
