#include "export/export_plan.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "qmail/nonexisting_mail.h"

namespace tavix {
namespace exporter {
namespace {

using audit::AuthUser;
using audit::ServerState;

const char kRoot[] = "/var/qmail/mailnames";
const char kCourier[] = "| /usr/bin/deliverquota ./Maildir";

// A server as the audit reads it, built line by line.
class Server {
 public:
  Server() { state_.root = kRoot; }

  Server& Domain(const std::string& domain, bool enabled = true) {
    if (enabled)
      state_.files.virtualdomains.emplace_back(domain, domain);
    Assign("+" + domain + ":popuser:110:110:" + kRoot + "/" + domain + ":::");
    audit::DomainDir& dir = state_.tree.domains[domain];
    dir.dir.exists = dir.dir.is_dir = true;
    dir.qmail_default.exists = true;
    dir.qmail_default_text = bounce_line(nullptr) + "\n";
    return *this;
  }
  Server& Alias(const std::string& domain, const std::string& alias) {
    state_.files.virtualdomains.emplace_back(alias, domain);
    return *this;
  }
  // A mail name; with a limit, its maildirsize states it.
  Server& Name(const std::string& domain, const std::string& name, bool mailbox,
               long long limit = 0) {
    Assign("=" + domain + "-" + name + ":popuser:110:110:" + kRoot + "/" + domain + "/" + name +
           ":::");
    audit::Mailbox& box = state_.tree.domains[domain].mailboxes[name];
    box.dir.exists = box.dir.is_dir = true;
    box.dotqmail = mailbox ? std::string("| true\n") + kCourier + "\n" : "| true\n";
    box.has_maildirsize = true;
    box.maildirsize = std::to_string(limit) + "S,0C\n           0           0\n";
    box.attachments_bytes = 4096;
    return *this;
  }
  Server& NameAlias(const std::string& domain, const std::string& name,
                    const std::string& alias) {
    Assign("=" + domain + "-" + alias + ":popuser:110:110:" + kRoot + "/" + domain + "/" + name +
           ":::");
    return *this;
  }
  // A password record; "enc:" texts are decrypted by dropping that prefix.
  Server& Record(const std::string& domain, const std::string& name, const std::string& stored,
                 bool raw = false) {
    AuthUser user;
    user.domain = domain;
    user.name = name;
    (raw ? user.has_raw : user.has_encrypted) = true;
    (raw ? user.raw : user.encrypted) = stored;
    state_.databases.auth_rows.push_back(user);
    state_.databases.auth_domain_status.emplace(domain, 0);
    return *this;
  }

  ServerState& state() { return state_; }

  Plan Export(const std::vector<std::string>& selected = {}) {
    Lookups lookups;
    lookups.decrypt = [](const std::string&, const std::string& stored, std::string* clear) {
      if (stored.compare(0, 4, "enc:") != 0)
        return false;
      *clear = stored.substr(4);
      return true;
    };
    lookups.has_domainkeys = [this](const std::string& domain) {
      return keys.count(domain) > 0;
    };
    return MakePlan(state_, {}, selected, lookups);
  }

  std::set<std::string> keys;

 private:
  void Assign(const std::string& line) {
    state_.files.assign.push_back(audit::ParseAssignLine(line));
  }
  ServerState state_;
};

std::vector<std::string> Words(const Plan& plan) {
  std::vector<std::string> words;
  for (const BatchLine& line : plan.lines) {
    std::string text;
    for (const std::string& word : line.argv)
      text += (text.empty() ? "" : " ") + word;
    words.push_back(text);
  }
  return words;
}

TEST(QuotaForLimit, GivesTheQuotaThatStoresTheLimit) {
  struct Case {
    long long limit, attachments, quota;
  } cases[] = {{0, 4096, -1}, {1, 4096, 0}, {1048576, 4096, 1052672}, {500, -1, 500},
               {2, 0, 2}};
  for (const Case& c : cases)
    EXPECT_EQ(QuotaForLimit(c.limit, c.attachments), c.quota) << c.limit << " " << c.attachments;
}

TEST(MakePlan, MakesDomainAliasesMailboxesAliasesAndQuotasInOrder) {
  Server server;
  server.Domain("example.com").Alias("example.com", "b.example").Alias("example.com", "a.example")
      .Name("example.com", "john", true, 1048576).NameAlias("example.com", "john", "info")
      .Name("example.com", "jane", false, 1)
      .Record("example.com", "john", "enc:s3cret")
      .Record("example.com", "info", "enc:s3cret")
      .Record("a.example", "john", "enc:s3cret").Record("a.example", "info", "enc:s3cret")
      .Record("b.example", "john", "enc:s3cret").Record("b.example", "info", "enc:s3cret");
  server.state().files.rejectnonexist.insert("b.example");
  Plan plan = server.Export();
  EXPECT_EQ(Words(plan), (std::vector<std::string>{
      "--add-domain --domain-name=example.com --wait-stdin",
      "--add-domain-alias --domain-name=example.com --domain-alias-name=a.example --set-bounce "
      "--wait-stdin",
      "--add-domain-alias --domain-name=example.com --domain-alias-name=b.example --set-reject "
      "--wait-stdin",
      "--add-mailname --domain-name=example.com --mailname=jane --disk-quota=0",
      "--add-mailname --domain-name=example.com --mailname=john --disk-quota=1052672",
      "--add-mailbox --domain-name=example.com --mailname=john --wait-stdin",
      "--set-password --domain-name=example.com --mailname=john --wait-stdin",
      "--add-alias --domain-name=example.com --mailname=john --alias=info --wait-stdin",
      "--set-mailbox-disk-quota --domain-name=example.com --mailname=john --disk-quota=1052672 "
      "--wait-stdin"}));
  EXPECT_TRUE(plan.omissions.empty()) << plan.omissions[0];
  EXPECT_EQ(plan.mail_domains, std::vector<std::string>{"example.com"});
  for (size_t line : {5, 6}) {
    EXPECT_EQ(plan.lines[line].password, std::optional<std::string>("s3cret"));
    EXPECT_FALSE(plan.lines[line].crypted_password);
  }
  // The password and the alias reach the alias domains that hold them.
  EXPECT_EQ(plan.lines[6].stdin_json,
            "{\"domain\": {\"name\": \"example.com\", \"dom_aliases\": [\"a.example\", "
            "\"b.example\"], \"maillists\": [], \"mails\": [{\"name\": \"john\", \"aliases\": "
            "[]}]}}");
  EXPECT_NE(plan.lines[7].stdin_json.find("[\"a.example\", \"b.example\"]"), std::string::npos);
}

TEST(MakePlan, TurnedOffDomainIsTurnedOffBeforeItsRecordsAreMade) {
  Server server;
  server.Domain("off.example", false).Alias("off.example", "late.example")
      .Name("off.example", "bob", true).Record("off.example", "bob", "$1$hash", true)
      .Record("late.example", "bob", "$1$hash", true);
  server.state().databases.auth_domain_status["off.example"] = 1;
  server.state().databases.auth_domain_status["late.example"] = 1;
  Plan plan = server.Export();
  EXPECT_EQ(Words(plan), (std::vector<std::string>{
      "--add-domain --domain-name=off.example --wait-stdin",
      "--turn-off-domain --domain-name=off.example --wait-stdin",
      "--add-domain-alias --domain-name=off.example --domain-alias-name=late.example "
      "--set-bounce --wait-stdin",
      "--add-mailname --domain-name=off.example --mailname=bob --disk-quota=-1",
      "--add-mailbox --domain-name=off.example --mailname=bob --mail-domain-disabled --wait-stdin",
      "--set-password --domain-name=off.example --mailname=bob --mail-domain-disabled "
      "--wait-stdin"}));
  EXPECT_EQ(plan.lines[4].crypted_password, std::optional<std::string>("$1$hash"));
  EXPECT_TRUE(plan.omissions.empty()) << plan.omissions[0];
}

// Each state the commands cannot make is named, and the rest still goes.
TEST(MakePlan, NamesWhatNoCommandCarries) {
  struct Case {
    const char* what;
    void (*change)(Server&);
    const char* named;
  } cases[] = {
      {"custom default delivery",
       [](Server& s) { s.state().tree.domains["example.com"].qmail_default_text = "&a@b.c\n"; },
       "example.com: not carried: its .qmail-default"},
      {"domain rejected itself",
       [](Server& s) { s.state().files.rejectnonexist.insert("example.com"); },
       "control/rejectnonexist lists it"},
      {"handlers", [](Server& s) { s.state().databases.handler_addresses.insert("john@example.com"); },
       "john@example.com: not carried: its mail handlers"},
      {"domain keys", [](Server& s) { s.keys.insert("example.com"); }, "its DomainKeys"},
      {"global handlers", [](Server& s) { s.state().databases.global_handlers = true; },
       "global mail handlers"},
      {"undecryptable", [](Server& s) { s.state().databases.auth_rows[0].encrypted = "junk"; },
       "john@example.com: not carried: its password, which cannot be decrypted"},
      {"alias with its own password",
       [](Server& s) { s.Record("example.com", "info", "enc:other"); },
       "info@example.com: not carried: its own password"},
      {"alias record missing", [](Server& s) { s.NameAlias("example.com", "john", "sales"); },
       "sales@example.com: has no password record"},
      {"record of a mail name without mailbox",
       [](Server& s) { s.Name("example.com", "jane", false).Record("example.com", "jane", "enc:x"); },
       "jane@example.com: not carried: its password record, that of no mailbox"},
      {"custom .qmail line",
       [](Server& s) { s.state().tree.domains["example.com"].mailboxes["john"].dotqmail += "&x@y.z\n"; },
       "john@example.com: not carried: lines of its .qmail"},
      {"message limit",
       [](Server& s) {
         s.state().tree.domains["example.com"].mailboxes["john"].maildirsize = "0S,10C\n";
       },
       "its limit of 10 messages"},
      {"disabled in the database",
       [](Server& s) { s.state().databases.auth_domain_status["example.com"] = 1; },
       "example.com: not carried: the authentication database has it disabled"},
  };
  for (const Case& c : cases) {
    Server server;
    server.Domain("example.com").Name("example.com", "john", true)
        .Record("example.com", "john", "enc:pw").NameAlias("example.com", "john", "info")
        .Record("example.com", "info", "enc:pw");
    c.change(server);
    Plan plan = server.Export();
    ASSERT_EQ(plan.omissions.size(), 1u) << c.what << ": " << ::testing::PrintToString(plan.omissions);
    EXPECT_NE(plan.omissions[0].find(c.named), std::string::npos) << c.what << ": "
                                                                  << plan.omissions[0];
    EXPECT_NE(std::find(Words(plan).begin(), Words(plan).end(),
                        "--add-mailname --domain-name=example.com --mailname=john --disk-quota=-1"),
              Words(plan).end())
        << c.what;
  }
}

TEST(MakePlan, DomainSelectsItAndItsAliasesOnly) {
  Server server;
  server.Domain("a.example").Domain("b.example").Alias("b.example", "c.example");
  server.state().databases.handler_addresses.insert("a.example");
  Plan plan = server.Export({"b.example", "c.example", "nowhere.example"});
  std::vector<std::string> words = Words(plan);
  ASSERT_EQ(words.size(), 2u);
  EXPECT_EQ(words[0], "--add-domain --domain-name=b.example --wait-stdin");
  ASSERT_EQ(plan.omissions.size(), 2u);
  EXPECT_NE(plan.omissions[0].find("a domain alias of b.example"), std::string::npos);
  EXPECT_NE(plan.omissions[1].find("no such mail domain"), std::string::npos);
}

TEST(MakePlan, AuditFindingsOfOtherDomainsStayOutOfAPartialExport) {
  Server server;
  server.Domain("a.example").Domain("b.example");
  audit::Finding mine, other, server_wide;
  mine.kind = other.kind = server_wide.kind = "orphan-directory";
  mine.domain = "a.example";
  other.domain = "b.example";
  Lookups lookups{[](const std::string&, const std::string&, std::string*) { return false; },
                  [](const std::string&) { return false; }};
  Plan plan = MakePlan(server.state(), {mine, other, server_wide}, {"a.example"}, lookups);
  ASSERT_EQ(plan.omissions.size(), 2u);
  EXPECT_EQ(plan.omissions[0].substr(0, 10), "a.example:");
  EXPECT_EQ(plan.omissions[1].substr(0, 7), "server:");
  EXPECT_EQ(MakePlan(server.state(), {mine, other}, {}, lookups).omissions.size(), 2u);
}

TEST(ToJson, WritesWhatTheBatchReads) {
  BatchLine line;
  line.argv = {"--set-password", "--mailname=j\"x"};
  line.password = "p\\w\n\xc3\xbc";
  EXPECT_EQ(ToJson(line),
            "{\"argv\": [\"--set-password\", \"--mailname=j\\\"x\"], \"password\": "
            "\"p\\\\w\\n\xc3\xbc\"}");
  line.password.reset();
  line.crypted_password = "$1$x";
  line.stdin_json = "{\"domain\": {}}";
  EXPECT_EQ(ToJson(line), "{\"argv\": [\"--set-password\", \"--mailname=j\\\"x\"], \"stdin\": "
                          "{\"domain\": {}}, \"crypted_password\": \"$1$x\"}");
}

}  // namespace
}  // namespace exporter
}  // namespace tavix
