// The audit's rules: what the commands leave on a server, compared across
// qmail's files, the mail tree and the two databases. Every state that a
// sequence of dravnik runs can leave is clean; anything else is a finding.
#ifndef DRAVNIK_AUDIT_CHECKS_H_
#define DRAVNIK_AUDIT_CHECKS_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "audit/databases.h"
#include "audit/finding.h"
#include "audit/mail_tree.h"
#include "audit/qmail_files.h"

namespace tavix {
namespace audit {

struct ServerState {
  std::string root;  // of the mail names
  uid_t popuser_uid = 0;
  gid_t popuser_gid = 0;
  QmailFiles files;
  MailTree tree;
  Databases databases;
  bool sizes = false;
  int64_t drift_bytes = 1 << 20;
  int lock_wait_ms = 0;
};

std::vector<Finding> Check(const ServerState& state);

// How big the server is, as qmail's files and the mail tree say.
struct Census {
  size_t domains = 0;    // routed to themselves, or with users/assign lines
  size_t mailnames = 0;  // mail name directories that "=" lines point at
  size_t mailboxes = 0;  // of those, the ones whose .qmail delivers to Maildir
};
Census TakeCensus(const ServerState& state);

// Whether a mail name's .qmail has a line delivering to its Maildir.
bool DeliversToMaildir(const Mailbox& mailbox);

// A home under the mail names root `root`, split into its domain and mail
// name directories ("" where the home ends before).
struct Home {
  bool under_root = false;
  std::string domain;
  std::string mailname;
};
Home SplitHome(const std::string& root, const std::string& home);

// What qmail's files say exists.
struct Inventory {
  std::set<std::string> active;                        // routed to themselves
  std::map<std::string, std::string> alias_of;         // domain alias -> domain
  std::set<std::string> known;                         // active, or with assign lines
  std::map<std::string, std::set<std::string>> homes;  // domain -> mail name dirs
  std::set<std::string> addresses;                     // "domain-mailname" of "=" lines
};
Inventory TakeInventory(const std::string& root, const QmailFiles& files);

// The usage counted in a maildirsize text and its limits; false when it is
// not what the delivery agent and the commands write.
struct MaildirsizeCount {
  bool header_ok = false;
  int64_t size_limit = 0;
  int64_t count_limit = 0;
  int64_t bytes = 0;
  int64_t messages = 0;
};
bool ParseMaildirsize(const std::string& text, MaildirsizeCount* count);

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_CHECKS_H_
