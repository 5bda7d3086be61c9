#include "main/dispatch.h"

#include <cxxabi.h>
#include <errno.h>
#include <string.h>

#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <typeinfo>

#include "commands/commands.h"
#include "commands/usage.h"
#include "mailauth/auth_db.h"
#include "qmail/lock.h"
#include "util/error_stream.h"
#include "util/exception.h"
#include "util/log.h"
#include "util/traceback.h"
#include "util/unique_free.h"

namespace cmd = tavix::mail::dravnik_commands;

namespace {

typedef int (*CommandFunction)(int argc, char** argv);

}  // namespace

int usageShortCmd(int, char**) {
  cmd::usageShort(0, std::cout);
}

int usageCommandsCmd(int, char**) {
  cmd::usageCommands(0, std::cout);
}

int usageLegacyCmd(int, char**) {
  cmd::usageLegacy(0, std::cout);
}

int usageStdinCmd(int, char**) {
  cmd::usageStdin(0, std::cout);
}

int do_main(int argc, char** argv) {
  if (argc < 2)
    cmd::wrongUsage("no command specified");
  std::string const word = argv[1];

  // Some command words differ from the functions behind them
  // ("--turn-on-domain" runs enableDomain); both names are public. Built
  // once: a batch runs a command per line.
  static std::map<std::string, CommandFunction> const commands = {
      {"--add-mailname", cmd::addMailname},
      {"--remove-mailname", cmd::removeMailname},
      {"--rename-mailname", cmd::renameMailname},
      {"--add-mailbox", cmd::addMailbox},
      {"--remove-mailbox", cmd::removeMailbox},
      {"--set-password", cmd::setPassword},
      {"--add-alias", cmd::addAlias},
      {"--remove-alias", cmd::removeAlias},
      {"--add-domain", cmd::addDomain},
      {"--remove-domain", cmd::removeDomain},
      {"--rename-domain", cmd::renameDomain},
      {"--turn-on-domain", cmd::enableDomain},
      {"--turn-off-domain", cmd::disableDomain},
      {"--add-domain-alias", cmd::addDomainAlias},
      {"--del-domain-alias", cmd::removeDomainAlias},
      {"--rename-domain-alias", cmd::renameDomainAlias},
      {"--get-mailbox-size", cmd::getMailboxSize},
      {"--set-mailbox-disk-quota", cmd::setMailboxDiskQuota},
      {"--set-domain-disk-quota", cmd::setDomainDiskQuota},
      {"-h", usageShortCmd},
      {"--help", usageShortCmd},
      {"--help-commands", usageCommandsCmd},
      {"--help-legacy", usageLegacyCmd},
      {"--help-stdin", usageStdinCmd},
  };

  auto const found = commands.find(word);
  if (found == commands.end())
    cmd::wrongUsage("invalid command " + word);

  // Every known command, help included, works on the qmail-style
  // authentication database.
  mailAuthDBSelectStyle(0);

  // A run that may change the mail setup holds its lock shared (see
  // qmail/lock.h); the help texts and the size report change nothing.
  bool const reads_only = word == "--get-mailbox-size" || word == "-h" ||
                          word.compare(0, 6, "--help") == 0;
  if (!reads_only && hold_setup_lock_shared() != 0)
    messlog2(1, 1, "Unable to lock the mail setup: %s", strerror(errno));

  return found->second(argc - 1, argv + 1);
}

int run_command(int argc, char** argv) {
  try {
    return do_main(argc, argv);
  } catch (tavix::CommandExit const& exit) {
    return exit.status;
  } catch (tavix::TavixUtilException const& e) {
    // Meant for the user: the control panel reads standard output, a person
    // at a terminal reads standard error.
    std::cout << e.what() << std::endl;
    std::cerr << e.what() << std::endl;
    return 1;
  } catch (std::exception const& e) {
    tavix::reportException<std::exception>(e);
    return 1;
  } catch (...) {
    tavix::reportUntypedException();
    return 2;
  }
}

namespace tavix {

template <class E>
void reportException(E const& e) {
  uerr << "Fatal error: ";

  char const* mangled = typeid(e).name();
  if (*mangled == '*')
    ++mangled;
  int status = 0;
  unique_free<char> const demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status));
  uerr << (demangled ? demangled.get() : mangled);

  // A null what() sets the stream's bad-bit, as any null string would.
  uerr << "(" << e.what() << ")" << std::endl;

  if (auto const* traceback = dynamic_cast<Traceback const*>(&e))
    uerr << *traceback;
}

template void reportException<std::exception>(std::exception const& e);

void reportUntypedException() {
  uerr << "UNSPECIFIED ERROR OCCURED" << std::endl;
}

}  // namespace tavix
