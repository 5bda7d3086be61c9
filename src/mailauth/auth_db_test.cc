// These tests create the database at its real paths and change owners, so
// they run as root inside a private sandbox, never on the host.
#include "mailauth/auth_db.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "mailauth/auth_records.h"
#include "mailauth/sqlite_test_support.h"
#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

using tavix::test::LogRecorder;
using tavix::test::QueryRows;
using tavix::test::Rows;

const char kQmailDB[] = "/var/lib/tavix/mail/auth/passwd.db";
const char kQmailKey[] = "/var/lib/tavix/mail/auth/passwd_db_key";
const char kPostfixDB[] = "/var/spool/postfix/tavix/passwd.db";
const char kPostfixKey[] = "/var/spool/postfix/tavix/passwd_db_key";
const char kScratch[] = "/var/lib/tavix/scratch";

using Attributes = std::tuple<uid_t, gid_t, mode_t>;  // the mode's permission bits

Attributes AttributesOf(const std::string& path) {
  struct stat st = {};
  EXPECT_EQ(0, stat(path.c_str(), &st)) << path;
  return {st.st_uid, st.st_gid, st.st_mode & 07777};
}

gid_t NofilesGroup() {
  const struct group* nofiles = getgrnam("nofiles");
  EXPECT_NE(nullptr, nofiles) << "the sandbox defines the group nofiles";
  return nofiles ? nofiles->gr_gid : 0;
}

class AuthDBTest : public testing::Test {
 protected:
  void SetUp() override { mailAuthDBSelectStyle(0); }
  void TearDown() override { mailAuthDBSelectStyle(0); }

  LogRecorder log_;
};

// Style 0 and 1 have paths of their own; any other keeps the paths set.
TEST_F(AuthDBTest, StylesSelectPaths) {
  const struct {
    int style;
    const char* db;
    const char* key;
  } cases[] = {{2, "/custom/db", "/custom/key"},
               {1, kPostfixDB, kPostfixKey},
               {0, kQmailDB, kQmailKey}};
  for (const auto& c : cases) {
    mailAuthDBSetPath("/custom/db");
    mailAuthKeySetPath("/custom/key");
    mailAuthDBSelectStyle(c.style);
    EXPECT_STREQ(c.db, mailAuthDB) << c.style;
    EXPECT_STREQ(c.key, mailAuthKey) << c.style;
  }
  tavix::unique_free<char> key(mailAuthDBToKeyPath("/var/spool/postfix/tavix/passwd.db"));
  EXPECT_STREQ(kPostfixKey, key.get());
  // Style 1 needs the postfix account and spool, which the sandbox lacks.
  EXPECT_EQ(-1, mailAuthDBInitStyle(1));
}

// A database outside a directory is refused; otherwise the directory is set
// first and a missing database file then fails the call.
TEST_F(AuthDBTest, SetAccessReportsTheFirstFailure) {
  for (const char* path : {"/passwd.db", "passwd.db"}) {
    mailAuthDBSetPath(path);
    EXPECT_EQ(-1, mailAuthDBSetAccess(0, 0, 0600, 0, 0, 0750)) << path;
    EXPECT_TRUE(LogRecorder::Has(LOG_CRIT,
                                 std::string("Invalid mail authentication DB path ") + path));
  }
  const std::string dir = std::string(kScratch) + "/access";
  const std::string db = dir + "/missing.db";
  ASSERT_EQ(0, createDBPath(db.c_str()));
  mailAuthDBSetPath(db.c_str());
  EXPECT_EQ(-1, mailAuthDBSetAccess(0, 0, 0600, 0, NofilesGroup(), 0710));
  EXPECT_EQ((Attributes{0, NofilesGroup(), 0710}), AttributesOf(dir));
  EXPECT_TRUE(LogRecorder::Has(LOG_CRIT, "chown(\"" + db + "\", 0, 0) failed: No such file or "
                                         "directory"));
}

TEST_F(AuthDBTest, DirectoryCreationFailuresAreReported) {
  const std::string blocker = std::string(kScratch) + "/file";
  ASSERT_EQ(0, createDBPath(blocker.c_str()));
  tavix::test::write_file(blocker, "in the way");
  const std::string below = blocker + "/sub/db";

  EXPECT_EQ(-1, createDBPath(below.c_str()));
  EXPECT_TRUE(LogRecorder::Has(LOG_CRIT, "recursive mkdir(" + blocker + "/sub) failed: Not a "
                                         "directory"));
  EXPECT_EQ(-1, sqlite_create_db_path(below.c_str(), "Mail Handlers"));
  EXPECT_TRUE(LogRecorder::Has(LOG_CRIT, "Unable to create directories for Mail Handlers "
                                         "database (" + blocker + "/sub): Not a directory (20)"));
}

// Unlike the authentication database, a generic one is not deleted first.
TEST_F(AuthDBTest, GenericCreationRunsTheScriptOnTheExistingFile) {
  const std::string db = std::string(kScratch) + "/generic/handlers.db";
  ASSERT_EQ(0, sqlite_create_db_path(db.c_str(), "Mail Handlers"));
  ASSERT_EQ(0, sqlite_db_create(db.c_str(), "CREATE TABLE a (x); INSERT INTO a VALUES (1);",
                                "Mail Handlers"));
  ASSERT_EQ(0, sqlite_db_create(db.c_str(), "INSERT INTO a VALUES (2);", "Mail Handlers"));
  EXPECT_EQ((Rows{{"1"}, {"2"}}), QueryRows(db, "SELECT x FROM a ORDER BY x"));

  EXPECT_EQ(-1, sqlite_db_create(db.c_str(), "CREATE TABLE a (x);", "Mail Handlers"));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to re-create Mail Handlers database: table a "
                                        "already exists"));
}

TEST(FeatureLineTest, NamesTheMailServer) {
  const struct {
    const char* line;
    int style;
    const char* logged;  // informational note, if any
  } cases[] = {
      {"$features['SMTP_Server'] = \"QMAIL\";", 0, nullptr},
      // Only the value's length minus one counts.
      {"$features['SMTP_Server'] = 'postfiX';", 1, nullptr},
      {"$features['SMTP_Server'] = 'exim';", -1, "Unknown server style \"exi\", skipped"},
      {"$features['SMTP_Server'] = 'qmail", -1,
       "Unparseable line \"$features['SMTP_Server'] = 'qmail\", skipped"},
      {"$features['IMAP_Server'] = 'qmail';", -1, nullptr},
      {" $features['SMTP_Server'] = 'qmail';", -1, nullptr},
  };
  for (const auto& c : cases) {
    LogRecorder log;
    EXPECT_EQ(c.style, mailAuthDBStyleFromFeatureLine(c.line)) << c.line;
    if (c.logged)
      EXPECT_TRUE(LogRecorder::Has(LOG_INFO, c.logged)) << c.line;
    else
      EXPECT_TRUE(LogRecorder::lines().empty()) << c.line;
  }
}

// No server program is installed here, so there is nothing to decide by.
TEST(DetectStyleTest, WithoutTheServerProgramNothingIsDecided) {
  LogRecorder log;
  EXPECT_EQ(-1, mailAuthDBDetectStyle());
  EXPECT_TRUE(LogRecorder::Has(
      LOG_INFO, "Unable to determine mail server type from ``dravnik-server --features''"));
}

}  // namespace
