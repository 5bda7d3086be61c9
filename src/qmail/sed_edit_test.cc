#include "qmail/sed_edit.h"

#include <gtest/gtest.h>

#include <string>

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

struct SedCase {
  const char* name;
  bool extended;
  const char* expression;
  const char* before;
  const char* after;
};

void PrintTo(const SedCase& c, std::ostream* out) { *out << c.name; }


const SedCase kSedCases[] = {
    {"basic", false, "s/example\\.com/example.org/g",
     "a@example.com\nb@example.com\n", "a@example.org\nb@example.org\n"},
    // Without -r, parentheses are plain characters.
    {"basic_parentheses_literal", false, "s/(a)/[&]/", "(a) a\n",
     "[(a)] a\n"},
    {"extended_groups", true, "s/(a+)b/<\\1>/", "xaab\n", "x<aa>\n"},
    {"extended_alternation", true, "/^(old|gone)$/d", "old\nkeep\ngone\n",
     "keep\n"},
};

class SedEditTest : public testing::TestWithParam<SedCase> {};

TEST_P(SedEditTest, EditsInPlaceKeepingOwnerAndMode) {
  const SedCase& c = GetParam();
  ScratchDir dir;
  std::string path = dir.path(".qmail");
  write_file(path, c.before);
  const Attributes popuser{110, 110, 0600};
  set_attributes(path, popuser);

  int result = c.extended ? run_extended_sed_cmd(c.expression, path.c_str())
                          : run_sed_cmd(c.expression, path.c_str());

  EXPECT_EQ(0, result);
  EXPECT_EQ(c.after, read_file(path));
  EXPECT_EQ(popuser, attributes_of(path));
  EXPECT_FALSE(exists(path + ".tmp"));
}

INSTANTIATE_TEST_SUITE_P(Table, SedEditTest, testing::ValuesIn(kSedCases),
                         [](const testing::TestParamInfo<SedCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(SedEditFailureTest, BadExpressionLeavesTheFileAlone) {
  ScratchDir dir;
  std::string path = dir.path(".qmail");
  write_file(path, "line\n");
  auto run =
      CaptureStreams([&] { return run_sed_cmd("s/unterminated", path.c_str()); });
  EXPECT_EQ(-1, run.result);
  EXPECT_EQ("line\n", read_file(path));
  // sed's own complaint is shown, then ours.
  EXPECT_NE(std::string::npos, run.err.find("sed: -e expression")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("Error during sed working\n"))
      << run.err;
}

TEST(SedEditFailureTest, MissingFile) {
  ScratchDir dir;
  std::string path = dir.path("missing");
  auto run =
      CaptureStreams([&] { return run_extended_sed_cmd("s/a/b/", path.c_str()); });
  EXPECT_EQ(-1, run.result);
  EXPECT_FALSE(exists(path));
  EXPECT_FALSE(exists(path + ".tmp"));
  EXPECT_NE(std::string::npos,
            run.err.find("ERROR: Unable to save file '" + path +
                         "' attributes : No such file or directory"))
      << run.err;
}

}  // namespace
