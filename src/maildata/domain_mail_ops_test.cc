#include "maildata/domain_mail_ops.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "mailauth/sqlite_test_support.h"
#include "maildata/session_mail_data.h"
#include "util/fs.h"
#include "util/strings.h"
#include "util/test_support.h"

namespace {

using tavix::StringArray;
using tavix::test::LogRecorder;
using tavix::test::QueryRows;
using tavix::test::Rows;
using tavix::test::TempDir;
using Names = std::vector<std::string>;

const char kDomain[] =
    R"({"domain":{"name":"example.com","dom_aliases":["alias.net","alias.org"],)"
    R"("maillists":["News"],"mails":[{"name":"info","aliases":["office","sales"]},)"
    R"({"name":"bob","aliases":[]}]}})";
const char kNoDomainAliases[] =
    R"({"domain":{"name":"example.com","dom_aliases":[],"maillists":[],)"
    R"("mails":[{"name":"info","aliases":["office"]}]}})";

const char kNotFilled[] = "Session mail DB info is not filled in call to ";
const uint8_t kRawUserOff = MAIL_AUTH_RAW_PASSWORD | MAIL_AUTH_USER_DISABLED;

int ReadDocument(const std::string& text) {
  std::string bytes = text;
  tavix::UniqueFile stream(fmemopen(&bytes[0], bytes.size(), "r"));
  if (!stream) {
    ADD_FAILURE() << "fmemopen failed";
    return -100;
  }
  return read_session_mail_db_info(stream.get(), 0);
}

Names ToNames(char** list) {
  StringArray owner(list);
  return Names(owner.begin(), owner.end());
}

// The addresses of `names` (in order) under the domain and both aliases,
// ordered as Records() lists them.
Names Everywhere(const Names& names) {
  Names addresses;
  for (const char* domain : {"alias.net", "alias.org", "example.com"})
    for (const std::string& name : names) addresses.push_back(name + "@" + domain);
  return addresses;
}

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
    if (document) {
      ASSERT_EQ(0, ReadDocument(document));
    }
  }
  // "name@domain", ordered by domain and name.
  Names Records() {
    Names names;
    for (const auto& row : QueryRows(db_, "SELECT u.name || '@' || d.name FROM users AS u "
                                          "JOIN domains AS d ON u.dom_id = d.id "
                                          "ORDER BY d.name, u.name"))
      names.push_back(row[0]);
    return names;
  }
  Names Domains() {
    Names names;
    for (const auto& row :
         QueryRows(db_, "SELECT name || ':' || status FROM domains ORDER BY name"))
      names.push_back(row[0]);
    return names;
  }
  // Every address of the session document, all with password "pw".
  void SeedAll() {
    ASSERT_EQ(1, set_mass_postbox_passwd("info", "example.com", "pw", kRawUserOff));
    ASSERT_EQ(1, set_mass_postbox_passwd("bob", "example.com", "pw", kRawUserOff));
  }

  TempDir tmp_;
  LogRecorder log_;
  std::string db_ = tmp_.path("auth/passwd.db");
  std::string key_ = tmp_.path("auth/passwd_db_key");
  const char* const saved_db_ = mailAuthDB;
  const char* const saved_key_ = mailAuthKey;
};

// get_domain_by_domainalias() with its answer as a list, so that it fits
// the tables of list look-ups.
int OwnerAsList(const char* alias, char*** out) {
  char* domain = nullptr;
  int result = get_domain_by_domainalias(nullptr, &domain, alias);
  *out = domain ? string_to_mas(nullptr, domain) : nullptr;
  free(domain);
  return result;
}

struct LookupCase {
  const char* name;  // the function, as the no-session message names it
  std::function<int(char***)> lookup;
  Names expected;  // from kDomain
};

const LookupCase kLookups[] = {
    {"get_domain_by_domainalias", [](char*** out) { return OwnerAsList("alias.org", out); },
     {"example.com"}},
    {"get_mailnames_by_domain",
     [](char*** out) { return get_mailnames_by_domain(nullptr, out, "example.com"); },
     {"info", "bob"}},
    {"get_aliases_by_mailname",
     [](char*** out) { return get_aliases_by_mailname(nullptr, out, "info", "example.com"); },
     {"office", "sales"}},
    {"get_domaliases_by_domain",
     [](char*** out) { return get_domaliases_by_domain(nullptr, out, "example.com"); },
     {"alias.net", "alias.org"}},
    {"get_maillists_by_domain",
     [](char*** out) { return get_maillists_by_domain(nullptr, out, "example.com"); }, {"News"}},
    // The session describes one domain: asking about any other gets no answer.
    {"get_domaliases_by_domain",
     [](char*** out) { return get_domaliases_by_domain(nullptr, out, "other.com"); }, {}},
    {"get_domaliases_by_domain",
     [](char*** out) { return get_domaliases_by_domain(nullptr, out, "alias.net"); }, {}},
    {"get_aliases_by_mailname",
     [](char*** out) { return get_aliases_by_mailname(nullptr, out, "nobody", "example.com"); },
     {}},
    {"get_aliases_by_mailname",
     [](char*** out) { return get_aliases_by_mailname(nullptr, out, "info", "other.com"); }, {}},
    {"get_domain_by_domainalias", [](char*** out) { return OwnerAsList("example.com", out); }, {}},
};

TEST_F(DomainMailOpsTest, LookupsAnswerFromTheSession) {
  UseSession(kDomain);
  for (size_t i = 0; i < std::size(kLookups); ++i) {
    char** list = nullptr;
    EXPECT_EQ(0, kLookups[i].lookup(&list)) << i;
    EXPECT_EQ(kLookups[i].expected, ToNames(list)) << i;
  }
}

// Without a session object every look-up fails and names itself; an empty
// one (the front end's "no data") knows nothing but does not fail.
TEST_F(DomainMailOpsTest, LookupsWithoutSessionData) {
  for (const LookupCase& c : kLookups) {
    UseSession(nullptr);
    LogRecorder::lines().clear();
    char** list = nullptr;
    EXPECT_EQ(-1, c.lookup(&list)) << c.name;
    EXPECT_EQ(nullptr, list) << c.name;
    EXPECT_TRUE(LogRecorder::Has(
        LOG_ERR, std::string(kNotFilled) + c.name + "(). Probably a programming error."))
        << c.name;

    ASSERT_NE(nullptr, get_session_mail_db_info());
    EXPECT_EQ(0, c.lookup(&list)) << c.name;
    EXPECT_EQ(nullptr, list) << c.name;
  }
}

TEST_F(DomainMailOpsTest, SettingPasswordsReachesEveryAliasDomain) {
  struct Case {
    const char* document;
    std::function<int()> op;
    int result;
    Names records;
  } const cases[] = {
      {kDomain, [] { return set_passwd_for_domains("info", "example.com", "pw", kRawUserOff); },
       1, Everywhere({"info"})},
      {kDomain, [] { return set_mass_postbox_passwd("info", "example.com", "pw", kRawUserOff); },
       1, Everywhere({"info", "office", "sales"})},
      {kDomain, [] { return set_mass_postbox_passwd("bob", "example.com", "pw", kRawUserOff); },
       1, Everywhere({"bob"})},
      {kNoDomainAliases,
       [] { return set_passwd_for_domains("info", "example.com", "pw", kRawUserOff); }, 0,
       {"info@example.com"}},
      {kNoDomainAliases,
       [] { return set_mass_postbox_passwd("info", "example.com", "pw", kRawUserOff); }, 1,
       {"info@example.com", "office@example.com"}},
      // The domain's own record is written before the alias look-up fails.
      {nullptr, [] { return set_mass_postbox_passwd("info", "example.com", "pw", kRawUserOff); },
       -1, {"info@example.com"}},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(0, mailAuthDBInit());
    UseSession(c.document);
    LogRecorder::lines().clear();
    EXPECT_EQ(c.result, c.op()) << c.records.back();
    EXPECT_EQ(c.records, Records());
    if (c.result == -1) {
      EXPECT_TRUE(
          LogRecorder::Has(LOG_ERR, "Unable to get domain aliases for domain example.com"));
    }
    // Every copy carries the password and flags as given.
    EXPECT_EQ((Rows{{"pw", "<NULL>", "1"}}),
              QueryRows(db_, "SELECT DISTINCT cmusaslsecretPLAIN, "
                             "coalesce(userPassword, '<NULL>'), status FROM users"));
  }
}

TEST_F(DomainMailOpsTest, RemovalWalks) {
  struct Case {
    const char* document;
    std::function<int()> op;
    int result;
    Names left;
  } const cases[] = {
      {kDomain, [] { return rm_mname_from_domains("office", "example.com"); }, 1,
       Everywhere({"bob", "info", "sales"})},
      {kDomain, [] { return rm_mails_from_domains("info", "example.com"); }, 1,
       Everywhere({"bob"})},
      {kDomain, [] { return rm_mails_from_domains("bob", "example.com"); }, 1,
       Everywhere({"info", "office", "sales"})},
      // Without data only the domain's own record goes.
      {nullptr, [] { return rm_mails_from_domains("bob", "example.com"); }, -1,
       {"bob@alias.net", "info@alias.net", "office@alias.net", "sales@alias.net",
        "bob@alias.org", "info@alias.org", "office@alias.org", "sales@alias.org",
        "info@example.com", "office@example.com", "sales@example.com"}},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(0, mailAuthDBInit());
    UseSession(kDomain);
    SeedAll();
    UseSession(c.document);
    EXPECT_EQ(c.result, c.op());
    EXPECT_EQ(c.left, Records());
  }
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to remove mailname from domain aliases"));
}

TEST_F(DomainMailOpsTest, AuthFailuresAreReported) {
  UseSession(kDomain);
  // A directory where the database should be: nothing can be opened.
  std::string broken = tmp_.path("broken.db");
  ASSERT_EQ(1, createNestedDirectory(broken.c_str()));
  mailAuthDBSetPath(broken.c_str());
  struct Case {
    std::function<int()> op;
    const char* logged;
  } const cases[] = {
      {[] { return set_mass_postbox_passwd("info", "example.com", "pw", 0); },
       "Unable to set password for mailname info@example.com"},
      {[] { return rm_mails_from_domains("info", "example.com"); },
       "Unable to remove mailname info@example.com"},
      {[] { return add_domain_auth_alias("example.com", "new.net"); },
       "Unable to clone auth record for office@new.net"},
      {[] { return rm_domain_auth_alias("alias.net"); },
       "Unable to remove domain alias.net from auth database"},
  };
  for (const Case& c : cases) {
    LogRecorder::lines().clear();
    EXPECT_EQ(-1, c.op()) << c.logged;
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, c.logged)) << c.logged;
  }
}

TEST_F(DomainMailOpsTest, AddingADomainAliasClonesExistingRecords) {
  UseSession(kDomain);
  // sales has no record and bob's is the only one with other flags.
  ASSERT_EQ(0, set_postbox_passwd("info", "example.com", "pw", kRawUserOff));
  ASSERT_EQ(0, set_postbox_passwd("office", "example.com", "pw", kRawUserOff));
  ASSERT_EQ(0, set_postbox_passwd("bob", "example.com", "secret", 0));
  ASSERT_EQ(0, mailAuthDisableDomain("example.com"));

  EXPECT_EQ(1, add_domain_auth_alias("example.com", "new.net"));
  EXPECT_EQ((Rows{{"bob", "<NULL>", "0"}, {"info", "pw", "1"}, {"office", "pw", "1"}}),
            QueryRows(db_, "SELECT u.name, coalesce(u.cmusaslsecretPLAIN, '<NULL>'), u.status "
                           "FROM users AS u JOIN domains AS d ON u.dom_id = d.id "
                           "WHERE d.name = 'new.net' ORDER BY u.name"));
  // The encrypted password is copied as stored, and the new domain takes
  // the source domain's state.
  EXPECT_EQ(1u,
            QueryRows(db_, "SELECT DISTINCT userPassword FROM users WHERE name = 'bob'").size());
  EXPECT_EQ((Names{"example.com:1", "new.net:1"}), Domains());

  // Nothing to copy for a domain the session does not describe; without
  // session data the walk fails.
  EXPECT_EQ(0, add_domain_auth_alias("other.com", "other.net"));
  UseSession(nullptr);
  EXPECT_EQ(-1, add_domain_auth_alias("example.com", "other.net"));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to get mailnames from domain example.com"));
  EXPECT_EQ((Names{"example.com:1", "new.net:1"}), Domains());
}

TEST_F(DomainMailOpsTest, RemovingADomainAlias) {
  struct Case {
    const char* document;
    int result;
  } const cases[] = {
      {kDomain, 0},
      {kNoDomainAliases, 0},  // not known as an alias: records go all the same
      {nullptr, -1},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(0, mailAuthDBInit());
    UseSession(kDomain);
    SeedAll();
    ASSERT_EQ(0, mailAuthSetRaw("stray", "alias.net", "pw", 0));
    UseSession(c.document);
    EXPECT_EQ(c.result, rm_domain_auth_alias("alias.net"));
    EXPECT_EQ((Names{"alias.org:0", "example.com:0"}), Domains());
    EXPECT_EQ(8u, Records().size());
  }
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to get domain by domain alias alias.net"));
}

// The action's calls, and the domain it fails on.
Names action_calls;
std::string action_fails_on;
int RecordingAction(const char* domain) {
  action_calls.push_back(domain);
  return action_fails_on == domain ? -1 : 0;
}

TEST_F(DomainMailOpsTest, DomainActionAppliesToDomainAndAliases) {
  struct Case {
    const char* document;
    const char* fails_on;
    int result;
    Names calls;
    const char* logged;
  } const cases[] = {
      {kDomain, "", 1, {"example.com", "alias.net", "alias.org"}, nullptr},
      {kNoDomainAliases, "", 0, {"example.com"}, nullptr},
      {kDomain, "example.com", -1, {"example.com"}, "Unable to switch for domain example.com"},
      {kDomain, "alias.net", -1, {"example.com", "alias.net"},
       "Unable to switch for domain alias alias.net"},
      {nullptr, "", -1, {"example.com"}, "Unable to get aliases for domain example.com"},
  };
  for (const Case& c : cases) {
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

TEST_F(DomainMailOpsTest, ListAdaptorsAppend) {
  std::vector<std::string> out = {"first"};
  tavix::mail::append_domainaliases_by_domain(out, "example.com");  // no session
  UseSession(kDomain);
  tavix::mail::append_domainaliases_by_domain(out, "example.com");
  tavix::mail::append_domainaliases_by_domain(out, "other.com");
  tavix::mail::append_maillists_by_domain(out, "example.com");
  EXPECT_EQ((Names{"first", "alias.net", "alias.org", "News"}), out);

  EXPECT_THROW(tavix::mail::append_active_domaliases_by_domain(out, "example.com"),
               std::runtime_error);
}

}  // namespace
