// The audit's rules, shared by the files that hold them: one object reads
// the state once, indexes what the qmail files say exists, and adds a
// finding for each disagreement. Not part of the library's interface.
#ifndef DRAVNIK_AUDIT_CHECKER_H_
#define DRAVNIK_AUDIT_CHECKER_H_

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "audit/checks.h"

namespace tavix {
namespace audit {

class Checker {
 public:
  explicit Checker(const ServerState& state) : s_(state), files_(state.files) {}

  std::vector<Finding> Run();

 private:
  Finding& Add(const std::string& kind, const std::string& domain, const std::string& path,
               const std::string& detail);
  // owner-or-mode when `entry` exists and differs from uid:gid and mode.
  void Ownership(const Entry& entry, const std::string& path, const std::string& domain,
                 const std::string& mailname, uid_t uid, gid_t gid, mode_t mode);
  Home SplitHome(const std::string& home) const { return audit::SplitHome(s_.root, home); }
  const Mailbox* FindMailbox(const std::string& domain, const std::string& mailname) const;
  // A domain as the databases name it (the domain or one of its aliases),
  // mapped to the domain whose directory holds its mail; "" when none.
  std::string Resolve(const std::string& name) const;

  // Which domains the files know, and the addresses that exist.
  void Index();

  // checks.cc
  void ControlFiles();  // rcpthosts and virtualdomains, alias-to-missing-domain
  void RootFile(const std::string& path);
  void Assign();        // assign-malformed, cdb-outdated
  void Wildcards();     // missing-wildcard, stale-wildcard, missing-home of domains
  void MailNames();     // missing-home, mailname-incomplete
  void Leftovers();     // leftover-temporary, stale-lock

  // tree_checks.cc: orphan-directory, owner-or-mode, symlink-in-tree and the
  // maildirsize kinds.
  void Tree();
  void Quota(const std::string& domain, const std::string& mailname, const std::string& maildir,
             const Mailbox& mailbox);

  // db_checks.cc
  void AuthRecords();  // auth-orphan, auth-missing
  void Handlers();     // handler-orphan

  const ServerState& s_;
  const QmailFiles& files_;
  Inventory inventory_;
  std::set<std::string>& active_ = inventory_.active;
  std::map<std::string, std::string>& alias_of_ = inventory_.alias_of;
  std::set<std::string>& known_ = inventory_.known;
  std::map<std::string, std::set<std::string>>& homes_ = inventory_.homes;
  std::set<std::string>& addresses_ = inventory_.addresses;
  std::vector<Finding> findings_;
};

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_CHECKER_H_
