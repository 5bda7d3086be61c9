#include "qmail/sed_edit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::read_file;
using tavix::test::ScratchDir;
using tavix::test::write_file;

TEST(SedEditFailureTest, BadExpressionOrMissingFileLeavesNothingBehind) {
  ScratchDir dir;
  std::string path = dir.path(".qmail");
  write_file(path, "line\n");
  auto run = CaptureStreams([&] { return run_sed_cmd("s/unterminated", path.c_str()); });
  EXPECT_EQ(-1, run.result);
  EXPECT_EQ("line\n", read_file(path));
  // sed's own complaint is shown, then ours.
  EXPECT_NE(std::string::npos, run.err.find("sed: -e expression")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("Error during sed working\n")) << run.err;

  std::string missing = dir.path("missing");
  run = CaptureStreams([&] { return run_extended_sed_cmd("s/a/b/", missing.c_str()); });
  EXPECT_EQ(-1, run.result);
  EXPECT_FALSE(exists(missing));
  EXPECT_FALSE(exists(missing + ".tmp"));
  EXPECT_NE(std::string::npos, run.err.find("ERROR: Unable to save file '" + missing +
                                            "' attributes : No such file or directory"))
      << run.err;
}

}  // namespace
