#include "audit/checks.h"

#include <gtest/gtest.h>

namespace tavix {
namespace audit {
namespace {

TEST(Checks, AssignLines) {
  struct {
    const char* text;
    char type;
    const char* key;
    const char* home;
  } cases[] = {
      {"=a.org-john:popuser:110:110:/m/a.org/john:::", '=', "a.org-john", "/m/a.org/john"},
      {"+a.org:popuser:110:110:/m/a.org:::", '+', "a.org", "/m/a.org"},
      {"+a.org:popuser:110:110:/m/a.org::", 0, "", ""},      // a field short
      {"=a.org-x:popuser:1x:110:/m/a.org/x:::", 0, "", ""},  // uid not decimal
      {"-a.org:popuser:110:110:/m/a.org:::", 0, "", ""},     // neither = nor +
      {"=a.org-x::110:110:/m/a.org/x:::", 0, "", ""},        // no user
      {"=a.org-x:popuser:110:110:relative:::", 0, "", ""},   // home not absolute
  };
  for (const auto& c : cases) {
    AssignLine line = ParseAssignLine(c.text);
    EXPECT_EQ(line.type, c.type) << c.text;
    EXPECT_EQ(line.key, c.key) << c.text;
    EXPECT_EQ(line.home, c.home) << c.text;
  }
}

TEST(Checks, Maildirsize) {
  struct {
    const char* text;
    bool ok;
    bool header_ok;
    int64_t bytes;
    int64_t messages;
  } cases[] = {
      {"1048576S,0C\n         100           2\n50 1\n-20 -1\n", true, true, 130, 2},
      {"0S,0C\n", true, true, 0, 0},
      {"abc\n0 0\n", false, false, 0, 0},           // header
      {"1S,0C\n10 1", false, true, 0, 0},           // last line unended
      {"1S,0C\n10 x\n", false, true, 0, 0},         // a bad usage line
      {"1S,0C\n5 1\n-10 -1\n", false, true, 0, 0},  // negative sums
      {"1S,0C", false, false, 0, 0},                // no line at all
  };
  for (const auto& c : cases) {
    MaildirsizeCount count;
    EXPECT_EQ(ParseMaildirsize(c.text, &count), c.ok) << c.text;
    EXPECT_EQ(count.header_ok, c.header_ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(count.bytes, c.bytes) << c.text;
      EXPECT_EQ(count.messages, c.messages) << c.text;
    }
  }
}

TEST(Checks, MessageSizeFromName) {
  EXPECT_EQ(SizeFromName("1234.host,S=2048:2,S"), 2048);
  EXPECT_EQ(SizeFromName("1234.host,S=2048"), 2048);
  EXPECT_EQ(SizeFromName("1234.host,S=x,S=7:2,"), 7);  // the first that parses
  EXPECT_EQ(SizeFromName("1234.host,S=20a:2,"), -1);
  EXPECT_EQ(SizeFromName("1234.host"), -1);
}

}  // namespace
}  // namespace audit
}  // namespace tavix
