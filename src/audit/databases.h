// The rows of the authentication and handlers databases that name domains,
// mail names and addresses, read once for the audit.
#ifndef DRAVNIK_AUDIT_DATABASES_H_
#define DRAVNIK_AUDIT_DATABASES_H_

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tavix {
namespace audit {

struct Databases {
  std::set<std::string> auth_domains;
  std::set<std::pair<std::string, std::string>> auth_users;  // domain, mail name
  std::set<std::string> handler_addresses;  // of every row but the global ones
  std::vector<std::string> unreadable;      // "path: reason"
};

// Reads both databases at their configured paths; a database that is
// missing or refuses the queries goes to `unreadable`.
Databases ReadDatabases();

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_DATABASES_H_
