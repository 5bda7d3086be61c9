// What the audit found, what may be done about it, and how it is shown:
// one line per finding grouped by domain with a summary, or one JSON object
// per line for the panel and scripts.
#ifndef DRAVNIK_AUDIT_FINDING_H_
#define DRAVNIK_AUDIT_FINDING_H_

#include <sys/types.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace tavix {
namespace audit {

// How a finding can be set right without losing anything; kNone leaves it
// to the operator (orphan directories, links, missing homes hold or point
// at mail that only a person can judge).
enum class Fix {
  kNone,
  kCompileAssign,     // run qmail-newu
  kRemoveTemporary,   // `path`, under the lock of `target`
  kOwnerMode,         // give `path` uid:gid and `mode`
  kRecount,           // rewrite `path` (a Maildir) with `size_limit`/`count_limit`
  kDropAssignLine,    // take `line` out of users/assign
  kAddAssignLine,     // put `line` at the top of users/assign
  kRemoveAuthUser,    // mailname@domain from the authentication database
  kRemoveAuthDomain,  // domain from the authentication database
  kRemoveHandlers,    // every handler row of the address `target`
};

// Every kind of finding, in the order of dravnik-audit(8). Counts by kind
// (the metrics) list them all, so a kind must be here to be reported.
inline constexpr const char* kFindingKinds[] = {
    "rcpthosts-without-virtualdomains",
    "virtualdomains-without-rcpthosts",
    "alias-to-missing-domain",
    "missing-wildcard",
    "stale-wildcard",
    "missing-home",
    "mailname-incomplete",
    "orphan-directory",
    "assign-malformed",
    "cdb-outdated",
    "owner-or-mode",
    "symlink-in-tree",
    "maildirsize-malformed",
    "maildirsize-drift",
    "auth-orphan",
    "auth-missing",
    "handler-orphan",
    "leftover-temporary",
    "stale-lock",
};

bool IsFindingKind(const std::string& kind);

struct Finding {
  std::string kind;
  std::string domain;    // empty: the finding belongs to the server as a whole
  std::string mailname;  // empty when it is not about one mail name
  std::string path;
  std::string detail;

  Fix fix = Fix::kNone;
  std::string line;    // kDropAssignLine, kAddAssignLine
  std::string target;  // kRemoveTemporary (file whose lock guards it), kRemoveHandlers
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;
  int64_t size_limit = 0;
  int64_t count_limit = 0;
};

// "text" of the report: findings grouped by domain (server-wide ones first),
// each on one line, then one summary line.
void PrintText(const std::vector<Finding>& findings, std::ostream& out);

// One JSON object per finding and line; empty fields are left out. A
// non-empty `repair` is added as the member "repair".
void PrintJson(const Finding& finding, const std::string& repair, std::ostream& out);

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_FINDING_H_
