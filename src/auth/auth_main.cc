// dravnik-auth: the checkpassword program of the mailboxes dravnik makes.
//
//   dravnik-auth PROGRAM [ARGS...]    with "address\0password\0timestamp\0"
//                                     on descriptor 3
//
// Exit status 1 refuses the login, 111 is a temporary failure, 2 misuse; on
// success PROGRAM runs in its place with USER and HOME set. For Dovecot
// (which sets ORIG_UID, SERVICE or AUTHORIZED) the mail user's ids and
// mail location go back through EXTRA; for qmail's POP3 server the
// program changes to the mailbox and to popuser's ids itself.
#include <errno.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "auth/login_check.h"
#include "auth/request.h"
#include "mailauth/auth_db.h"
#include "mailauth/sqlite_db.h"
#include "util/account.h"
#include "util/log.h"
#include "util/version.h"

namespace {

using tavix::auth::Answer;
using tavix::auth::Request;
using tavix::auth::RequestStatus;
using tavix::auth::Verdict;

constexpr int kRefused = 1;
constexpr int kMisuse = 2;
constexpr int kTemporary = 111;
// A mail server waits for the answer: a database that stays locked longer
// than this (a long batch run) is a temporary failure, not a hang.
constexpr long kBusyLimitMs = 2000;

const char kUsage[] =
    "Usage: dravnik-auth PROGRAM [ARGS...]\n"
    "       dravnik-auth -h|--help|--version\n"
    "Reads \"address\\0password\\0timestamp\\0\" from descriptor 3 and runs PROGRAM\n"
    "when the password opens the address's mailbox.\n"
    "Exit status: 1 refused, 111 temporary failure, 2 misuse.\n";

int Fail(int status, const char* format, const char* detail) {
  tavix_log(status == kTemporary ? LOG_ERR : LOG_WARNING, format, detail);
  return status;
}

bool SetEnv(const char* name, const std::string& value) {
  if (setenv(name, value.c_str(), 1) == 0)
    return true;
  tavix_log(LOG_ERR, "Unable to set %s: %s", name, strerror(errno));
  return false;
}

// Dovecot's extension of the interface: the user's ids and mail location
// go back as extra fields instead of a change of ids, and a user look-up
// (AUTHORIZED=1) is answered by saying AUTHORIZED=2.
bool SetDovecotFields(const Answer& answer, uid_t uid, gid_t gid, bool vouched) {
  return SetEnv("userdb_uid", std::to_string(uid)) && SetEnv("userdb_gid", std::to_string(gid)) &&
         SetEnv("userdb_mail", "maildir:" + answer.home + "/Maildir") &&
         SetEnv("EXTRA", "userdb_uid userdb_gid userdb_mail") &&
         (!vouched || SetEnv("AUTHORIZED", "2"));
}

// What qmail's POP3 server expects of the interface: the program starts in
// the mailbox, with the mailbox owner's ids.
bool BecomeMailboxOwner(const Answer& answer, uid_t uid, gid_t gid) {
  if (chdir(answer.home.c_str()) != 0) {
    tavix_log(LOG_ERR, "Unable to chdir %s: %s", answer.home.c_str(), strerror(errno));
    return false;
  }
  if (setgroups(1, &gid) != 0 || setgid(gid) != 0 || setuid(uid) != 0) {
    tavix_log(LOG_ERR, "Unable to change to popuser's ids: %s", strerror(errno));
    return false;
  }
  return true;
}

int Run(int argc, char** argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 2 && strcmp(argv[1], "--version") == 0) {
    printf("dravnik-auth %s\n", tavix::kVersion);
    return 0;
  }
  if (argc < 2) {
    fputs(kUsage, stderr);
    return kMisuse;
  }

  Request request;
  RequestStatus status = tavix::auth::ReadRequest(3, &request);
  if (status == RequestStatus::kNoDescriptor)
    return Fail(kMisuse, "%s", "Descriptor 3 with the login is not open");
  if (status == RequestStatus::kReadError)
    return Fail(kTemporary, "Unable to read the login from descriptor 3: %s", strerror(errno));
  if (status == RequestStatus::kTooLong)
    return Fail(kMisuse, "%s", "The login on descriptor 3 is longer than 512 bytes");
  if (status == RequestStatus::kMalformed)
    return Fail(kMisuse, "%s", "The login on descriptor 3 lacks its terminating NUL bytes");
  close(3);

  const char* authorized = getenv("AUTHORIZED");
  bool vouched = authorized != nullptr && strcmp(authorized, "1") == 0;
  bool dovecot = authorized != nullptr || getenv("ORIG_UID") != nullptr ||
                 getenv("SERVICE") != nullptr;
  Answer answer = tavix::auth::CheckLogin(request.login, vouched ? nullptr : &request.password);
  // The program run next gets none of the password: not in its memory.
  request.password.assign("", 0);
  if (answer.verdict == Verdict::kRefused)
    return kRefused;
  if (answer.verdict == Verdict::kTemporary)
    return kTemporary;

  uid_t uid = 0;
  gid_t gid = 0;
  if (!tavix_account_ids("popuser", &uid, &gid))
    return Fail(kTemporary, "%s", "Unable to define UID or GID for user popuser");
  if (!SetEnv("USER", answer.address) || !SetEnv("HOME", answer.home))
    return kTemporary;
  if (dovecot ? !SetDovecotFields(answer, uid, gid, vouched)
              : !BecomeMailboxOwner(answer, uid, gid))
    return kTemporary;
  execvp(argv[1], argv + 1);
  tavix_log(LOG_ERR, "Unable to run %s: %s", argv[1], strerror(errno));
  return kTemporary;
}

}  // namespace

int main(int argc, char** argv) {
  // A core dump would hold the password; so would a debugger attached by a
  // user of the same ids.
  tavix_log_init(nullptr, 6, LOG_MAIL, LOG_PERROR, "dravnik-auth");
  if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
    tavix_log(LOG_ERR, "Unable to keep the password out of core dumps: %s", strerror(errno));
    return kTemporary;
  }
  // A login waits for this program, once per login. OpenSSL is asked for
  // no more than the one cipher and digest it is used for: not the system's
  // configuration file (which this program has no use for), not the tables
  // of every legacy algorithm name, and not its error texts (nothing here
  // prints them; loading them on the first error, the padding check of a
  // decoy decryption, also made an unknown address slower than a known one).
  if (OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
                              OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS,
                          nullptr) != 1) {
    tavix_log(LOG_ERR, "%s", "Unable to initialise OpenSSL");
    return kTemporary;
  }
  mailAuthDBSelectStyle(0);
  tavix::sqlite::limit_busy_wait(kBusyLimitMs);
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    tavix_log(LOG_ERR, "Internal error: %s", e.what());
    return kTemporary;
  }
}
