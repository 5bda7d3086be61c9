#include "export/export_plan.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include "qmail/delivery.h"
#include "qmail/nonexisting_mail.h"
#include "util/names.h"
#include "util/strings.h"

namespace tavix {
namespace exporter {

using audit::AuthUser;
using audit::Finding;
using audit::Inventory;
using audit::Mailbox;
using audit::ServerState;

namespace {

using Names = std::vector<std::string>;

std::string JsonArray(const Names& names) {
  std::string out = "[";
  for (const std::string& name : names)
    out += (out.size() > 1 ? ", " : "") + json_quote(name);
  return out + "]";
}

// A mail name of a domain as users/assign and the tree show it.
struct MailName {
  std::string name;
  Names aliases;  // sorted
  const Mailbox* box = nullptr;
  bool mailbox = false;    // its .qmail delivers into the Maildir
  long long quota = -1;    // for --disk-quota
};

// The session mail data document of domain `domain` with `dom_aliases` and
// `mails` (the mail names with their aliases); no quota, so that a command
// that falls back to the domain's default makes the mailbox unlimited.
std::string Document(const std::string& domain, const Names& dom_aliases,
                     const std::vector<const MailName*>& mails) {
  std::string out = "{\"domain\": {\"name\": " + json_quote(domain) +
                    ", \"dom_aliases\": " + JsonArray(dom_aliases) +
                    ", \"maillists\": [], \"mails\": [";
  const char* separator = "";
  for (const MailName* mail : mails) {
    out += separator;
    out += "{\"name\": " + json_quote(mail->name) + ", \"aliases\": " + JsonArray(mail->aliases) +
           "}";
    separator = ", ";
  }
  return out + "]}}";
}

// A password as a command gives it: the clear text, or the stored text of
// a raw (crypt hash) record.
struct Password {
  bool usable = false;
  bool raw = false;
  std::string text;
  bool operator==(const Password& other) const {
    return usable == other.usable && raw == other.raw && text == other.text;
  }
};

class Planner {
 public:
  Planner(const ServerState& state, const std::vector<Finding>& findings, const Names& selected,
          const Lookups& lookups, Plan* plan)
      : s_(state),
        findings_(findings),
        selected_(selected),
        lookups_(lookups),
        plan_(plan),
        inventory_(audit::TakeInventory(state.root, state.files)) {
    for (const auto& alias : inventory_.alias_of)
      aliases_[alias.second].push_back(alias.first);  // sorted: the map is
    for (const AuthUser& row : s_.databases.auth_rows)
      rows_[{row.domain, row.name}] = &row;
    // Each domain's mail name lines, in the file's order: one pass over a
    // file that holds a line for every mail name and alias of the server.
    for (const audit::AssignLine& line : s_.files.assign) {
      if (line.type != '=')
        continue;
      audit::Home home = audit::SplitHome(s_.root, line.home);
      if (home.under_root && !home.mailname.empty())
        assign_by_domain_[home.domain].push_back({&line, home.mailname});
    }
  }

  void Run() {
    Names domains;
    if (selected_.empty()) {
      for (const std::string& domain : inventory_.known)
        if (Exportable(domain))
          domains.push_back(domain);
    } else {
      std::set<std::string> seen;
      for (const std::string& domain : selected_)
        if (seen.insert(domain).second && Selectable(domain))
          domains.push_back(domain);
    }
    for (const std::string& domain : domains)
      Domain(domain);
    Findings();
    if (selected_.empty() && s_.databases.global_handlers)
      Omit("the global mail handlers are not carried");
  }

 private:
  void Omit(const std::string& what) { plan_->omissions.push_back(what); }

  bool Exportable(const std::string& domain) {
    if (!s_.tree.domains.count(domain))
      return false;  // the audit names the missing directory
    if (!is_domain_name_valid(domain.c_str())) {
      Omit(domain + ": not carried: no command takes this domain name");
      return false;
    }
    return true;
  }

  bool Selectable(const std::string& domain) {
    if (inventory_.known.count(domain)) {
      if (s_.tree.domains.count(domain))
        return Exportable(domain);
      Omit(domain + ": not carried: its directory " + s_.root + "/" + domain + " is missing");
      return false;
    }
    auto alias = inventory_.alias_of.find(domain);
    if (alias != inventory_.alias_of.end())
      Omit(domain + ": not carried: a domain alias of " + alias->second +
           ", which --domain must name");
    else
      Omit(domain + ": not carried: no such mail domain on this server");
    return false;
  }

  const Names& AliasesOf(const std::string& domain) {
    static const Names kNone;
    auto found = aliases_.find(domain);
    return found == aliases_.end() ? kNone : found->second;
  }

  // The mail names of `domain` with their aliases, by name.
  std::map<std::string, MailName> MailNames(const std::string& domain) {
    std::map<std::string, MailName> names;
    std::map<std::string, Names> aliases;  // by mail name directory
    const auto& dir = s_.tree.domains.at(domain);
    std::string prefix = domain + "-";
    static const std::vector<HomeLine> kNone;
    auto lines = assign_by_domain_.find(domain);
    for (const HomeLine& home_line : lines == assign_by_domain_.end() ? kNone : lines->second) {
      const audit::AssignLine& line = *home_line.line;
      const std::string& mailname = home_line.mailname;
      if (line.key.compare(0, prefix.size(), prefix) != 0) {
        Omit(domain + ": not carried: the users/assign line \"" + line.text +
             "\" names another domain than its directory's");
        continue;
      }
      std::string local = line.key.substr(prefix.size());
      auto box = dir.mailboxes.find(mailname);
      if (box == dir.mailboxes.end() || !box->second.dir.is_dir)
        continue;  // the audit names the missing directory
      if (local == mailname) {
        MailName& mail = names[local];
        mail.name = local;
        mail.box = &box->second;
      } else {
        aliases[mailname].push_back(local);
      }
    }
    for (auto& entry : aliases) {
      auto mail = names.find(entry.first);
      for (const std::string& alias : entry.second) {
        if (mail == names.end())
          Omit(alias + "@" + domain + ": not carried: an alias of " + entry.first +
               ", which has no users/assign line of its own");
        else if (!is_mailname_valid(alias.c_str()))
          Omit(alias + "@" + domain + ": not carried: no command takes this alias name");
        else
          mail->second.aliases.push_back(alias);
      }
    }
    for (auto it = names.begin(); it != names.end();) {
      if (!is_mailname_valid(it->first.c_str())) {
        Omit(it->first + "@" + domain + ": not carried: no command takes this mail name");
        it = names.erase(it);
        continue;
      }
      MailName& mail = it->second;
      std::sort(mail.aliases.begin(), mail.aliases.end());
      Delivery(domain, &mail);
      Quota(domain, &mail);
      ++it;
    }
    return names;
  }

  // Whether the .qmail makes a mailbox, and whether it holds anything the
  // commands do not write.
  void Delivery(const std::string& domain, MailName* mail) {
    std::istringstream lines(mail->box->dotqmail);
    bool custom = false;
    for (std::string line; std::getline(lines, line);) {
      if (is_delivery_line(line.c_str()))
        mail->mailbox = true;
      else if (line != kDiscardLine)
        custom = true;
    }
    if (custom)
      Omit(mail->name + "@" + domain + ": not carried: lines of its .qmail that no command "
           "writes (the rsync of the domain's directory brings the file)");
  }

  void Quota(const std::string& domain, MailName* mail) {
    std::string address = mail->name + "@" + domain;
    if (!mail->box->has_maildirsize) {
      Omit(address + ": not carried: its quota, having no Maildir/maildirsize; the batch "
           "makes the mailbox unlimited");
      return;
    }
    audit::MaildirsizeCount count;
    audit::ParseMaildirsize(mail->box->maildirsize, &count);
    if (!count.header_ok)
      return;  // the audit names the unreadable quota line
    if (count.count_limit != 0)
      Omit(address + ": not carried: its limit of " + std::to_string(count.count_limit) +
           " messages, which no command sets");
    mail->quota = QuotaForLimit(count.size_limit, mail->box->attachments_bytes);
  }

  Password PasswordOf(const AuthUser& row) {
    Password password;
    std::string address = row.name + "@" + row.domain;
    if (row.has_encrypted && !row.encrypted.empty()) {
      password.usable = lookups_.decrypt(address, row.encrypted, &password.text);
    } else if (row.has_raw && !row.raw.empty()) {
      password.usable = password.raw = true;
      password.text = row.raw;
    }
    return password;
  }

  void Domain(const std::string& domain) {
    bool enabled = inventory_.active.count(domain) > 0;
    const Names& dom_aliases = AliasesOf(domain);
    Names names = dom_aliases;
    names.insert(names.begin(), domain);
    exported_.insert(names.begin(), names.end());
    std::map<std::string, MailName> mails = MailNames(domain);
    if (!mails.empty())
      plan_->mail_domains.push_back(domain);

    std::string flag = "--domain-name=" + domain;
    std::string plain = Document(domain, {}, {});
    Add({"--add-domain", flag, "--wait-stdin"}, plain);
    // Turned off before it has a password record: the records made after
    // register it (and its aliases) disabled, as a panel's do for a domain
    // that is off. A turned-off domain keeps no aliases in qmail's files
    // but those added since; with no aliases in its session the turning
    // off leaves them all.
    if (!enabled)
      Add({"--turn-off-domain", flag, "--wait-stdin"}, plain);
    for (const std::string& alias : dom_aliases) {
      if (!is_domain_name_valid(alias.c_str())) {
        Omit(alias + ": not carried: no command takes this domain alias name");
        continue;
      }
      bool reject = s_.files.rejectnonexist.count(alias) > 0;
      Add({"--add-domain-alias", flag, "--domain-alias-name=" + alias,
           reject ? "--set-reject" : "--set-bounce", "--wait-stdin"},
          plain);
    }
    for (const auto& entry : mails) {
      const MailName& mail = entry.second;
      Add({"--add-mailname", flag, "--mailname=" + mail.name,
           "--disk-quota=" + std::to_string(mail.quota)}, "");
      Mailbox(domain, dom_aliases, mail, enabled);
      // The mailbox took the session's default (unlimited); its own now.
      if (mail.mailbox && mail.quota >= 0)
        Add({"--set-mailbox-disk-quota", flag, "--mailname=" + mail.name,
             "--disk-quota=" + std::to_string(mail.quota), "--wait-stdin"}, plain);
    }
    PasswordRecords(domain, names, mails, enabled);
    Details(domain, names);
  }

  // The alias domains of `dom_aliases` that hold a password record of
  // `local`.
  Names RecordDomains(const Names& dom_aliases, const std::string& local) {
    Names found;
    for (const std::string& alias : dom_aliases)
      if (rows_.count({alias, local}))
        found.push_back(alias);
    return found;
  }

  // The mailbox of a mail name and its aliases, with the password records
  // each has: the mailbox gets its own record in the domain, a password
  // set with the alias domains in the session copies it to those, and an
  // alias copies its mail name's record to the domain and to the alias
  // domains of its session.
  void Mailbox(const std::string& domain, const Names& dom_aliases, const MailName& mail,
               bool enabled) {
    std::string flag = "--domain-name=" + domain;
    std::string name = "--mailname=" + mail.name;
    std::optional<Password> password;
    auto row = rows_.find({domain, mail.name});
    if (mail.mailbox && row != rows_.end()) {
      password = PasswordOf(*row->second);
      if (!password->usable) {
        Omit(mail.name + "@" + domain + ": not carried: its password, which " +
             (row->second->encrypted.empty() && row->second->raw.empty()
                  ? "is empty"
                  : "cannot be decrypted with the key") +
             "; the mailbox is made without one");
        password.reset();
      }
    }
    Names disabled = enabled ? Names() : Names{"--mail-domain-disabled"};
    if (mail.mailbox) {
      Names argv = {"--add-mailbox", flag, name};
      argv.insert(argv.end(), disabled.begin(), disabled.end());
      argv.push_back("--wait-stdin");
      Add(argv, Document(domain, {}, {}), password);
    }
    Names copies = password ? RecordDomains(dom_aliases, mail.name) : Names();
    if (!copies.empty()) {
      MailName alone;
      alone.name = mail.name;
      Names argv = {"--set-password", flag, name};
      argv.insert(argv.end(), disabled.begin(), disabled.end());
      argv.push_back("--wait-stdin");
      Add(argv, Document(domain, copies, {&alone}), password);
    }
    for (const std::string& alias : mail.aliases)
      Add({"--add-alias", flag, name, "--alias=" + alias, "--wait-stdin"},
          Document(domain, password ? RecordDomains(dom_aliases, alias) : Names(), {}));
  }

  // The password records the commands above leave against those stored:
  // each must have its mail name's password, and no other name of the
  // domain may have one.
  void PasswordRecords(const std::string& domain, const Names& names,
                       const std::map<std::string, MailName>& mails, bool enabled) {
    std::map<std::pair<std::string, std::string>, Password> expected;
    std::set<std::pair<std::string, std::string>> told;  // with a password not carried
    for (const auto& entry : mails) {
      const MailName& mail = entry.second;
      if (!mail.mailbox)
        continue;
      auto row = rows_.find({domain, mail.name});
      Password password;
      if (row != rows_.end())
        password = PasswordOf(*row->second);
      Names locals = mail.aliases;
      locals.push_back(mail.name);
      for (const std::string& local : locals) {
        if (!password.usable) {
          for (const std::string& name : names)
            told.insert({name, local});
          continue;
        }
        expected[{domain, local}] = password;  // an alias copies it here in any case
        for (const std::string& name : RecordDomains(Names(names.begin() + 1, names.end()), local))
          expected[{name, local}] = password;
      }
    }
    const auto& status = s_.databases.auth_domain_status;
    for (const std::string& name : names) {
      auto found = status.find(name);
      if (found != status.end() && (found->second != 0) == enabled)
        Omit(name + ": not carried: the authentication database has it " +
             (enabled ? "disabled" : "enabled") + ", the batch leaves it " +
             (enabled ? "enabled" : "disabled"));
    }
    std::set<std::string> addresses;
    for (const auto& entry : mails) {
      addresses.insert(entry.first);
      addresses.insert(entry.second.aliases.begin(), entry.second.aliases.end());
    }
    for (const std::string& name : names) {
      for (auto row = rows_.lower_bound({name, ""}); row != rows_.end() && row->first.first == name;
           ++row) {
        const AuthUser& user = *row->second;
        std::string address = user.name + "@" + user.domain;
        auto want = expected.find(row->first);
        if (told.count(row->first))
          continue;
        if (want == expected.end()) {
          if (addresses.count(user.name))  // else the audit names it
            Omit(address + ": not carried: its password record, that of no mailbox");
          continue;
        }
        if (user.status != 0)
          Omit(address + ": not carried: disabled in the authentication database");
        if (!(PasswordOf(user) == want->second))
          Omit(address + ": not carried: its own password; the batch gives it its mail "
               "name's");
        expected.erase(want);
      }
    }
    for (const auto& missing : expected)
      Omit(missing.first.second + "@" + missing.first.first +
           ": has no password record; the batch makes one with its mail name's password");
  }

  // What the commands never write for a domain.
  void Details(const std::string& domain, const Names& names) {
    const audit::DomainDir& dir = s_.tree.domains.at(domain);
    if (!dir.qmail_default.exists)
      Omit(domain + ": not carried: it has no .qmail-default; the batch writes the default "
           "bounce");
    else if (dir.qmail_default_text != bounce_line(nullptr) + "\n")
      Omit(domain + ": not carried: its .qmail-default, which is not the default bounce (the "
           "rsync of the domain's directory brings it)");
    if (s_.files.rejectnonexist.count(domain))
      Omit(domain + ": not carried: control/rejectnonexist lists it; no command lists a "
           "domain itself");
    for (const std::string& name : names)
      if (lookups_.has_domainkeys(name))
        Omit(name + ": not carried: its DomainKeys; copy /etc/domainkeys/" + name);
    for (const std::string& address : s_.databases.handler_addresses) {
      size_t at = address.rfind('@');
      std::string owner = at == std::string::npos ? address : address.substr(at + 1);
      if (std::find(names.begin(), names.end(), owner) != names.end())
        Omit(address + ": not carried: its mail handlers");
    }
  }

  // The audit's findings about what is exported, and those of the server
  // as a whole.
  void Findings() {
    for (const Finding& f : findings_) {
      if (!selected_.empty() && !f.domain.empty() && !exported_.count(f.domain))
        continue;
      std::string what = (f.domain.empty() ? "server" : f.domain) + ": " + f.kind;
      if (!f.mailname.empty())
        what += " " + f.mailname;
      if (!f.path.empty())
        what += " " + f.path;
      Omit(what + ": " + f.detail);
    }
  }

  void Add(Names argv, const std::string& document,
           const std::optional<Password>& password = std::nullopt) {
    BatchLine line;
    line.argv = std::move(argv);
    line.stdin_json = document;
    if (password && password->raw)
      line.crypted_password = password->text;
    else if (password)
      line.password = password->text;
    plan_->lines.push_back(std::move(line));
  }

  const ServerState& s_;
  const std::vector<Finding>& findings_;
  const Names& selected_;
  const Lookups& lookups_;
  Plan* plan_;
  Inventory inventory_;
  std::map<std::string, Names> aliases_;  // domain -> its aliases, sorted
  // A users/assign line of a mail name or alias, with the mail name whose
  // directory it points to.
  struct HomeLine {
    const audit::AssignLine* line;
    std::string mailname;
  };
  std::map<std::string, std::vector<HomeLine>> assign_by_domain_;  // by directory's domain
  std::map<std::pair<std::string, std::string>, const AuthUser*> rows_;  // domain, name
  std::set<std::string> exported_;  // domains and their aliases
};

}  // namespace

std::string ToJson(const BatchLine& line) {
  std::string out = "{\"argv\": " + JsonArray(line.argv);
  if (!line.stdin_json.empty())
    out += ", \"stdin\": " + line.stdin_json;
  if (line.password)
    out += ", \"password\": " + json_quote(*line.password);
  if (line.crypted_password)
    out += ", \"crypted_password\": " + json_quote(*line.crypted_password);
  return out + "}";
}

long long QuotaForLimit(long long size_limit, long long attachments_bytes) {
  if (size_limit <= 0)
    return -1;
  if (size_limit == 1)
    return 0;
  return size_limit + (attachments_bytes > 0 ? attachments_bytes : 0);
}

Plan MakePlan(const ServerState& state, const std::vector<Finding>& findings,
              const std::vector<std::string>& selected, const Lookups& lookups) {
  Plan plan;
  Planner(state, findings, selected, lookups, &plan).Run();
  return plan;
}

}  // namespace exporter
}  // namespace tavix
