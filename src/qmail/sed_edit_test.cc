#include "qmail/sed_edit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::read_file;
using tavix::test::ScratchDir;
using tavix::test::set_attributes;
using tavix::test::write_file;

// Parentheses are plain characters in a basic expression and groups in an
// extended one.
TEST(SedEditTest, EditsInPlaceKeepingOwnerAndMode) {
  const struct {
    bool extended;
    const char* expression;
    const char* after;  // of "(a) aab\n"
  } cases[] = {
      {false, "s/(a)/[&]/", "[(a)] aab\n"},
      {true, "s/(a+)b/<\\1>/", "(a) <aa>\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expression);
    ScratchDir dir;
    std::string path = dir.path(".qmail");
    write_file(path, "(a) aab\n");
    const Attributes popuser{110, 110, 0600};
    set_attributes(path, popuser);
    EXPECT_EQ(0, c.extended ? run_extended_sed_cmd(c.expression, path.c_str())
                            : run_sed_cmd(c.expression, path.c_str()));
    EXPECT_EQ(c.after, read_file(path));
    EXPECT_EQ(popuser, attributes_of(path));
    EXPECT_FALSE(exists(path + ".tmp"));
  }
}

// A newline must not end the expression: what follows it would be a sed
// command of its own, and "w FILE" writes any file sed can open.
TEST(SedLiteralTest, NewlineCannotStartAnotherCommand) {
  ScratchDir dir;
  std::string path = dir.path("file"), planted = dir.path("planted");
  const std::string text = "x\nw " + planted;
  const std::string expressions[] = {
      "s|^" + sed_regex_literal(text) + "$|y|",
      "s|^x$|" + sed_replacement_literal(text) + "|",
      "$ a\\" + sed_replacement_literal(text),
  };
  for (const std::string& expression : expressions) {
    SCOPED_TRACE(expression);
    write_file(path, "x\n");
    EXPECT_EQ(0, run_sed_cmd(expression.c_str(), path.c_str()));
    EXPECT_FALSE(exists(planted));
  }
}

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
