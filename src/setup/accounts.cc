#include "setup/accounts.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <ostream>

#include "qmail/paths.h"
#include "setup/setup.h"
#include "util/exec.h"
#include "util/unique_free.h"

namespace tavix {
namespace setup {

namespace {

// Where groupadd and useradd are installed.
const char kToolDir[] = "/usr/sbin/";

struct AccountSpec {
  bool is_group;
  const char* name;
};

// In the order of creation: useradd gives popuser a group of its own unless
// one exists already, so the group popuser is only ever made on its own on
// a host where the account was left without it.
const AccountSpec kAccounts[] = {
    {true, "nofiles"},
    {false, "popuser"},
    {true, "popuser"},
};

bool Exists(const AccountSpec& spec) {
  return spec.is_group ? getgrnam(spec.name) != nullptr : getpwnam(spec.name) != nullptr;
}

MissingAccount Describe(const AccountSpec& spec) {
  if (spec.is_group)
    return {std::string("group ") + spec.name, {"groupadd", "--system", spec.name}};
  std::vector<std::string> command = {"useradd", "--system"};
  if (getgrnam(spec.name))
    command.insert(command.end(), {"--gid", spec.name});
  else
    command.push_back("--user-group");
  command.insert(command.end(), {"--home-dir", tavix::qmail::kQmailRoot, "--no-create-home",
                                 "--shell", "/usr/sbin/nologin", spec.name});
  return {std::string("account ") + spec.name, command};
}

// The first line of what a failed command wrote, for a one-line report.
std::string FirstLine(const char* text) {
  std::string line = text ? text : "";
  line = line.substr(0, line.find('\n'));
  return line.empty() ? "no message" : line;
}

bool Run(const MissingAccount& account) {
  std::string path = kToolDir + account.command[0];
  std::vector<char*> argv;
  for (const std::string& arg : account.command)
    argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  char* out_text = nullptr;
  char* err_text = nullptr;
  int status = fork_execv_getouterr(&out_text, &err_text, path.c_str(), argv.data());
  unique_free<char> out(out_text);
  unique_free<char> err(err_text);
  if (status == 0)
    return true;
  Error("cannot create " + account.what + ": \"" + CommandLine(account) + "\" failed (" +
        (status < 0 ? "did not finish" : "exit status " + std::to_string(status)) +
        "): " + FirstLine(err ? err.get() : out.get()));
  return false;
}

}  // namespace

std::vector<MissingAccount> FindMissingAccounts() {
  std::vector<MissingAccount> missing;
  std::vector<std::string> users_missing;
  for (const AccountSpec& spec : kAccounts) {
    if (Exists(spec))
      continue;
    // useradd makes popuser's group with the account; naming both would
    // have the operator make the group twice.
    if (spec.is_group && std::find(users_missing.begin(), users_missing.end(), spec.name) !=
                             users_missing.end())
      continue;
    if (!spec.is_group)
      users_missing.push_back(spec.name);
    missing.push_back(Describe(spec));
  }
  return missing;
}

std::string CommandLine(const MissingAccount& account) {
  std::string line;
  for (const std::string& arg : account.command)
    line += (line.empty() ? "" : " ") + arg;
  return line;
}

bool CreateAccounts(std::ostream& done) {
  for (const AccountSpec& spec : kAccounts) {
    if (Exists(spec))
      continue;
    MissingAccount account = Describe(spec);
    if (!Run(account))
      return false;
    if (!Exists(spec)) {
      Error(account.what + " is still missing after \"" + CommandLine(account) + "\"");
      return false;
    }
    done << "created " << account.what << "\n";
    done.flush();
  }
  return true;
}

}  // namespace setup
}  // namespace tavix
