// Held editing must leave byte for byte what the same edits leave on disk,
// also where pieces and lines differ: a last line without its newline, a
// line longer than the editor's piece buffer, a NUL byte, several strings
// in a removal by match.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qmail/line_file.h"
#include "qmail/qmail_test_support.h"
#include "util/test_support.h"

namespace {

struct Edit {
  std::vector<const char*> lines;
  int op;
  int how;
  bool remove_prepend = false;
};

struct Case {
  const char* name;
  std::string initial;
  std::vector<Edit> edits;
};

std::vector<const char*> listed(std::vector<const char*> lines) {
  lines.push_back(nullptr);
  return lines;
}

// The edits in turn; their results one after the other.
std::string apply(const std::string& path, const std::vector<Edit>& edits) {
  std::string results;
  for (const Edit& edit : edits) {
    std::vector<const char*> lines = listed(edit.lines);
    int rc = edit.remove_prepend
                 ? file_remove_prepend(path.c_str(), lines.data(), lines.data())
                 : file_strings(path.c_str(), lines.data(), edit.op, edit.how);
    results += std::to_string(rc);
  }
  return results;
}

const std::string kLong = std::string(5000, 'x') + "end";

class HeldEditTest : public testing::TestWithParam<Case> {};

TEST_P(HeldEditTest, LeavesWhatTheEditsOnDiskLeave) {
  const Case& c = GetParam();
  tavix::test::ScratchDir dir;
  const std::string disk = dir.path("disk"), held = dir.path("held");
  tavix::test::write_file(disk, c.initial);
  tavix::test::write_file(held, c.initial);

  std::string const on_disk = apply(disk, c.edits);
  const char* const paths[] = {held.c_str(), nullptr};
  line_files_hold(paths);
  std::string const in_memory = apply(held, c.edits);
  EXPECT_EQ(tavix::test::read_file(held), c.initial) << "written before the end of the hold";
  ASSERT_EQ(line_files_write_held(), 0);

  EXPECT_EQ(in_memory, on_disk);
  EXPECT_EQ(tavix::test::read_file(held), tavix::test::read_file(disk));
}

// Dropped edits never reach the file, and the hold and its lock are over:
// the next edit works on disk at once.
TEST(HeldEditDropTest, LeavesTheFileAsBeforeTheHold) {
  tavix::test::ScratchDir dir;
  const std::string path = dir.path("file");
  tavix::test::write_file(path, "a\n");
  const char* const paths[] = {path.c_str(), nullptr};
  line_files_hold(paths);
  ASSERT_EQ(file_str(path.c_str(), "b", kLinesAdd, kAddAppend), 0);
  line_files_drop_held();
  EXPECT_EQ(tavix::test::read_file(path), "a\n");
  ASSERT_EQ(file_str(path.c_str(), "c", kLinesAdd, kAddAppend), 0);
  EXPECT_EQ(tavix::test::read_file(path), "a\nc\n");
}

INSTANTIATE_TEST_SUITE_P(
    Edits, HeldEditTest,
    testing::Values(
        Case{"prepend_remove_append", "a\nb\nc\n",
             {{{"x", "y\n"}, kLinesAdd, kAddPrepend},
              {{"b"}, kLinesRemove, 0},
              {{"z"}, kLinesAdd, kAddAppend},
              {{"a\n"}, kLinesRemove, 0}}},
        Case{"append_joins_an_unfinished_last_line", "a\nlast",
             {{{"more"}, kLinesAdd, kAddAppend}, {{"lastmore"}, kLinesRemove, 0}}},
        Case{"removal_by_match_with_several_strings", "ab\ncd\nabcd\nx\n",
             {{{"c", "a"}, kLinesRemoveBy, kMatchSubstring},
              {{"d"}, kLinesRemoveBy, kMatchSuffix},
              {{"a"}, kLinesRemoveBy, kMatchPrefix}}},
        Case{"long_line_judged_in_pieces", "short\n" + kLong + "\n",
             {{{"end"}, kLinesRemove, 0}, {{"x"}, kLinesRemoveBy, kMatchPrefix}}},
        Case{"remove_prepend_takes_the_line_out_once", "=b\n=a\n=b\n",
             {{{"=b"}, 0, 0, true}, {{"=c"}, 0, 0, true}}},
        Case{"nul_byte_ends_what_is_kept_of_a_piece", std::string("a\0b\nc\n", 6),
             {{{"c"}, kLinesRemove, 0}}},
        Case{"empty_file", "",
             {{{"x"}, kLinesRemove, 0}, {{"x"}, kLinesAdd, kAddPrepend}}}),
    [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

}  // namespace
