// The walks with complete data are run end to end by the alias, mail name
// and domain commands in tests/; these tests cover missing or partial data,
// failures part way and what a copy carries.
#include "maildata/domain_mail_ops.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "mailauth/auth_db.h"
#include "maildata/session_mail_data.h"
#include "util/fs.h"
#include "util/strings.h"
#include "util/test_support.h"

namespace {

using tavix::test::LogRecorder;
using tavix::test::TempDir;
using Names = std::vector<std::string>;

const char kDomain[] =
    R"({"domain":{"name":"example.com","dom_aliases":["alias.net","alias.org"],)"
    R"("maillists":["News"],"mails":[{"name":"info","aliases":["office","sales"]},)"
    R"({"name":"bob","aliases":[]}]}})";
const char kNoDomainAliases[] =
    R"({"domain":{"name":"example.com","dom_aliases":[],"maillists":[],)"
    R"("mails":[{"name":"info","aliases":["office"]}]}})";

// A fresh authentication database for every test; the session object is
// made by the test itself and released afterwards.
class DomainMailOpsTest : public testing::Test {
 protected:
  void SetUp() override {
    mailAuthDBSetPath(db_.c_str());
    mailAuthKeySetPath(key_.c_str());
    ASSERT_EQ(0, mailAuthDBInit());
    ASSERT_EQ(0, mailAuthKeyInit());
  }
  void TearDown() override {
    free_session_mail_db_info();
    mailAuthDBSetPath(saved_db_);
    mailAuthKeySetPath(saved_key_);
  }
  void UseSession(const char* document) {
    free_session_mail_db_info();
    if (!document) return;
    std::string bytes = document;
    tavix::UniqueFile stream(fmemopen(&bytes[0], bytes.size(), "r"));
    ASSERT_TRUE(stream);
    ASSERT_EQ(0, read_session_mail_db_info(stream.get(), 0));
  }
  TempDir tmp_;
  LogRecorder log_;
  std::string db_ = tmp_.path("auth/passwd.db");
  std::string key_ = tmp_.path("auth/passwd_db_key");
  const char* const saved_db_ = mailAuthDB;
  const char* const saved_key_ = mailAuthKey;
};

// Each look-up answers only about the session's domain. Without a session
// object it fails and names itself; an empty one (the front end's "no
// data") knows nothing but does not fail.
TEST_F(DomainMailOpsTest, LookupsAnswerFromTheSessionOnly) {
  UseSession(kDomain);
  char* owner = nullptr;
  EXPECT_EQ(0, get_domain_by_domainalias(nullptr, &owner, "alias.org"));
  EXPECT_STREQ("example.com", owner);
  free(owner);
  const struct {
    const char* name;
    std::function<int(char***)> lookup;
    Names expected;  // from kDomain
  } cases[] = {
      {"get_maillists_by_domain",
       [](char*** out) { return get_maillists_by_domain(nullptr, out, "example.com"); },
       {"News"}},
      {"get_domaliases_by_domain",
       [](char*** out) { return get_domaliases_by_domain(nullptr, out, "alias.net"); }, {}},
      {"get_aliases_by_mailname",
       [](char*** out) { return get_aliases_by_mailname(nullptr, out, "info", "other.com"); },
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UseSession(kDomain);
    char** list = nullptr;
    EXPECT_EQ(0, c.lookup(&list));
    tavix::StringArray answer(list);
    EXPECT_EQ(c.expected, Names(answer.begin(), answer.end()));
    UseSession(nullptr);
    list = nullptr;
    EXPECT_EQ(-1, c.lookup(&list));
    EXPECT_EQ(nullptr, list);
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, std::string("Session mail DB info is not filled in "
                                                      "call to ") +
                                              c.name + "(). Probably a programming error."));
    ASSERT_NE(nullptr, get_session_mail_db_info());
    EXPECT_EQ(0, c.lookup(&list));
    EXPECT_EQ(nullptr, list);
  }
}

TEST_F(DomainMailOpsTest, AuthFailuresAreReported) {
  UseSession(kDomain);
  // A directory where the database should be: nothing can be opened.
  std::string broken = tmp_.path("broken.db");
  ASSERT_EQ(1, createNestedDirectory(broken.c_str()));
  mailAuthDBSetPath(broken.c_str());
  const struct {
    std::function<int()> op;
    const char* logged;
  } cases[] = {
      {[] { return set_mass_postbox_passwd("info", "example.com", "pw", 0); },
       "Unable to set password for mailname info@example.com"},
      {[] { return add_domain_auth_alias("example.com", "new.net"); },
       "Unable to clone auth record for office@new.net"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(-1, c.op()) << c.logged;
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, c.logged)) << c.logged;
  }
}

// The action's calls, and the domain it fails on.
Names action_calls;
std::string action_fails_on;
int RecordingAction(const char* domain) {
  action_calls.push_back(domain);
  return action_fails_on == domain ? -1 : 0;
}

TEST_F(DomainMailOpsTest, DomainActionStopsAtTheFirstFailure) {
  const struct {
    const char* document;
    const char* fails_on;
    int result;
    Names calls;
    const char* logged;
  } cases[] = {
      {kNoDomainAliases, "", 0, {"example.com"}, nullptr},
      {kDomain, "example.com", -1, {"example.com"}, "Unable to switch for domain example.com"},
      {kDomain, "alias.net", -1, {"example.com", "alias.net"},
       "Unable to switch for domain alias alias.net"},
      {nullptr, "", -1, {"example.com"}, "Unable to get aliases for domain example.com"},
  };
  for (const auto& c : cases) {
    UseSession(c.document);
    action_calls.clear();
    action_fails_on = c.fails_on;
    EXPECT_EQ(c.result, domain_auth_action("example.com", RecordingAction, "switch"));
    EXPECT_EQ(c.calls, action_calls);
    if (c.logged) {
      EXPECT_TRUE(LogRecorder::Has(LOG_ERR, c.logged)) << c.logged;
    }
  }
}

}  // namespace
