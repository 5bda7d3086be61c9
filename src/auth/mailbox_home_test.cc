#include "auth/mailbox_home.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using tavix::auth::FindAssignHome;
using tavix::auth::FindVirtualPrefix;

TEST(FindVirtualPrefixTest, ExactDomainOnly) {
  const std::string text =
      "a.test:a.test\nalias.test:a.test\nsub.a.test:sub.a.test\nb.test:\n";
  struct Case {
    const char* domain;
    const char* prefix;  // null: none
  } cases[] = {
      {"a.test", "a.test"},      {"alias.test", "a.test"}, {"sub.a.test", "sub.a.test"},
      {"test", nullptr},         {"b.test", nullptr},      {"c.test", nullptr},
      {"", nullptr},             {"a.tes", nullptr},
  };
  for (const Case& c : cases) {
    std::string prefix;
    bool found = FindVirtualPrefix(text, c.domain, &prefix);
    EXPECT_EQ(c.prefix != nullptr, found) << c.domain;
    if (found && c.prefix) {
      EXPECT_EQ(c.prefix, prefix);
    }
  }
}

TEST(FindAssignHomeTest, ExactLineOfTheKey) {
  const std::string text =
      "=a.test-jo:popuser:110:110:/var/qmail/mailnames/a.test/jo:::\n"
      "=a.test-info:popuser:110:110:/var/qmail/mailnames/a.test/jo:::\n"
      "+a.test-:popuser:110:110:/var/qmail/mailnames/a.test:::\n"
      "=a.test-broken:popuser:110:110:relative:::\n"
      "#=a.test-hidden:popuser:110:110:/x:::\n"
      "=xa.test-jo:popuser:110:110:/var/qmail/mailnames/xa.test/jo:::\n"
      ".\n";
  struct Case {
    const char* key;
    const char* home;
  } cases[] = {
      {"a.test-jo", "/var/qmail/mailnames/a.test/jo"},
      {"a.test-info", "/var/qmail/mailnames/a.test/jo"},
      {"xa.test-jo", "/var/qmail/mailnames/xa.test/jo"},
      {"a.test-", nullptr},  // only a wildcard line
      {"a.test-j", nullptr},
      {"a.test-broken", nullptr},
      {"a.test-hidden", nullptr},
      {"", nullptr},
  };
  for (const Case& c : cases) {
    std::string home;
    bool found = FindAssignHome(text, c.key, &home);
    EXPECT_EQ(c.home != nullptr, found) << c.key;
    if (found && c.home) {
      EXPECT_EQ(c.home, home);
    }
  }
  std::string home;
  EXPECT_TRUE(FindAssignHome("=k-x:popuser:1:1:/h:::", "k-x", &home));
  EXPECT_EQ("/h", home);
}

}  // namespace
