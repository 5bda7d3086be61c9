// dravnik-setup: prepares a host for dravnik, or with --check only reports
// what is missing or wrong. Safe to run again at any time: it changes only
// what is missing or wrong, and replaces an existing database or key only
// when told to with --force.
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

#include <boost/program_options.hpp>

#include "setup/accounts.h"
#include "setup/host_items.h"
#include "setup/setup.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/version.h"

namespace po = boost::program_options;
using namespace tavix::setup;

namespace {

const char kUsage[] =
    "Usage: dravnik-setup [--check] [--force] [--create-accounts] [-h|--help] [--version]\n"
    "\n"
    "Prepares this host for dravnik: the lock directory, the qmail files it edits,\n"
    "the mail names root, the authentication database with its key and the\n"
    "handlers database, with their owners and modes. Safe to run again at any\n"
    "time: only what is missing or wrong is changed.\n";

struct Options {
  bool check;
  bool force;
  bool create_accounts;
};

po::options_description Descriptions() {
  po::options_description options("Options");
  options.add_options()
      ("check", "report every problem, one line each, and change nothing; "
                "exit status 0 only when all is in order")
      ("force", "re-create the authentication database, its key and the handlers "
                "database even when they exist, keeping the old files beside them; "
                "every stored password becomes unreadable")
      ("create-accounts", "create the group nofiles and the account popuser when missing")
      ("help,h", "show this help")
      ("version", "print the version and exit");
  return options;
}

int RunCheck() {
  int problems = 0;
  for (const MissingAccount& account : FindMissingAccounts()) {
    std::cout << account.what << ": missing (create it with \"" << CommandLine(account)
              << "\")\n";
    ++problems;
  }
  problems += Check(HostItems(), std::cout);
  return problems == 0 ? 0 : 1;
}

// The accounts must exist before anything is given to them.
bool EnsureAccounts(bool create) {
  std::vector<MissingAccount> missing = FindMissingAccounts();
  if (missing.empty())
    return true;
  if (create)
    return CreateAccounts(std::cout);
  for (const MissingAccount& account : missing)
    Error(account.what + " is missing; create it with \"" + CommandLine(account) +
          "\" or run dravnik-setup --create-accounts");
  return false;
}

int RunPrepare(const Options& options) {
  if (geteuid() != 0) {
    Error("must be run as root: it gives system files their owners");
    return 1;
  }
  if (!EnsureAccounts(options.create_accounts))
    return 1;
  PrepareOptions prepare;
  prepare.force = options.force;
  prepare.stamp = Timestamp();
  if (options.force)
    Warning("--force: the authentication database, its key and the handlers database are "
            "made anew (the old files are kept as <file>.old-" + prepare.stamp +
            "); a new key makes every stored password unreadable: set each password again "
            "with dravnik --set-password");
  return Prepare(HostItems(), prepare, std::cout) ? 0 : 1;
}

int Run(int argc, char** argv) {
  po::options_description descriptions = Descriptions();
  po::variables_map given;
  try {
    // No positional arguments: a stray word is an error, not ignored.
    po::store(po::command_line_parser(argc, argv)
                  .options(descriptions)
                  .positional(po::positional_options_description())
                  .run(),
              given);
    po::notify(given);
  } catch (const po::error& e) {
    Error(std::string(e.what()) + "; see dravnik-setup --help");
    return 1;
  }
  if (given.count("help")) {
    std::cout << kUsage << "\n" << descriptions;
    return 0;
  }
  if (given.count("version")) {
    std::cout << kProgram << " " << tavix::kVersion << "\n";
    return 0;
  }
  Options options = {given.count("check") > 0, given.count("force") > 0,
                     given.count("create-accounts") > 0};
  if (options.check && (options.force || options.create_accounts)) {
    Error("--check changes nothing and cannot be combined with --force or --create-accounts");
    return 1;
  }
  return options.check ? RunCheck() : RunPrepare(options);
}

}  // namespace

int main(int argc, char** argv) {
  // Library reports go to standard error only: standard output carries the
  // findings of --check and the list of changes.
  static char name[] = "dravnik-setup";
  PROGNAME = name;
  tavix_log_init("stderr", 6, 16, 0, name);
  // What is created here is read by the mail system's own accounts, whatever
  // the umask of the operator's shell.
  use_program_umask();
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    Error(e.what());
    return 1;
  }
}
