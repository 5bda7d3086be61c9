// What the qmail files say exists, and how they disagree among themselves
// and with the mail tree's directories.
#include "audit/checks.h"

#include <sys/stat.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "audit/checker.h"
#include "qmail/delivery.h"
#include "qmail/paths.h"

namespace tavix {
namespace audit {

using qmail::qmail_file;

namespace {

bool Before(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

}  // namespace

std::vector<Finding> Checker::Run() {
  Index();
  ControlFiles();
  Assign();
  Wildcards();
  MailNames();
  Tree();
  AuthRecords();
  Handlers();
  Leftovers();
  return std::move(findings_);
}

Finding& Checker::Add(const std::string& kind, const std::string& domain, const std::string& path,
                      const std::string& detail) {
  // The metrics count findings by the known kinds: one missing there would
  // be reported here and never counted.
  if (!IsFindingKind(kind)) throw std::logic_error("finding of an unlisted kind " + kind);
  findings_.push_back(Finding());
  Finding& f = findings_.back();
  f.kind = kind;
  f.domain = domain;
  f.path = path;
  f.detail = detail;
  return f;
}

Home SplitHome(const std::string& root, const std::string& home) {
  Home h;
  std::string prefix = root + "/";
  if (home.compare(0, prefix.size(), prefix) != 0) return h;
  std::string rest = home.substr(prefix.size());
  size_t slash = rest.find('/');
  h.domain = rest.substr(0, slash);
  if (slash != std::string::npos) {
    h.mailname = rest.substr(slash + 1);
    if (h.mailname.find('/') != std::string::npos || h.mailname.empty()) return h;
  }
  h.under_root = !h.domain.empty();
  return h;
}

Inventory TakeInventory(const std::string& root, const QmailFiles& files) {
  Inventory inventory;
  for (const auto& entry : files.virtualdomains) {
    if (entry.first == entry.second)
      inventory.active.insert(entry.first);
    else
      inventory.alias_of[entry.first] = entry.second;
  }
  for (const AssignLine& line : files.assign) {
    Home home = SplitHome(root, line.home);
    if (!line.type || !home.under_root) continue;
    if (line.type == '+' && home.mailname.empty() && line.key == home.domain)
      inventory.known.insert(home.domain);
    if (line.type == '=' && !home.mailname.empty()) {
      inventory.known.insert(home.domain);
      inventory.homes[home.domain].insert(home.mailname);
      std::string prefix = home.domain + "-";
      if (line.key.compare(0, prefix.size(), prefix) == 0) inventory.addresses.insert(line.key);
    }
  }
  inventory.known.insert(inventory.active.begin(), inventory.active.end());
  return inventory;
}

Census TakeCensus(const ServerState& state) {
  Inventory inventory = TakeInventory(state.root, state.files);
  Census census;
  census.domains = inventory.known.size();
  for (const auto& domain : inventory.homes) {
    census.mailnames += domain.second.size();
    auto dir = state.tree.domains.find(domain.first);
    if (dir == state.tree.domains.end()) continue;
    for (const std::string& mailname : domain.second) {
      auto mailbox = dir->second.mailboxes.find(mailname);
      if (mailbox != dir->second.mailboxes.end() && DeliversToMaildir(mailbox->second))
        ++census.mailboxes;
    }
  }
  return census;
}

// Which domains the files know, and the addresses that exist.
void Checker::Index() { inventory_ = TakeInventory(s_.root, files_); }

void Checker::ControlFiles() {
  std::set<std::string> routed;
  for (const auto& entry : files_.virtualdomains) routed.insert(entry.first);
  std::string rcpthosts = qmail_file("/control/rcpthosts");
  for (const std::string& host : files_.rcpthosts) {
    // Local names and qmail's ".domain" wildcards are served without a
    // virtual domain.
    if (host.empty() || host[0] == '.' || files_.locals.count(host) || routed.count(host)) continue;
    Add("rcpthosts-without-virtualdomains", host, rcpthosts,
        "accepted for delivery, but control/virtualdomains does not route it");
  }
  std::string virtualdomains = qmail_file("/control/virtualdomains");
  for (const auto& entry : files_.virtualdomains) {
    if (!files_.rcpthosts.count(entry.first))
      Add("virtualdomains-without-rcpthosts", entry.second, virtualdomains,
          "\"" + entry.first + ":" + entry.second +
              "\" is routed, but control/rcpthosts does not accept it");
    if (entry.first != entry.second && !known_.count(entry.second))
      Add("alias-to-missing-domain", entry.second, virtualdomains,
          "domain alias " + entry.first + " points at a domain that does not exist");
  }
  // Root's files, readable by qmail's own accounts whatever their group.
  for (const char* const* file = kEditedFiles; *file; ++file) RootFile(qmail_file(*file));
}

void Checker::RootFile(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) return;
  uid_t uid = 0;
  gid_t gid = st.st_gid;
  mode_t mode = 0644;
  Entry entry;
  entry.exists = true;
  entry.uid = st.st_uid;
  entry.gid = st.st_gid;
  entry.mode = st.st_mode & 07777;
  Ownership(entry, path, "", "", uid, gid, mode);
}

void Checker::Ownership(const Entry& entry, const std::string& path, const std::string& domain,
                        const std::string& mailname, uid_t uid, gid_t gid, mode_t mode) {
  if (!entry.exists || (entry.uid == uid && entry.gid == gid && entry.mode == mode)) return;
  char want[64], have[64];
  snprintf(want, sizeof(want), "%u:%u %04o", unsigned(uid), unsigned(gid), unsigned(mode));
  snprintf(have, sizeof(have), "%u:%u %04o", unsigned(entry.uid), unsigned(entry.gid),
           unsigned(entry.mode));
  Finding& f = Add("owner-or-mode", domain, path,
                   std::string("is ") + have + ", the commands make it " + want);
  f.mailname = mailname;
  f.fix = Fix::kOwnerMode;
  f.uid = uid;
  f.gid = gid;
  f.mode = mode;
}

void Checker::Assign() {
  std::string path = qmail_file("/users/assign");
  if (!files_.assign_terminated)
    Add("assign-malformed", "", path, "does not end with its \".\" line");
  if (files_.assign_trailing) Add("assign-malformed", "", path, "has lines after its \".\" line");
  std::set<std::string> seen;
  for (const AssignLine& line : files_.assign) {
    if (!line.type) {
      Add("assign-malformed", "", path, "malformed line \"" + line.text + "\"");
      continue;
    }
    if (!seen.insert(line.type + line.key).second)
      Add("assign-malformed", SplitHome(line.home).domain, path,
          "\"" + std::string(1, line.type) + line.key + "\" is assigned more than once");
  }
  if (!files_.has_cdb || Before(files_.cdb_mtime, files_.assign_mtime)) {
    Finding& f = Add("cdb-outdated", "", qmail_file("/users/cdb"),
                     files_.has_cdb ? "older than users/assign: qmail still uses old lines"
                                    : "missing: qmail uses none of users/assign");
    f.fix = Fix::kCompileAssign;
  }
}

void Checker::Wildcards() {
  std::string path = qmail_file("/users/assign");
  std::set<std::string> wildcards;
  for (const AssignLine& line : files_.assign) {
    Home home = SplitHome(line.home);
    if (line.type != '+' || !home.under_root) continue;
    if (line.key != home.domain || !home.mailname.empty()) {
      Finding& f = Add("stale-wildcard", home.domain, path,
                       "\"+" + line.key + "\" routes to " + line.home +
                           ", which is not the directory of a domain of that name");
      f.fix = Fix::kDropAssignLine;
      f.line = line.text;
      continue;
    }
    wildcards.insert(line.key);
    if (!s_.tree.domains.count(home.domain))
      Add("missing-home", home.domain, line.home,
          "the domain's directory is gone; its mail cannot be delivered");
  }
  for (const std::string& domain : known_) {
    if (wildcards.count(domain)) continue;
    std::string home = s_.root + "/" + domain;
    if (!s_.tree.domains.count(domain)) {
      Add("missing-home", domain, home, "the domain's directory is gone");
      continue;
    }
    Finding& f = Add("missing-wildcard", domain, path,
                     "no \"+" + domain + "\" line routes the domain to " + home);
    f.fix = Fix::kAddAssignLine;
    f.line = "+" + domain + ":popuser:" + std::to_string(s_.popuser_uid) + ":" +
             std::to_string(s_.popuser_gid) + ":" + home + ":::";
  }
}

const Mailbox* Checker::FindMailbox(const std::string& domain, const std::string& mailname) const {
  auto d = s_.tree.domains.find(domain);
  if (d == s_.tree.domains.end()) return nullptr;
  auto m = d->second.mailboxes.find(mailname);
  return m == d->second.mailboxes.end() ? nullptr : &m->second;
}

bool DeliversToMaildir(const Mailbox& mailbox) {
  std::istringstream lines(mailbox.dotqmail);
  for (std::string line; std::getline(lines, line);)
    if (is_delivery_line(line.c_str())) return true;
  return false;
}

void Checker::MailNames() {
  std::set<std::string> done;
  for (const AssignLine& line : files_.assign) {
    Home home = SplitHome(line.home);
    if (line.type != '=' || !home.under_root || home.mailname.empty()) continue;
    const Mailbox* mailbox = FindMailbox(home.domain, home.mailname);
    if (!mailbox || !mailbox->dir.is_dir) {
      Finding& f = Add("missing-home", home.domain, line.home,
                       "\"=" + line.key + "\" points at a directory that is gone");
      f.mailname = home.mailname;
      continue;
    }
    if (!done.insert(line.home).second) continue;
    std::vector<std::string> missing;
    auto dotqmail = mailbox->items.find(".qmail");
    if (dotqmail == mailbox->items.end()) missing.push_back(".qmail");
    // Only a mailbox (a delivery line) needs the Maildir.
    for (const TreeItem* item = kMailboxItems; item->name && DeliversToMaildir(*mailbox); ++item) {
      std::string name = item->name;
      if (item->is_dir && name.compare(0, 7, "Maildir") == 0 &&
          name.find(".Spam") == std::string::npos && !mailbox->items.count(name))
        missing.push_back(name);
    }
    if (missing.empty()) continue;
    std::string detail = "lacks";
    for (const std::string& name : missing) detail += " " + name;
    Finding& f = Add("mailname-incomplete", home.domain, line.home, detail);
    f.mailname = home.mailname;
  }
}

// A domain as the databases name it (the domain or one of its aliases),
// mapped to the domain whose directory holds its mail; "" when none.
std::string Checker::Resolve(const std::string& name) const {
  if (known_.count(name)) return name;
  auto alias = alias_of_.find(name);
  return alias != alias_of_.end() && known_.count(alias->second) ? alias->second : "";
}

void Checker::Leftovers() {
  std::vector<Temporary> temporaries;
  for (const auto& temp : files_.temporaries)
    temporaries.push_back({temp.first, temp.second, ""});
  temporaries.insert(temporaries.end(), s_.tree.temporaries.begin(), s_.tree.temporaries.end());
  for (const Temporary& temp : temporaries) {
    Home home = SplitHome(temp.dir);
    Finding& f = Add("leftover-temporary", home.domain, temp.path,
                     "left by an edit that was interrupted");
    f.mailname = home.mailname;
    f.fix = Fix::kRemoveTemporary;
    f.target = temp.lock;
  }
  for (const std::string& path : files_.held_locks)
    Add("stale-lock", "", path,
        "its lock stayed taken for more than " + std::to_string(s_.lock_wait_ms / 1000) +
            " s; read without it");
}

std::vector<Finding> Check(const ServerState& state) { return Checker(state).Run(); }

}  // namespace audit
}  // namespace tavix
