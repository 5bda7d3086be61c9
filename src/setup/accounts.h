// The system accounts that dravnik's files belong to: the group "nofiles",
// through which the mail server reads the authentication database, and the
// account "popuser" with its own group, which owns the mailboxes and reads
// the handlers database.
#ifndef DRAVNIK_SETUP_ACCOUNTS_H_
#define DRAVNIK_SETUP_ACCOUNTS_H_

#include <string>
#include <vector>

namespace tavix {
namespace setup {

// An account that does not exist yet.
struct MissingAccount {
  std::string what;                  // "group nofiles", "account popuser"
  std::vector<std::string> command;  // the command that creates it
};

// The missing accounts in the order they are to be created.
std::vector<MissingAccount> FindMissingAccounts();

// The command as an operator would type it.
std::string CommandLine(const MissingAccount& account);

// Creates the missing accounts one by one, telling `done` about each. False
// after reporting the first that cannot be created.
bool CreateAccounts(std::ostream& done);

}  // namespace setup
}  // namespace tavix

#endif  // DRAVNIK_SETUP_ACCOUNTS_H_
