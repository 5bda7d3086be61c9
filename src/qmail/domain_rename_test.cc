#include "qmail/domain_rename.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "handlers/handler_ops.h"
#include "handlers/mail_handlers.h"
#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "mailauth/sqlite_test_support.h"
#include "maildata/session_mail_data.h"
#include "qmail/line_file.h"
#include "qmail/mail_domains.h"
#include "qmail/mailnames.h"
#include "qmail/qmail_test_support.h"

namespace {

using tavix::mail::qmail::dravnik_commands::renameDomain;
using tavix::test::AuthFlags;
using tavix::test::exists;
using tavix::test::LogRecorder;
using tavix::test::QueryRows;
using tavix::test::read_file;
using tavix::test::set_attributes;
using tavix::test::write_file;

const std::string kPluginDir = "/usr/lib64/tavix-9.0/domain_rename";
const std::string kMailnames = "/var/qmail/mailnames/";
const std::string kRcpthosts = "/var/qmail/control/rcpthosts";
const std::string kVirtualdomains = "/var/qmail/control/virtualdomains";
const std::string kAssign = "/var/qmail/users/assign";
const std::string kReject = "/var/qmail/control/rejectnonexist";
const std::string kInitCalls = "/run/sandbox/log/init.calls";
const char kHandlersDb[] = "/var/lib/tavix/mail/handlers/handlers.db";

// A plug-in that leaves "<old> <new>" in its marker file.
const char kReportingPlugin[] = R"(
#include <stdio.h>
int rename_domain(const char* old_domain, const char* new_domain) {
  FILE* marker = fopen(MARKER, "w");
  if (marker) {
    fprintf(marker, "%s %s\n", old_domain, new_domain);
    fclose(marker);
  }
  return 0;
}
)";

std::string Marker(const std::string& plugin) { return "/var/qmail/ran." + plugin; }

// Compiles the plug-in into the plug-in directory with the system's
// compiler (its temporary files go where the sandbox lets them).
void CompilePlugin(const std::string& name) {
  const std::string command = "TMPDIR=/var/qmail cc -shared -fPIC -x c -DMARKER='\"" +
                              Marker(name) + "\"' -o " + kPluginDir + "/" + name + " -";
  FILE* compiler = popen(command.c_str(), "w");
  ASSERT_NE(nullptr, compiler) << command;
  fputs(kReportingPlugin, compiler);
  ASSERT_EQ(0, pclose(compiler)) << command;
}

size_t LineCount(const std::string& path) {
  std::ifstream in(path);
  size_t count = 0;
  for (std::string line; std::getline(in, line);) ++count;
  return count;
}

void AddHandler(const char* name, const char* address) {
  tavix::handlers::Record rec(mh_data_init());
  ASSERT_NE(nullptr, rec);
  ASSERT_TRUE(tavix::handlers::set_text(&rec->name, name));
  ASSERT_TRUE(tavix::handlers::set_text(&rec->address, address));
  ASSERT_TRUE(tavix::handlers::set_text(&rec->executable, "/bin/true"));
  ASSERT_TRUE(tavix::handlers::set_text(&rec->context, ""));
  rec->enabled = true;
  ASSERT_EQ(0, mh_db_add(nullptr, rec.get()));
}

std::vector<std::string> HandlerAddresses() {
  std::vector<std::string> addresses;
  for (const auto& row : QueryRows(kHandlersDb, "SELECT address FROM handlers ORDER BY 1"))
    addresses.push_back(row[0]);
  return addresses;
}

// The state the panel leaves for a domain with one mail name, an alias of
// it, a domain alias, a mailbox record, handlers, a reject list and a
// rename plug-in; the qmail files owned as they must not stay.
//
// A database that cannot be used ends the rename with the earlier steps
// done and qmail not restarted; no plug-in runs after the authentication
// database failed.
class DomainRenameFailureTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mailAuthDBInitStyle(0));
    ASSERT_EQ(0, mh_db_create());
    ASSERT_NE(nullptr, get_session_mail_db_info());
    CompilePlugin("ok.so");
  }
  void TearDown() override { free_session_mail_db_info(); }

  void Populate(const std::string& domain) {
    const char* d = domain.c_str();
    ASSERT_EQ(0, add_mail_dom(d));
    ASSERT_EQ(0, add_mailname("john", d));
    ASSERT_EQ(0, add_mn_alias("john", d, "info"));
    ASSERT_EQ(0, add_domain_alias(d, "alias.example"));
    ASSERT_EQ(0, mailAuthSet("john", d, "secret", 0));
    AddHandler("spam", ("john@" + domain).c_str());
    AddHandler("dw", d);
    write_file(kReject, domain + "\nalias.example\n");
    for (const std::string& file : {kRcpthosts, kVirtualdomains, kAssign, kReject})
      set_attributes(file, {110, 110, 0600});
  }
};

TEST_P(DomainRenameFailureTest, StopsWithEarlierStepsDone) {
  const bool auth_broken = GetParam();
  Populate("old.example");
  const std::vector<std::string> handlers = HandlerAddresses();
  write_file(auth_broken ? std::string(mailAuthDB) : kHandlersDb, "not a database");
  const size_t restarts = LineCount(kInitCalls);
  LogRecorder log;

  EXPECT_EQ(1, renameDomain("old.example", "new.example"));

  EXPECT_TRUE(exists(kMailnames + "new.example/john"));
  EXPECT_EQ("new.example\nalias.example\n", read_file(kRcpthosts));
  EXPECT_NE(std::string::npos, read_file(kAssign).find("=new.example-john:"));
  EXPECT_EQ(restarts, LineCount(kInitCalls));
  if (auth_broken) {
    EXPECT_FALSE(exists(Marker("ok.so")));
    EXPECT_EQ(handlers, HandlerAddresses());
  } else {
    EXPECT_EQ(0, AuthFlags("john@new.example"));
    EXPECT_TRUE(LogRecorder::Has(
        3, "Unable to move domain handlers from old.example to new.example\n"));
  }
}

INSTANTIATE_TEST_SUITE_P(Databases, DomainRenameFailureTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "Auth" : "Handlers";
                         });

}  // namespace
