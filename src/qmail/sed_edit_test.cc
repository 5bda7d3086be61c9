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

// A name with sed's special characters, and lines that the name would match
// if sed read it as a pattern, or that a careless quoting would mangle.
struct LiteralCase {
  const char* name;
  std::vector<std::string> decoys;
};

void PrintTo(const LiteralCase& c, std::ostream* out) { *out << c.name; }

const LiteralCase kLiteralCases[] = {
    {"j.n", {"jxn", "j.nn", "jj.n"}},
    {"a&b", {"a&&b", "ab"}},
    {"a*", {"", "aaa", "a"}},
    {"[ab]", {"a", "b", "[ab"}},
    {"^x$", {"x", "^x"}},
    {"x\\1y", {"x1y", "x\\\\1y"}},
    {"a|b", {"a", "b"}},
    {"a/b", {"a", "b"}},
    {"a\\nb", {"a", "b"}},
    {"x\\{2\\}", {"xx", "x{2}"}},
    {"p+q?", {"pq", "ppq", "q"}},
    {".-_&+'", {"a-_&+'", "x-_"}},
    {"/var/qmail/mailnames/e.com:", {"/var/qmail/mailnames/excom:"}},
};

std::string lines_of(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += line + "\n";
  return text;
}

class SedLiteralTest : public testing::TestWithParam<LiteralCase> {
 protected:
  // Runs `expression` over a file of the decoys with the name in the
  // middle; the file's lines afterwards.
  std::string edit(const std::string& expression) {
    std::vector<std::string> lines = GetParam().decoys;
    lines.insert(lines.begin() + lines.size() / 2, GetParam().name);
    std::string path = dir_.path("file");
    write_file(path, lines_of(lines));
    EXPECT_EQ(0, run_sed_cmd(expression.c_str(), path.c_str())) << expression;
    return read_file(path);
  }
  // The decoys with `line` in the name's place (or without it: nullptr).
  std::string expected(const char* line) const {
    std::vector<std::string> lines = GetParam().decoys;
    if (line != nullptr)
      lines.insert(lines.begin() + lines.size() / 2, line);
    return lines_of(lines);
  }

  ScratchDir dir_;
};

TEST_P(SedLiteralTest, SubstitutionTouchesOnlyTheName) {
  const std::string name = GetParam().name;
  // The new text holds every replacement metacharacter, the name's too.
  const std::string to = "<" + name + "&\\1|/>";
  EXPECT_EQ(expected(to.c_str()),
            edit("s|^" + sed_regex_literal(name) + "$|" +
                 sed_replacement_literal(to) + "|g"));
  // Unanchored, as home directories are edited inside longer lines: every
  // occurrence of the name, and only of the name, is replaced.
  std::string want = expected(name.c_str());
  for (size_t at = want.find(name); at != std::string::npos;
       at = want.find(name, at + to.size()))
    want.replace(at, name.size(), to);
  EXPECT_EQ(want, edit("s|" + sed_regex_literal(name) + "|" +
                       sed_replacement_literal(to) + "|g"));
}

TEST_P(SedLiteralTest, DeletionTakesOnlyTheName) {
  EXPECT_EQ(expected(nullptr),
            edit("\\|^" + sed_regex_literal(GetParam().name) + "$|d"));
}

TEST_P(SedLiteralTest, AppendWritesTheNameAsItIs) {
  const std::string name = GetParam().name;
  EXPECT_EQ(expected(name.c_str()) + name + "\n",
            edit("$ a\\" + sed_replacement_literal(name)));
}

INSTANTIATE_TEST_SUITE_P(Table, SedLiteralTest, testing::ValuesIn(kLiteralCases),
                         [](const testing::TestParamInfo<LiteralCase>& info) {
                           return "case" + std::to_string(info.index);
                         });

// A newline must not end the expression: what follows it would be a sed
// command of its own, and "w FILE" writes any file sed can open.
TEST(SedLiteralNewlineTest, CannotStartAnotherCommand) {
  ScratchDir dir;
  std::string path = dir.path("file");
  std::string planted = dir.path("planted");
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
