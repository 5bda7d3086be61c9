#include "qmail/file_copy.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::attributes_of;
using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::read_file;
using tavix::test::RunInChild;
using tavix::test::ScratchDir;
using tavix::test::write_file;

long entries_in(const std::string& dir) {
  namespace fs = std::filesystem;
  return std::distance(fs::directory_iterator(dir), fs::directory_iterator());
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
    std::string source = dir.path(c.source), destination = dir.path(c.destination);
    auto run =
        RunInChild([&] { copy_file_atomic(source.c_str(), destination.c_str(), 0, 0, 0440); });
    EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 1);
    EXPECT_NE(std::string::npos, run.output.find("copy_file_atomic(" + source + " -> " +
                                                 destination + "): " + c.step + " failed"))
        << run.output;
    EXPECT_EQ(2, entries_in(dir.path("")));  // "key" and "directory"
  }
}

TEST(CopyFileTest, CopiesUnderTheDestinationsLock) {
  ScratchDir dir;
  std::string source = dir.path("source"), destination = dir.path("destination");
  write_file(source, std::string(5000, 'a') + "\n");
  ASSERT_EQ(0, chmod(source.c_str(), 0600));

  EXPECT_EQ(0, copy_file(source.c_str(), destination.c_str()));
  EXPECT_EQ(read_file(source), read_file(destination));
  EXPECT_EQ(0600u, attributes_of(destination).mode);
  // A file is never copied onto itself.
  EXPECT_EQ(0, copy_file(source.c_str(), source.c_str()));
  EXPECT_EQ(read_file(destination), read_file(source));

  const std::string missing = dir.path("missing"), never = dir.path("never");
  auto run = CaptureStreams([&] { return copy_file(missing.c_str(), never.c_str()); });
  EXPECT_EQ(1, run.result);
  EXPECT_FALSE(exists(never));
  EXPECT_NE(std::string::npos, run.err.find("Unable to open file " + missing)) << run.err;
}

TEST(PFcloseTest, ReportsAFailedFlush) {
  FILE* full = fopen("/dev/full", "w");
  ASSERT_NE(nullptr, full);
  fputs("x", full);
  auto run = CaptureStreams([&] { return p_fclose(full); });
  EXPECT_EQ(EOF, run.result);
  EXPECT_NE(std::string::npos, run.err.find("Unable to close the file: No space left on device"))
      << run.err;
}

TEST(FindFileTest, FirstExistingCandidate) {
  ScratchDir dir;
  std::string second = dir.path("second"), third = dir.path("third"), missing = dir.path("x");
  write_file(second, "");
  write_file(third, "");
  const char* candidates[] = {missing.c_str(), second.c_str(), third.c_str(), nullptr};
  const char* found = "unset";
  EXPECT_EQ(1, find_file(&found, candidates));
  EXPECT_EQ(candidates[1], found);
  const char* none[] = {missing.c_str(), nullptr};
  EXPECT_EQ(0, find_file(&found, none));
  EXPECT_EQ(nullptr, found);
}

TEST(GetStringFromFileTest, ReadsTheFirstLineTrimmed) {
  const struct {
    const char* contents;  // null: no such file
    size_t size;
    int result;
    const char* value;    // the buffer afterwards, when result is 0
    const char* message;  // expected in the report
  } cases[] = {
      {" \t mail.example.com \r\nsecond line\n", 64, 0, "mail.example.com", nullptr},
      {"host", 64, 0, "host", nullptr},
      {"", 64, 0, "", nullptr},
      {"   \n", 64, 0, "", nullptr},
      {"abc\n", 4, 0, "abc", nullptr},  // exact fit
      {"abcd\n", 4, -1, nullptr, "The buffer too short\n"},
      {nullptr, 64, -1, nullptr, "Unable to open file "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.contents ? c.contents : "(missing)");
    ScratchDir dir;
    std::string path = dir.path("me");
    if (c.contents) write_file(path, c.contents);
    char buffer[64] = "untouched";
    auto run = CaptureStreams([&] { return get_string_from_file(buffer, c.size, path.c_str()); });
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
}

}  // namespace
