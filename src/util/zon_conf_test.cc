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

TEST(ConfReadFile, ReadsValueOrWarns) {
  const std::string long_value(10000, 'v');
  const struct {
    std::string file;
    const char* name;
    const char* value;    // null: the name must not be found
    const char* warning;  // null: no warning may be logged
  } cases[] = {
      {"TAVIX_MAILNAMES_D    /srv/mail   # moved\n", "TAVIX_MAILNAMES_D", "/srv/mail", nullptr},
      {"GREETING\thello   big world  \n", "GREETING", "hello   big world", nullptr},
      {"  # a comment\n\n   \n  KEY v\n", "KEY", "v", nullptr},
      {"A first\nA second\n", "A", "second", nullptr},
      {"Z 26\nB 2\nM 13\nA 1\nC 3", "C", "3", nullptr},  // no newline at the end
      {"LONG " + long_value + "\n", "LONG", long_value.c_str(), nullptr},
      {"NAME_ONLY\n", "NAME_ONLY", nullptr,
       "Invalid variable definition NAME_ONLY\nExpected a value"},
      {"NAME   # nothing\n", "NAME", nullptr,
       "Invalid variable definition NAME   # nothing\nExpected a value"},
      {"X=1\nY 2\n", "Y", "2",  // a bad line does not stop the reading
       "Invalid variable definition X=1\nExpected a space after variable name\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file.substr(0, 40));
    TempDir dir;
    const std::string path = dir.path("test.conf");
    tavix::test::write_file(path, c.file);
    LogRecorder log;
    conf_t store;
    ASSERT_EQ(0, conf_read_file_r(path.c_str(), &store));
    const char* value = conf_get_r(c.name, &store);
    if (c.value)
      EXPECT_STREQ(c.value, value);
    else
      EXPECT_EQ(nullptr, value);
    if (c.warning)
      EXPECT_TRUE(LogRecorder::Has(kConfWarning, c.warning));
    else
      EXPECT_TRUE(LogRecorder::lines().empty()) << LogRecorder::lines().front().text;
    conf_free_r(&store);
  }
}

// The defaults are only visible on a machine without the product's file.
TEST(ZonConfDefault, FallsBackToCompiledInValuesAtBothEndsOfTheTable) {
  if (access(kZonConfPath, F_OK) == 0) GTEST_SKIP() << kZonConfPath << " exists on this machine";
  const struct {
    const char* name;
    const char* value;  // null: unknown name
  } cases[] = {
      {"TAVIX_MAILNAMES_D", "/var/qmail/mailnames"},
      {"_MIN_POSSIBLE_ZON_CONF_VAR_NAME", "_MIN_POSSIBLE_ZON_CONF_VAR_VALUE"},
      {"_MAX_POSSIBLE_ZON_CONF_VAR_NAME", nullptr},
      {"tavix_mailnames_d", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogRecorder log;
    const char* value = zonConfGetDefault(c.name);
    if (c.value) {
      EXPECT_STREQ(c.value, value);
    } else {
      EXPECT_EQ(nullptr, value);
      EXPECT_TRUE(LogRecorder::Has(3, std::string("variable '") + c.name +
                                          "' was found neither in /etc/zon/zon.conf, nor in "
                                          "compile-time defaults"));
    }
  }
  EXPECT_STREQ("/var/qmail/mailnames", zonConfGetDefaultByIndex(ZON_CONF_TAVIX_MAILNAMES_D));
  EXPECT_EQ(nullptr, zonConfGet("TAVIX_MAILNAMES_D"));
  EXPECT_EQ(nullptr, zonConfGetDefaultByIndex(ZON_CONF_COUNT));
}

}  // namespace
