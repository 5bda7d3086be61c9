// dravnik-export: writes the mail setup of this server, or of some of its
// domains, as the dravnik-batch input that makes the same setup on another
// server, and names on standard error what no command can carry.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include <boost/program_options.hpp>

#include "audit/checks.h"
#include "export/export_plan.h"
#include "mailauth/auth_db.h"
#include "mailauth/cipher.h"
#include "qmail/domainkeys.h"
#include "qmail/paths.h"
#include "util/account.h"
#include "util/atomic_file.h"
#include "util/fs.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/unique_free.h"
#include "util/version.h"

namespace po = boost::program_options;
using namespace tavix;

namespace {

const char kUsage[] =
    "Usage: dravnik-export [--domain=DOMAIN]... [FILE|-] [-h|--help] [--version]\n"
    "\n"
    "Writes the mail setup of this server (or of the given domains, with their\n"
    "aliases) as JSON Lines for dravnik-batch, which rebuild it on an empty\n"
    "server prepared by dravnik-setup. The lines hold every password in clear:\n"
    "FILE is created mode 0600; an existing FILE must be root's and closed to\n"
    "group and others. Without FILE, or with -, standard output.\n"
    "What no command carries (mail content, handlers, DomainKeys, a custom\n"
    ".qmail-default, what dravnik-audit finds) is named on standard error.\n"
    "Exit status: 0 all carried, 1 written with omissions, 2 nothing written\n"
    "(the server could not be read, or the command line or FILE was refused).\n";

// Seconds to wait for each qmail file's lock before reading it without.
constexpr int kLockWaitMs = 10000;

void Say(const std::string& text) { std::cerr << "dravnik-export: " << text << "\n"; }

// An existing FILE is taken only as what the export would have made: a
// regular file of root's that group and others cannot use. A link is
// never followed, since whoever planted it would get the passwords.
bool OutputAllowed(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT)
      return true;
    Say("cannot look at " + path + ": " + strerror(errno));
    return false;
  }
  const char* why = S_ISLNK(st.st_mode)   ? "is a symbolic link"
                    : !S_ISREG(st.st_mode) ? "is not a regular file"
                    : st.st_uid != 0       ? "is not root's"
                    : (st.st_mode & 077)   ? "is open to its group or others"
                                           : nullptr;
  if (why)
    Say("refused: " + path + " " + why + "; the export holds passwords in clear");
  return why == nullptr;
}

bool Write(const std::string& path, const std::string& text) {
  if (path == "-") {
    if (write_all(STDOUT_FILENO, text))
      return true;
    Say(std::string("cannot write to standard output: ") + strerror(errno));
    return false;
  }
  // Written beside FILE and renamed over it: FILE is never half written,
  // and a link planted meanwhile at its name is replaced, not followed.
  AtomicFile file;
  if (!file.create(path, name_beside(path, ".XXXXXX"), AtomicFile::Temp::kUnique, 0600) ||
      !file.set_owner(0, 0) || !file.set_mode(0600) || !file.write(text) || !file.commit()) {
    Say("cannot write " + path + ": " + strerror(errno));
    return false;
  }
  return true;
}

audit::ServerState Read() {
  audit::ServerState state;
  state.root = qmail::mailnames_root();
  state.popuser_uid = tavix_ugid("popuser", 0);
  state.popuser_gid = tavix_ugid("popuser", 1);
  state.lock_wait_ms = kLockWaitMs;
  state.files = audit::ReadQmailFiles(state.lock_wait_ms);
  state.tree = audit::WalkMailTree(state.root, false, true);
  state.databases = audit::ReadDatabases();
  return state;
}

exporter::Lookups ServerLookups() {
  exporter::Lookups lookups;
  lookups.decrypt = [](const std::string& address, const std::string& stored,
                       std::string* clear) {
    unique_free<char> text(mailPasswdCipherOp(stored.c_str(), 0, address.c_str(), nullptr));
    if (!text)
      return false;
    *clear = text.get();
    return true;
  };
  lookups.has_domainkeys = [](const std::string& domain) {
    return domainkeys_enabled(domain.c_str()) != 0;
  };
  return lookups;
}

// How to bring the mail itself, which the batch does not carry.
void MailContentNote(const exporter::Plan& plan, bool everything, const std::string& root) {
  if (plan.mail_domains.empty())
    return;
  char host[256];
  if (gethostname(host, sizeof host) != 0)
    snprintf(host, sizeof host, "%s", "THIS-SERVER");
  host[sizeof host - 1] = '\0';
  std::cerr << "dravnik-export: note: the mail itself is not in the batch. Once the batch is "
               "applied, bring each domain's directory from this server onto the new one, as "
               "root there:\n";
  if (everything) {
    std::cerr << "  rsync -aHAX root@" << host << ":" << root << "/ " << root << "/\n";
    return;
  }
  for (const std::string& domain : plan.mail_domains)
    std::cerr << "  rsync -aHAX root@" << host << ":" << root << "/" << domain << "/ " << root
              << "/" << domain << "/\n";
}

int Run(const std::vector<std::string>& domains, const std::string& output) {
  if (geteuid() != 0) {
    Say("must be run as root");
    return 2;
  }
  if (tavix_ugid("popuser", 0) == 0) {
    Say("the account popuser is missing; run dravnik-setup");
    return 2;
  }
  std::vector<std::string> selected;
  for (const std::string& domain : domains) {
    std::string ascii;
    try {
      ascii = idn::toAscii(domain);
    } catch (const idn::IdnaError& e) {
      Say("--domain=" + domain + ": " + e.what());
      return 2;
    }
    std::transform(ascii.begin(), ascii.end(), ascii.begin(),
                   [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; });
    selected.push_back(ascii);
  }
  if (output != "-" && !OutputAllowed(output))
    return 2;

  audit::ServerState state = Read();
  bool unreadable = false;
  for (const auto* list : {&state.files.unreadable, &state.databases.unreadable})
    for (const std::string& what : *list) {
      Say("cannot read " + what);
      unreadable = true;
    }
  if (unreadable) {
    Say("nothing exported");
    return 2;
  }
  exporter::Plan plan =
      exporter::MakePlan(state, audit::Check(state), selected, ServerLookups());
  for (const std::string& what : state.tree.unreadable)
    plan.omissions.push_back("not carried: what lies in " + what);

  std::string text;
  for (const exporter::BatchLine& line : plan.lines)
    text += exporter::ToJson(line) + "\n";
  if (!Write(output, text))
    return 2;
  for (const std::string& what : plan.omissions)
    Say(what);
  MailContentNote(plan, selected.empty(), state.root);
  if (!plan.omissions.empty())
    Say(std::to_string(plan.omissions.size()) + " omissions; the rest is exported");
  return plan.omissions.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  static char name[] = "dravnik-export";
  PROGNAME = name;
  // Library reports go to standard error: standard output may be the export.
  tavix_log_init("stderr", 6, 16, 0, name);
  use_program_umask();
  std::vector<std::string> domains;
  std::string output = "-";
  po::options_description described("Options");
  described.add_options()
      ("domain", po::value<std::vector<std::string>>(&domains),
       "export only this domain with its aliases; may be repeated")
      ("help,h", "show this help")
      ("version", "print the version and exit");
  po::options_description all;
  all.add(described).add_options()("output", po::value<std::string>(&output));
  po::positional_options_description positional;
  positional.add("output", 1);
  po::variables_map given;
  try {
    po::store(po::command_line_parser(argc, argv).options(all).positional(positional).run(),
              given);
    po::notify(given);
  } catch (const po::error& e) {
    std::cerr << "dravnik-export: " << e.what() << "; see dravnik-export --help\n";
    return 2;
  }
  if (given.count("help")) {
    std::cout << kUsage << "\n" << described;
    return 0;
  }
  if (given.count("version")) {
    std::cout << name << " " << kVersion << "\n";
    return 0;
  }
  if (output.empty()) {
    std::cerr << "dravnik-export: FILE cannot be empty; see dravnik-export --help\n";
    return 2;
  }
  mailAuthDBSelectStyle(0);
  try {
    return Run(domains, output);
  } catch (const std::exception& e) {
    std::cerr << "dravnik-export: " << e.what() << "\n";
    return 2;
  }
}
