#include "util/zon_conf.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "util/test_support.h"

namespace {

using tavix::test::LogRecorder;
using tavix::test::TempDir;

const int kConfWarning = 12;

struct ParseCase {
  const char* title;
  std::string file;
  const char* name;
  const char* value;    // null: the name must not be found
  const char* warning;  // null: no warning may be logged
};

void PrintTo(const ParseCase& c, std::ostream* os) { *os << c.title; }

class ConfParseTest : public testing::TestWithParam<ParseCase> {};

TEST_P(ConfParseTest, ReadsValueOrWarns) {
  const ParseCase& c = GetParam();
  TempDir dir;
  std::string path = dir.path("test.conf");
  tavix::test::write_file(path, c.file);
  LogRecorder log;
  conf_t store;

  ASSERT_EQ(0, conf_read_file_r(path.c_str(), &store));

  const char* value = conf_get_r(c.name, &store);
  if (c.value)
    EXPECT_STREQ(c.value, value);
  else
    EXPECT_EQ(nullptr, value);
  if (c.warning) {
    EXPECT_TRUE(LogRecorder::Has(kConfWarning, c.warning)) << c.warning;
  } else {
    EXPECT_TRUE(LogRecorder::lines().empty())
        << LogRecorder::lines().front().text;
  }
  conf_free_r(&store);
}

const std::string kLongValue(10000, 'v');

INSTANTIATE_TEST_SUITE_P(
    Lines, ConfParseTest,
    testing::Values(
        ParseCase{"ValueWithBlanksAndComment",
                  "TAVIX_MAILNAMES_D    /srv/mail   # moved\n",
                  "TAVIX_MAILNAMES_D", "/srv/mail", nullptr},
        ParseCase{"NameOnly", "NAME_ONLY\n", "NAME_ONLY", nullptr,
                  "Invalid variable definition NAME_ONLY\nExpected a value"},
        ParseCase{"NameThenComment", "NAME   # nothing\n", "NAME", nullptr,
                  "Invalid variable definition NAME   # nothing\n"
                  "Expected a value"},
        ParseCase{"EqualsAfterName", "NAME=value\n", "NAME", nullptr,
                  "Invalid variable definition NAME=value\n"
                  "Expected a space after variable name\n"},
        ParseCase{"InnerBlanksKept", "GREETING\thello   big world  \n",
                  "GREETING", "hello   big world", nullptr},
        ParseCase{"CommentsAndBlankLinesSkipped",
                  "  # a comment\n\n   \n  KEY v\n", "KEY", "v", nullptr},
        ParseCase{"LaterDefinitionWins", "A first\nA second\n", "A",
                  "second", nullptr},
        ParseCase{"LastLineWithoutNewline", "B 2\nC 3", "C", "3", nullptr},
        ParseCase{"FoundAmongUnsortedNames", "Z 26\nB 2\nM 13\nA 1\n", "M",
                  "13", nullptr},
        ParseCase{"BadLineDoesNotStopReading", "X=1\nY 2\n", "Y", "2",
                  "Expected a space after variable name"},
        ParseCase{"LongLine", "LONG " + kLongValue + "\n", "LONG",
                  kLongValue.c_str(), nullptr}),
    [](const testing::TestParamInfo<ParseCase>& info) {
      return std::string(info.param.title);
    });

TEST(ConfReadFile, MissingFileFailsWithWarning) {
  TempDir dir;
  std::string path = dir.path("absent.conf");
  LogRecorder log;
  conf_t store;
  errno = 0;
  EXPECT_EQ(-1, conf_read_file_r(path.c_str(), &store));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_TRUE(LogRecorder::Has(
      kConfWarning, "unable to open configuration file " + path + ": "));
}

TEST(ConfReadFile, RereadReplacesEntries) {
  TempDir dir;
  std::string first = dir.path("first.conf");
  std::string second = dir.path("second.conf");
  tavix::test::write_file(first, "OLD 1\n");
  tavix::test::write_file(second, "NEW 2\n");
  conf_t store;
  ASSERT_EQ(0, conf_read_file_r(first.c_str(), &store));
  ASSERT_EQ(0, conf_read_file_r(second.c_str(), &store));
  EXPECT_EQ(nullptr, conf_get_r("OLD", &store));
  EXPECT_STREQ("2", conf_get_r("NEW", &store));
}

struct DefaultCase {
  const char* name;
  const char* value;  // null: unknown name
};

void PrintTo(const DefaultCase& c, std::ostream* os) { *os << c.name; }

// The defaults are only visible on a machine without the product's file.
class WithoutZonConf : public testing::Test {
 protected:
  void SetUp() override {
    if (access(kZonConfPath, F_OK) == 0)
      GTEST_SKIP() << kZonConfPath << " exists on this machine";
  }
};

class ZonConfDefaultTest : public WithoutZonConf,
                           public testing::WithParamInterface<DefaultCase> {};

TEST_P(ZonConfDefaultTest, FallsBackToCompiledInValues) {
  const DefaultCase& c = GetParam();
  LogRecorder log;
  const char* value = zonConfGetDefault(c.name);
  if (c.value) {
    EXPECT_STREQ(c.value, value);
  } else {
    EXPECT_EQ(nullptr, value);
    EXPECT_TRUE(LogRecorder::Has(3, std::string("variable '") + c.name +
                                        "' was found neither in "
                                        "/etc/zon/zon.conf, nor in "
                                        "compile-time defaults"));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Names, ZonConfDefaultTest,
    testing::Values(
        DefaultCase{"TAVIX_MAILNAMES_D", "/var/qmail/mailnames"},
        DefaultCase{"PRODUCT_ROOT_D", "/usr/local/zon"},
        DefaultCase{"SA_MAX_MAIL_SIZE", "256000"},
        DefaultCase{"_MIN_POSSIBLE_ZON_CONF_VAR_NAME",
                    "_MIN_POSSIBLE_ZON_CONF_VAR_VALUE"},
        DefaultCase{"_MAX_POSSIBLE_ZON_CONF_VAR_NAME", nullptr},
        DefaultCase{"NO_SUCH_VARIABLE", nullptr},
        DefaultCase{"tavix_mailnames_d", nullptr}));

TEST_F(WithoutZonConf, ByIndexMatchesByName) {
  EXPECT_STREQ("/var/qmail/mailnames",
               zonConfGetDefaultByIndex(ZON_CONF_TAVIX_MAILNAMES_D));
  EXPECT_EQ(nullptr, zonConfGet("TAVIX_MAILNAMES_D"));
  EXPECT_EQ(nullptr, zonConfGetDefaultByIndex(ZON_CONF_COUNT));
}

}  // namespace
