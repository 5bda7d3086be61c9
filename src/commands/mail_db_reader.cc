#include "commands/mail_db_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <new>
#include <stdexcept>

#include "commands/command_options.h"
#include "commands/mail_db_options.h"
#include "maildata/session_mail_data.h"
#include "util/idn.h"
#include "util/strings.h"

namespace tavix {
namespace mail {
namespace dravnik_commands {

namespace {

char const kReadFailure[] =
    "Failed to read and parse session mail data from STDIN. See mail log for details.";

void appendUnique(std::vector<std::string>& list, std::string const& name) {
  if (std::find(list.begin(), list.end(), name) == list.end())
    list.push_back(name);
}

// The session object points into these names for the rest of the run, long
// after the processor that held them is gone. A deque never moves what it
// already holds.
char* keep(std::string const& name) {
  static std::deque<std::string> kept;
  kept.push_back(name);
  return &kept.back()[0];
}

// Arrays of the session object are released with free(), so they are made
// with malloc().
template <typename T>
T* allocateArray(size_t count) {
  if (count == 0)
    return nullptr;
  void* memory = std::calloc(count, sizeof(T));
  if (memory == nullptr)
    throw std::bad_alloc();
  return static_cast<T*>(memory);
}

sj_string_array keptArray(std::vector<std::string> const& names) {
  sj_string_array array;
  array.count = array.capacity = names.size();
  array.values = allocateArray<char*>(names.size());
  for (size_t i = 0; i < names.size(); ++i)
    array.values[i] = keep(names[i]);
  return array;
}

// The names of the mail data options reach qmail's files and the mail
// tree as lines and paths, so each passes the check the command's own names
// pass; a refused one stops the command before anything is changed. Shown
// quoted: the value may hold a line break or nothing at all.
[[noreturn]] void refuse(char const* option, std::string const& name, char const* text) {
  throw std::runtime_error(std::string(option) + ": " + tavix::json_quote(name) + text);
}

std::string checkedDomainName(char const* option, std::string const& word) {
  std::string name;
  try {
    if (normalizeDomainName(word, &name))
      return name;
  } catch (tavix::idn::IdnaError const&) {
    name = word;
  }
  refuse(option, name, kBadDomainNameText);
}

std::string checkedMailname(char const* option, std::string const& word) {
  std::string name;
  if (!normalizeMailname(word, &name))
    refuse(option, name, kBadMailnameText);
  return name;
}

void readOrThrow(int probe) {
  if (read_session_mail_db_info(stdin, probe) != 0)
    throw std::runtime_error(kReadFailure);
}

}  // namespace

MailDbOptionsProcessor::MailDbOptionsProcessor(ProgramOptionsHelper const& helper)
    : defaultDomainQuota_(-1), waitStdin_(false), enough_(false) {
  auto const& vm = helper.variables();
  if (vm.count("domain-aliases")) {
    for (std::string const& alias : vm["domain-aliases"].as<MailDbDomainAliasesList>().aliases)
      appendUnique(domainAliases_, checkedDomainName("--domain-aliases", alias));
  }
  if (vm.count("mail-addresses")) {
    for (auto const& entry : vm["mail-addresses"].as<MailDbMailAddressesList>().mails) {
      // Names equal but for case are one name; the later one's aliases win,
      // as for a name given twice.
      std::vector<std::string>& aliases =
          mails_[checkedMailname("--mail-addresses", entry.first)];
      aliases.clear();
      for (std::string const& alias : entry.second)
        appendUnique(aliases, checkedMailname("--mail-addresses", alias));
    }
  }
  if (vm.count("default-domain-quota"))
    defaultDomainQuota_ = vm["default-domain-quota"].as<long>();
  waitStdin_ = vm.count("wait-stdin") != 0;
  enough_ = vm.count("domain-aliases") || vm.count("mail-addresses") ||
            vm.count("default-domain-quota");
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withDomain(std::string const& domain) {
  domain_ = domain;
  return *this;
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withDomainAlias(std::string const& alias) {
  appendUnique(domainAliases_, alias);
  return *this;
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withMailname(std::string const& mailname) {
  currentMailname_ = mailname;
  mails_.insert({mailname, {}});  // an existing entry keeps its aliases
  return *this;
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withMailAlias(std::string const& alias) {
  if (currentMailname_.empty())
    throw std::runtime_error(
        "Programming error: withMailAlias() must be called after withMailname()");
  appendUnique(mails_[currentMailname_], alias);
  return *this;
}

bool MailDbOptionsProcessor::isEnough() const {
  return !domain_.empty() && enough_;
}

MailDbStdinReader::MailDbStdinReader(MailDbOptionsProcessor const& processor, bool dataNeeded)
    : processor_(processor) {
  if (processor.waitStdin()) {
    // The caller promised a document: command-line data is ignored.
    readOrThrow(0);
    return;
  }
  if (!dataNeeded)
    return;
  if (processor.isEnough()) {
    fillSessionMailDbInfo(processor);
    return;
  }
  int const probed = read_session_mail_db_info(stdin, 1);
  if (probed == 0)
    return;
  if (probed != -1)
    throw std::runtime_error(kReadFailure);
  // Nothing is waiting on standard input, as on a terminal: say what is
  // expected, then wait for it.
  std::cout << "This command requires additional data to be passed via STDIN in JSON format.\n"
            << "To get help on expected input data format call this utility with "
               "--help-stdin option.\n"
            << "Type ^D (send EOF) to abort." << std::endl;
  readOrThrow(0);
}

void MailDbStdinReader::fillSessionMailDbInfo(MailDbOptionsProcessor const& processor) {
  mail_db_data_t* info = get_session_mail_db_info();
  if (info == nullptr)
    throw std::runtime_error(
        "Failed to create or obtain session mail data object. Maybe out of memory.");
  info->name = keep(processor.domain());
  info->dom_aliases = keptArray(processor.domainAliases());
  info->mbox_quota = processor.defaultDomainQuota();

  MailDbOptionsProcessor::Mails const& mails = processor.mails();
  info->mails.count = info->mails.capacity = mails.size();
  info->mails.values = allocateArray<mail_db_mail_t>(mails.size());
  size_t i = 0;
  for (auto const& entry : mails) {
    mail_db_mail_t& mail = info->mails.values[i++];
    mail.name = keep(entry.first);
    mail.aliases = keptArray(entry.second);
    mail.mbox_quota = -1;  // no personal quota: the domain default applies
  }
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
