#include "qmail/domain_rename.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>
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

using tavix::test::Attributes;
using tavix::test::attributes_of;
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
const std::string kLocals = "/var/qmail/control/locals";
const std::string kVirtualdomains = "/var/qmail/control/virtualdomains";
const std::string kAssign = "/var/qmail/users/assign";
const std::string kReject = "/var/qmail/control/rejectnonexist";
const std::string kInitCalls = "/run/sandbox/log/init.calls";
const std::string kNewuCalls = "/run/sandbox/log/qmail-newu.calls";
const Attributes kRootFile{0, 0, 0644};

// A plug-in that leaves "<old> <new>" in its marker file and returns RESULT.
const char kReportingPlugin[] = R"(
#include <stdio.h>
int rename_domain(const char* old_domain, const char* new_domain) {
  FILE* marker = fopen(MARKER, "w");
  if (marker) {
    fprintf(marker, "%s %s\n", old_domain, new_domain);
    fclose(marker);
  }
  return RESULT;
}
)";
const char kCrashingPlugin[] =
    "int rename_domain(const char* o, const char* n) { (void)o; (void)n;"
    " return *(volatile int*)0; }\n";
const char kPluginWithoutEntry[] = "int other_entry(void) { return 1; }\n";

std::string Marker(const std::string& plugin) { return "/var/qmail/ran." + plugin; }

// Compiles `source` into the plug-in directory with the system's compiler
// (its temporary files go where the sandbox lets them).
void Compile(const std::string& name, const std::string& source, const std::string& flags = "") {
  std::string command = "TMPDIR=/var/qmail cc -shared -fPIC -x c " + flags + " -o " +
                        kPluginDir + "/" + name + " -";
  FILE* compiler = popen(command.c_str(), "w");
  ASSERT_NE(nullptr, compiler) << command;
  fputs(source.c_str(), compiler);
  ASSERT_EQ(0, pclose(compiler)) << command;
}

void ReturningPlugin(const std::string& name, int result) {
  Compile(name, kReportingPlugin,
          "-DMARKER='\"" + Marker(name) + "\"' -DRESULT=" + std::to_string(result));
}

// The kinds of file a plug-in directory may hold.
enum Kind { kSucceeds, kReturns3, kReturns256, kCrashes, kNotALibrary, kNoEntry, kSubdir };

void Install(const std::string& name, Kind kind) {
  switch (kind) {
    case kSucceeds: ReturningPlugin(name, 0); break;
    case kReturns3: ReturningPlugin(name, 3); break;
    case kReturns256: ReturningPlugin(name, 256); break;
    case kCrashes: Compile(name, kCrashingPlugin); break;
    case kNotALibrary: write_file(kPluginDir + "/" + name, "#!/bin/sh\nexit 0\n"); break;
    case kNoEntry: Compile(name, kPluginWithoutEntry); break;
    case kSubdir: std::filesystem::create_directory(kPluginDir + "/" + name); break;
  }
}

void ClearPlugins() {
  for (const auto& entry : std::filesystem::directory_iterator(kPluginDir))
    std::filesystem::remove_all(entry.path());
}

size_t LineCount(const std::string& path) {
  std::ifstream in(path);
  size_t count = 0;
  for (std::string line; std::getline(in, line);) ++count;
  return count;
}

// A crashing plug-in leaves no core file in the sandbox.
void NoCoreFiles() {
  struct rlimit none = {0, 0};
  ASSERT_EQ(0, setrlimit(RLIMIT_CORE, &none));
}

// ---------------------------------------------------------------------------
// Plug-ins

TEST(DomainRenamePluginTest, LoadsAndCallsTheEntry) {
  LogRecorder log;
  const struct {
    const char* name;
    Kind kind;
    int result;
    int priority;     // of the expected log line, 0: none
    const char* log;  // after "<plugin dir>/<name>"
  } cases[] = {
      {"ok.so", kSucceeds, 0, 0, ""},
      {"three.so", kReturns3, 3, 0, ""},
      // Files that cannot serve count as success.
      {"notlib", kNotALibrary, 0, 3, "cannop load '%s' plugin: "},
      {"noentry.so", kNoEntry, 0, 6, "plugin '%s' doesn't provide required 'rename_domain': "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Install(c.name, c.kind);
    std::string path = kPluginDir + "/" + c.name;
    EXPECT_EQ(c.result, RenameDomain(path.c_str(), "old.example", "new.example"));
    if (c.priority) {
      char expected[512];
      snprintf(expected, sizeof(expected), c.log, path.c_str());
      EXPECT_TRUE(LogRecorder::Has(c.priority, expected)) << expected;
    } else {
      EXPECT_EQ("old.example new.example\n", read_file(Marker(c.name)));
    }
  }
}

// The child's exit status carries the result; a crash is a failure of
// that plug-in, not of this process.
TEST(DomainRenamePluginTest, CallerRunsThePluginInAChild) {
  NoCoreFiles();
  LogRecorder log;
  Install("ok.so", kSucceeds);
  Install("three.so", kReturns3);
  Install("big.so", kReturns256);
  Install("crash.so", kCrashes);

  EXPECT_EQ(0, RenameDomainPluginCaller((kPluginDir + "/ok.so").c_str(), "a.example", "b.example"));
  EXPECT_EQ("a.example b.example\n", read_file(Marker("ok.so")));
  EXPECT_EQ(3, RenameDomainPluginCaller((kPluginDir + "/three.so").c_str(), "a", "b"));
  EXPECT_TRUE(LogRecorder::Has(7, "child exited with status: 3\n"));
  EXPECT_NE(0, RenameDomainPluginCaller((kPluginDir + "/big.so").c_str(), "a", "b"));
  EXPECT_NE(0, RenameDomainPluginCaller((kPluginDir + "/crash.so").c_str(), "a", "b"));
  EXPECT_TRUE(LogRecorder::Has(3, "child killed by signal: 11\n"));
}

struct ServicesCase {
  const char* title;
  std::vector<std::pair<const char*, Kind>> plugins;
  int result;
  const char* log;  // expected at error level; "" for none
};

TEST(DomainRenamePluginTest, ServicesRunThePluginsUntilOneFails) {
  const ServicesCase cases[] = {
      {"empty directory", {}, 0, ""},
      {"unusable files count as success, directories are skipped",
       {{"ok.so", kSucceeds}, {"notlib", kNotALibrary}, {"noentry.so", kNoEntry},
        {"subdir", kSubdir}},
       0, ""},
      {"failing plug-in", {{"three.so", kReturns3}}, 1, "plugin 'three.so' failed with status '3'\n"},
  };
  for (const ServicesCase& c : cases) {
    SCOPED_TRACE(c.title);
    LogRecorder log;
    ClearPlugins();
    for (const auto& plugin : c.plugins) Install(plugin.first, plugin.second);
    EXPECT_EQ(c.result, RenameDomainInServices("old.example", "new.example"));
    if (*c.log) {
      EXPECT_TRUE(LogRecorder::Has(3, c.log));
    }
    if (c.result == 0) {
      EXPECT_FALSE(LogRecorder::Has(3, "failed with status"));
    }
    for (const auto& plugin : c.plugins) {
      if (plugin.second == kSucceeds || plugin.second == kReturns3) {
        EXPECT_EQ("old.example new.example\n", read_file(Marker(plugin.first)));
      }
    }
  }

  LogRecorder log;
  std::filesystem::remove_all(kPluginDir);
  EXPECT_EQ(1, RenameDomainInServices("old.example", "new.example"));
  EXPECT_TRUE(LogRecorder::Has(
      3, "plugin directory '/usr/lib64/tavix-9.0/domain_rename' not exists or not directory"));
}

// ---------------------------------------------------------------------------
// The whole rename

const char kHandlersDb[] = "/var/lib/tavix/mail/handlers/handlers.db";

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

// The state the panel leaves for a domain `domain` with one mail name, an
// alias of it, a domain alias, a mailbox record, handlers, a reject list
// and a rename plug-in; the qmail files owned as they must not stay.
class DomainRenameTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mailAuthDBInitStyle(0));
    ASSERT_EQ(0, mh_db_create());
    ASSERT_NE(nullptr, get_session_mail_db_info());
    Install("ok.so", kSucceeds);
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

  // The files a refused rename must leave alone.
  std::vector<std::string> QmailFiles() {
    std::vector<std::string> texts;
    for (const std::string& file : {kRcpthosts, kLocals, kVirtualdomains, kAssign, kReject})
      texts.push_back(read_file(file));
    return texts;
  }
};

TEST_F(DomainRenameTest, MovesEveryMentionOfTheDomain) {
  Populate("old.example");
  const size_t restarts = LineCount(kInitCalls);
  const size_t newu = LineCount(kNewuCalls);

  EXPECT_EQ(0, tavix::mail::qmail::dravnik_commands::renameDomain("old.example", "new.example"));

  EXPECT_FALSE(exists(kMailnames + "old.example"));
  EXPECT_TRUE(exists(kMailnames + "new.example/john/Maildir/new"));
  EXPECT_EQ("new.example\nalias.example\n", read_file(kRcpthosts));
  EXPECT_EQ("new.example:new.example\nalias.example:new.example\n", read_file(kVirtualdomains));
  // The wildcard line keeps its old prefix; only its home moves.
  EXPECT_EQ(
      "=new.example-info:popuser:110:110:/var/qmail/mailnames/new.example/john:::\n"
      "=new.example-john:popuser:110:110:/var/qmail/mailnames/new.example/john:::\n"
      "+old.example:popuser:110:110:/var/qmail/mailnames/new.example:::\n"
      ".\n",
      read_file(kAssign));
  EXPECT_EQ("new.example\nalias.example\n", read_file(kReject));
  for (const std::string& file : {kRcpthosts, kVirtualdomains, kAssign, kReject}) {
    SCOPED_TRACE(file);
    EXPECT_EQ(kRootFile, attributes_of(file));
  }
  EXPECT_EQ(0, AuthFlags("john@new.example"));
  EXPECT_EQ(-1, AuthFlags("john@old.example"));
  EXPECT_EQ((std::vector<std::string>{"john@new.example", "new.example", "old.example"}),
            HandlerAddresses())
      << "the mail address's handlers move; domain-wide ones are copied";
  EXPECT_EQ("old.example new.example\n", read_file(Marker("ok.so")));
  EXPECT_EQ(newu + 1, LineCount(kNewuCalls));
  EXPECT_EQ(restarts + 1, LineCount(kInitCalls));
  EXPECT_EQ("[\"restart\"]\n", read_file(kInitCalls).substr(read_file(kInitCalls).rfind('[')));
}

TEST_F(DomainRenameTest, RefusesAMissingSourceOrAnExistingTarget) {
  Populate("old.example");
  ASSERT_EQ(0, add_mail_dom("taken.example"));
  const std::vector<std::string> before = QmailFiles();
  const struct {
    const char* from;
    const char* to;
    const char* log;
  } cases[] = {
      {"old.example", "taken.example",
       "Mail directory /var/qmail/mailnames/taken.example already exists.\n"},
      {"gone.example", "new.example", "Mail directory /var/qmail/mailnames/gone.example not exists.\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.to);
    LogRecorder log;
    EXPECT_EQ(1, tavix::mail::qmail::dravnik_commands::renameDomain(c.from, c.to));
    EXPECT_TRUE(LogRecorder::Has(3, c.log));
    EXPECT_EQ(before, QmailFiles());
    EXPECT_TRUE(exists(kMailnames + "old.example/john"));
    EXPECT_EQ(0, AuthFlags("john@old.example"));
    EXPECT_FALSE(exists(Marker("ok.so")));
  }
}

// Each later step that fails ends the rename with the earlier ones done.
enum Breakage { kAuthDatabase, kPluginFails, kNoPluginDir, kHandlersDatabase };

std::string BreakageName(const testing::TestParamInfo<Breakage>& info) {
  const char* const names[] = {"AuthDatabase", "PluginFails", "NoPluginDir", "HandlersDatabase"};
  return names[info.param];
}

class DomainRenameFailureTest : public DomainRenameTest,
                                public testing::WithParamInterface<Breakage> {};

TEST_P(DomainRenameFailureTest, StopsWithEarlierStepsDone) {
  Populate("old.example");
  LogRecorder log;
  const char* expected_log = "";
  switch (GetParam()) {
    case kAuthDatabase:
      write_file(mailAuthDB, "not a database");
      break;
    case kPluginFails:
      Install("three.so", kReturns3);
      expected_log = "plugin 'three.so' failed with status '3'\n";
      break;
    case kNoPluginDir:
      std::filesystem::remove_all(kPluginDir);
      expected_log = "plugin directory '/usr/lib64/tavix-9.0/domain_rename' not exists";
      break;
    case kHandlersDatabase:
      write_file(kHandlersDb, "not a database");
      expected_log = "Unable to move domain handlers from old.example to new.example\n";
      break;
  }
  const std::vector<std::string> handlers =
      GetParam() == kHandlersDatabase ? std::vector<std::string>{} : HandlerAddresses();
  const size_t restarts = LineCount(kInitCalls);

  EXPECT_EQ(1, tavix::mail::qmail::dravnik_commands::renameDomain("old.example", "new.example"));

  EXPECT_TRUE(LogRecorder::Has(3, expected_log));
  EXPECT_TRUE(exists(kMailnames + "new.example/john"));
  EXPECT_EQ("new.example\nalias.example\n", read_file(kRcpthosts));
  EXPECT_NE(std::string::npos, read_file(kAssign).find("=new.example-john:"));
  if (GetParam() == kAuthDatabase) {
    EXPECT_FALSE(exists(Marker("ok.so"))) << "no plug-in runs after a failed database rename";
  } else {
    EXPECT_EQ(0, AuthFlags("john@new.example"));
  }
  if (GetParam() != kHandlersDatabase) {
    EXPECT_EQ(handlers, HandlerAddresses());
  }
  EXPECT_EQ(restarts, LineCount(kInitCalls));
}

INSTANTIATE_TEST_SUITE_P(Steps, DomainRenameFailureTest,
                         testing::Values(kAuthDatabase, kPluginFails, kNoPluginDir,
                                         kHandlersDatabase),
                         BreakageName);

// The machine's own name (mail.sandbox.test in the sandbox) stays in
// rcpthosts and locals whichever way a rename crosses it, and is not kept
// local when a hosted domain takes it. Without a usable host name only the
// domain's own line is renamed.
struct HostCase {
  const char* title;
  const char* hosts;  // /etc/hosts line for 127.0.1.1
  const char* from;
  const char* to;
  const char* locals_before;
  const char* rcpthosts_after;
  const char* locals_after;
};

void PrintTo(const HostCase& c, std::ostream* out) { *out << c.title; }
std::string HostCaseName(const testing::TestParamInfo<HostCase>& info) {
  const char* const names[] = {"FromHostName", "OntoHostName", "NoUsableHostName"};
  return names[info.index];
}

class DomainRenameHostTest : public DomainRenameTest,
                             public testing::WithParamInterface<HostCase> {};

TEST_P(DomainRenameHostTest, KeepsTheHostNameAcceptedAndLocal) {
  const HostCase& c = GetParam();
  Populate(c.from);
  write_file("/etc/hosts", std::string("127.0.0.1\tlocalhost\n127.0.1.1\t") + c.hosts + "\n");
  if (std::string(c.to) == "mail.sandbox.test") {
    ASSERT_EQ(0, file_str(kRcpthosts.c_str(), "mail.sandbox.test", kLinesAdd, kAddAppend));
  }
  write_file(kLocals, c.locals_before);

  EXPECT_EQ(0, tavix::mail::qmail::dravnik_commands::renameDomain(c.from, c.to));
  EXPECT_EQ(c.rcpthosts_after, read_file(kRcpthosts));
  EXPECT_EQ(c.locals_after, read_file(kLocals));
  EXPECT_EQ(kRootFile, attributes_of(kRcpthosts));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DomainRenameHostTest,
    testing::Values(
        HostCase{"from the host name", "mail.sandbox.test mail", "mail.sandbox.test",
                 "new.example", "localhost\n",
                 "new.example\nalias.example\nmail.sandbox.test\n",
                 "localhost\nmail.sandbox.test\n"},
        HostCase{"onto the host name, compared without case", "MAIL.Sandbox.TEST mail",
                 "old.example", "mail.sandbox.test", "localhost\nmail.sandbox.test\n",
                 "mail.sandbox.test\nalias.example\n", "localhost\n"},
        HostCase{"host name without a domain", "mail mail.sandbox.test", "mail.sandbox.test",
                 "new.example", "localhost\nmail.sandbox.test\n",
                 "new.example\nalias.example\n", "localhost\nmail.sandbox.test\n"}),
    HostCaseName);

}  // namespace
