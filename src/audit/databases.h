// The rows of the authentication and handlers databases that name domains,
// mail names and addresses, read for the audit and the export: each
// database in one read transaction, so that a run changing it meanwhile is
// seen wholly or not at all.
#ifndef DRAVNIK_AUDIT_DATABASES_H_
#define DRAVNIK_AUDIT_DATABASES_H_

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tavix {
namespace audit {

// One row of the users table, with its domain's name and state. The
// password columns as stored: `encrypted` is the cipher text, `raw` the
// text stored as given (a crypt hash); `has_*` tells NULL from empty.
struct AuthUser {
  std::string domain;
  std::string name;
  bool has_encrypted = false;
  std::string encrypted;
  bool has_raw = false;
  std::string raw;
  long long status = 0;
};

struct Databases {
  std::set<std::string> auth_domains;
  std::map<std::string, long long> auth_domain_status;      // by domain
  std::set<std::pair<std::string, std::string>> auth_users;  // domain, mail name
  std::vector<AuthUser> auth_rows;                           // by domain, then name
  std::set<std::string> handler_addresses;  // of every row but the global ones
  bool global_handlers = false;             // any row of the global type
  std::vector<std::string> unreadable;      // "path: reason"
};

// Reads both databases at their configured paths; a database that is
// missing or refuses the queries goes to `unreadable`.
Databases ReadDatabases();

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_DATABASES_H_
