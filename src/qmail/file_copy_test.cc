#include "qmail/file_copy.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::read_file;
using tavix::test::RunInChild;
using tavix::test::ScratchDir;
using tavix::test::set_attributes;
using tavix::test::write_file;

size_t entries_in(const std::string& dir) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    (void)entry;
    ++count;
  }
  return count;
}

TEST(CopyFileAtomicTest, ReplacesTheDestinationWithOwnerAndMode) {
  ScratchDir dir;
  std::string source = dir.path("key");
  std::string destination = dir.path("keys/default");
  std::filesystem::create_directory(dir.path("keys"));
  const std::string key(10000, 'k');  // more than one block
  write_file(source, key);
  write_file(destination, "old key\n");

  copy_file_atomic(source.c_str(), destination.c_str(), 0, 110, 0440);

  EXPECT_EQ(key, read_file(destination));
  EXPECT_EQ((Attributes{0, 110, 0440}), attributes_of(destination));
  EXPECT_EQ(1u, entries_in(dir.path("keys")));  // no temporary file left
}

// Every failure ends the process and leaves no temporary file behind.
TEST(CopyFileAtomicFailureTest, FailuresEndTheProcess) {
  const struct {
    const char* source;
    const char* destination;
    const char* step;
  } cases[] = {
      {"missing", "copy", "open"},
      {"key", "directory", "rename"},  // a file cannot replace a directory
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.step);
    ScratchDir dir;
    write_file(dir.path("key"), "secret\n");
    std::filesystem::create_directories(dir.path("directory/inside"));
    std::string source = dir.path(c.source);
    std::string destination = dir.path(c.destination);
    auto run = RunInChild([&] {
      copy_file_atomic(source.c_str(), destination.c_str(), 0, 0, 0440);
    });
    EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 1);
    EXPECT_NE(std::string::npos,
              run.output.find("copy_file_atomic(" + source + " -> " +
                              destination + "): " + c.step + " failed"))
        << run.output;
    EXPECT_EQ(2u, entries_in(dir.path("")));  // "key" and "directory"
  }
}

TEST(CopyFileTest, CopiesUnderTheDestinationsLock) {
  ScratchDir dir;
  std::string source = dir.path("source");
  std::string destination = dir.path("destination");
  write_file(source, std::string(5000, 'a') + "\n");
  ASSERT_EQ(0, chmod(source.c_str(), 0600));

  EXPECT_EQ(0, copy_file(source.c_str(), destination.c_str()));
  EXPECT_EQ(read_file(source), read_file(destination));
  EXPECT_EQ(0600u, attributes_of(destination).mode);
  // A file is never copied onto itself.
  EXPECT_EQ(0, copy_file(source.c_str(), source.c_str()));
  EXPECT_EQ(read_file(destination), read_file(source));
}

TEST(CopyFileTest, MissingSource) {
  ScratchDir dir;
  std::string source = dir.path("missing");
  std::string destination = dir.path("destination");
  auto run = CaptureStreams(
      [&] { return copy_file(source.c_str(), destination.c_str()); });
  EXPECT_EQ(1, run.result);
  EXPECT_FALSE(exists(destination));
  EXPECT_NE(std::string::npos, run.err.find("Unable to open file " + source))
      << run.err;
}

TEST(PFcloseTest, ReportsAFailedFlush) {
  FILE* full = fopen("/dev/full", "w");
  ASSERT_NE(nullptr, full);
  fputs("x", full);
  auto run = CaptureStreams([&] { return p_fclose(full); });
  EXPECT_EQ(EOF, run.result);
  EXPECT_NE(std::string::npos,
            run.err.find("Unable to close the file: No space left on device"))
      << run.err;
}

TEST(FindFileTest, FirstExistingCandidate) {
  ScratchDir dir;
  std::string second = dir.path("second");
  std::string third = dir.path("third");
  std::string missing = dir.path("missing");
  write_file(second, "");
  write_file(third, "");
  const char* candidates[] = {missing.c_str(), second.c_str(), third.c_str(),
                              nullptr};
  const char* found = "unset";
  EXPECT_EQ(1, find_file(&found, candidates));
  EXPECT_EQ(candidates[1], found);

  const char* none[] = {missing.c_str(), nullptr};
  errno = 0;
  EXPECT_EQ(0, find_file(&found, none));
  EXPECT_EQ(nullptr, found);
  EXPECT_EQ(0, errno);
}

struct FirstLineCase {
  const char* name;
  const char* contents;  // null: no such file
  size_t size;
  int result;
  const char* value;    // the buffer afterwards, when result is 0
  const char* message;  // expected in the report
};

void PrintTo(const FirstLineCase& c, std::ostream* out) { *out << c.name; }


const FirstLineCase kFirstLineCases[] = {
    {"trimmed", " \t mail.example.com \r\nsecond line\n", 64, 0,
     "mail.example.com", nullptr},
    {"no_newline", "host", 64, 0, "host", nullptr},
    {"empty_file", "", 64, 0, "", nullptr},
    {"blank_line", "   \n", 64, 0, "", nullptr},
    {"exact_fit", "abc\n", 4, 0, "abc", nullptr},
    {"too_short", "abcd\n", 4, -1, nullptr, "The buffer too short\n"},
    {"missing", nullptr, 64, -1, nullptr, "Unable to open file "},
};

class GetStringFromFileTest : public testing::TestWithParam<FirstLineCase> {};

TEST_P(GetStringFromFileTest, ReadsTheFirstLine) {
  const FirstLineCase& c = GetParam();
  ScratchDir dir;
  std::string path = dir.path("me");
  if (c.contents)
    write_file(path, c.contents);
  char buffer[64] = "untouched";
  auto run = CaptureStreams(
      [&] { return get_string_from_file(buffer, c.size, path.c_str()); });
  EXPECT_EQ(c.result, run.result);
  if (c.value) {
    EXPECT_STREQ(c.value, buffer);
  }
  if (c.message) {
    EXPECT_NE(std::string::npos, run.err.find(c.message)) << run.err;
  } else {
    EXPECT_EQ("", run.err);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, GetStringFromFileTest,
                         testing::ValuesIn(kFirstLineCases),
                         [](const testing::TestParamInfo<FirstLineCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
