#include "audit/checks.h"

#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "handlers/mail_handlers.h"
#include "mailauth/auth_db.h"
#include "qmail/maildirpp.h"
#include "qmail/paths.h"

namespace tavix {
namespace audit {

using qmail::qmail_file;

namespace {

bool Before(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

// A home under the mail names root, split into its domain and mail name
// directories ("" where the home ends before).
struct Home {
  bool under_root = false;
  std::string domain;
  std::string mailname;
};

class Checker {
 public:
  explicit Checker(const ServerState& state) : s_(state), files_(state.files) {}

  std::vector<Finding> Run() {
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

 private:
  Finding& Add(const std::string& kind, const std::string& domain, const std::string& path,
               const std::string& detail) {
    findings_.push_back(Finding());
    Finding& f = findings_.back();
    f.kind = kind;
    f.domain = domain;
    f.path = path;
    f.detail = detail;
    return f;
  }

  Home SplitHome(const std::string& home) const {
    Home h;
    std::string prefix = s_.root + "/";
    if (home.compare(0, prefix.size(), prefix) != 0)
      return h;
    std::string rest = home.substr(prefix.size());
    size_t slash = rest.find('/');
    h.domain = rest.substr(0, slash);
    if (slash != std::string::npos) {
      h.mailname = rest.substr(slash + 1);
      if (h.mailname.find('/') != std::string::npos || h.mailname.empty())
        return h;
    }
    h.under_root = !h.domain.empty();
    return h;
  }

  // Which domains the files know, and the addresses that exist.
  void Index() {
    for (const auto& entry : files_.virtualdomains) {
      if (entry.first == entry.second)
        active_.insert(entry.first);
      else
        alias_of_[entry.first] = entry.second;
    }
    for (const AssignLine& line : files_.assign) {
      Home home = SplitHome(line.home);
      if (!line.type || !home.under_root)
        continue;
      if (line.type == '+' && home.mailname.empty() && line.key == home.domain)
        known_.insert(home.domain);
      if (line.type == '=' && !home.mailname.empty()) {
        known_.insert(home.domain);
        homes_[home.domain].insert(home.mailname);
        std::string prefix = home.domain + "-";
        if (line.key.compare(0, prefix.size(), prefix) == 0)
          addresses_.insert(line.key);
      }
    }
    known_.insert(active_.begin(), active_.end());
  }

  void ControlFiles() {
    std::set<std::string> routed;
    for (const auto& entry : files_.virtualdomains)
      routed.insert(entry.first);
    std::string rcpthosts = qmail_file("/control/rcpthosts");
    for (const std::string& host : files_.rcpthosts) {
      // Local names and qmail's ".domain" wildcards are served without a
      // virtual domain.
      if (host.empty() || host[0] == '.' || files_.locals.count(host) || routed.count(host))
        continue;
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
    for (const char* const* file = kEditedFiles; *file; ++file)
      RootFile(qmail_file(*file));
  }

  void RootFile(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode))
      return;
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

  void Ownership(const Entry& entry, const std::string& path, const std::string& domain,
                 const std::string& mailname, uid_t uid, gid_t gid, mode_t mode) {
    if (!entry.exists || (entry.uid == uid && entry.gid == gid && entry.mode == mode))
      return;
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

  void Assign() {
    std::string path = qmail_file("/users/assign");
    if (!files_.assign_terminated)
      Add("assign-malformed", "", path, "does not end with its \".\" line");
    if (files_.assign_trailing)
      Add("assign-malformed", "", path, "has lines after its \".\" line");
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

  void Wildcards() {
    std::string path = qmail_file("/users/assign");
    std::set<std::string> wildcards;
    for (const AssignLine& line : files_.assign) {
      Home home = SplitHome(line.home);
      if (line.type != '+' || !home.under_root)
        continue;
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
      if (wildcards.count(domain))
        continue;
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

  const Mailbox* FindMailbox(const std::string& domain, const std::string& mailname) const {
    auto d = s_.tree.domains.find(domain);
    if (d == s_.tree.domains.end())
      return nullptr;
    auto m = d->second.mailboxes.find(mailname);
    return m == d->second.mailboxes.end() ? nullptr : &m->second;
  }

  static bool Delivers(const Mailbox& mailbox) {
    return mailbox.dotqmail.find("Maildir") != std::string::npos;
  }

  void MailNames() {
    std::set<std::string> done;
    for (const AssignLine& line : files_.assign) {
      Home home = SplitHome(line.home);
      if (line.type != '=' || !home.under_root || home.mailname.empty())
        continue;
      const Mailbox* mailbox = FindMailbox(home.domain, home.mailname);
      if (!mailbox || !mailbox->dir.is_dir) {
        Finding& f = Add("missing-home", home.domain, line.home,
                         "\"=" + line.key + "\" points at a directory that is gone");
        f.mailname = home.mailname;
        continue;
      }
      if (!done.insert(line.home).second)
        continue;
      std::vector<std::string> missing;
      auto dotqmail = mailbox->items.find(".qmail");
      if (dotqmail == mailbox->items.end())
        missing.push_back(".qmail");
      // Only a mailbox (a delivery line) needs the Maildir.
      for (const TreeItem* item = kMailboxItems; item->name && Delivers(*mailbox); ++item) {
        std::string name = item->name;
        if (item->is_dir && name.compare(0, 7, "Maildir") == 0 &&
            name.find(".Spam") == std::string::npos && !mailbox->items.count(name))
          missing.push_back(name);
      }
      if (missing.empty())
        continue;
      std::string detail = "lacks";
      for (const std::string& name : missing)
        detail += " " + name;
      Finding& f = Add("mailname-incomplete", home.domain, line.home, detail);
      f.mailname = home.mailname;
    }
  }

  void Tree() {
    for (const auto& d : s_.tree.domains) {
      const std::string& domain = d.first;
      std::string dir = s_.root + "/" + domain;
      if (!known_.count(domain)) {
        Add("orphan-directory", domain, dir, "no line of users/assign points at it");
        continue;
      }
      uid_t uid = s_.popuser_uid;
      gid_t gid = s_.popuser_gid;
      Ownership(d.second.dir, dir, domain, "", uid, gid, 0700);
      Ownership(d.second.qmail_default, dir + "/.qmail-default", domain, "", uid, gid, 0600);
      const std::set<std::string>& homes = homes_[domain];
      for (const auto& m : d.second.mailboxes) {
        std::string home = dir + "/" + m.first;
        if (!homes.count(m.first)) {
          Finding& f = Add("orphan-directory", domain, home, "no line of users/assign points at it");
          f.mailname = m.first;
          continue;
        }
        Ownership(m.second.dir, home, domain, m.first, uid, gid, 0700);
        for (const TreeItem* item = kMailboxItems; item->name; ++item) {
          auto found = m.second.items.find(item->name);
          if (found != m.second.items.end())
            Ownership(found->second, home + "/" + item->name, domain, m.first, uid, gid,
                      item->mode);
        }
        Quota(domain, m.first, home + "/Maildir", m.second);
      }
    }
    std::string prefix = s_.root + "/";
    for (const std::string& link : s_.tree.symlinks) {
      Home home = SplitHome(link.substr(0, link.find('/', prefix.size())));
      Add("symlink-in-tree", home.domain, link, "a symbolic link; it was not followed");
    }
  }

  void Quota(const std::string& domain, const std::string& mailname, const std::string& maildir,
             const Mailbox& mailbox) {
    if (!mailbox.has_maildirsize)
      return;
    MaildirsizeCount count;
    bool ok = ParseMaildirsize(mailbox.maildirsize, &count);
    std::string path = maildir + "/maildirsize";
    Finding* f = nullptr;
    if (!ok) {
      f = &Add("maildirsize-malformed", domain, path,
               count.header_ok ? "its usage lines are not what the delivery agent writes"
                               : "its quota line cannot be read; set the quota again");
    } else if (s_.sizes && std::llabs(count.bytes - mailbox.bytes) > s_.drift_bytes) {
      f = &Add("maildirsize-drift", domain, path,
               "counts " + std::to_string(count.bytes) + " bytes, the messages hold " +
                   std::to_string(mailbox.bytes));
    }
    if (!f)
      return;
    f->mailname = mailname;
    if (count.header_ok) {
      f->fix = Fix::kRecount;
      f->target = maildir;
      f->size_limit = count.size_limit;
      f->count_limit = count.count_limit;
    }
  }

  // A domain as the databases name it (the domain or one of its aliases),
  // mapped to the domain whose directory holds its mail; "" when none.
  std::string Resolve(const std::string& name) const {
    if (known_.count(name))
      return name;
    auto alias = alias_of_.find(name);
    return alias != alias_of_.end() && known_.count(alias->second) ? alias->second : "";
  }

  void AuthRecords() {
    const Databases& db = s_.databases;
    for (const std::string& domain : db.auth_domains) {
      if (!Resolve(domain).empty())
        continue;
      Finding& f = Add("auth-orphan", domain, mailAuthDB, "a record of a domain that does not exist");
      f.fix = Fix::kRemoveAuthDomain;
      f.target = domain;
    }
    for (const auto& user : db.auth_users) {
      std::string domain = Resolve(user.first);
      if (domain.empty() || addresses_.count(domain + "-" + user.second))
        continue;
      Finding& f = Add("auth-orphan", user.first, mailAuthDB,
                       "a record of a mail name that does not exist");
      f.mailname = user.second;
      f.fix = Fix::kRemoveAuthUser;
      f.target = user.first;
    }
    if (!db.unreadable.empty())
      return;
    for (const auto& d : s_.tree.domains) {
      for (const auto& m : d.second.mailboxes) {
        if (!addresses_.count(d.first + "-" + m.first) || !Delivers(m.second) ||
            db.auth_users.count({d.first, m.first}))
          continue;
        Finding& f = Add("auth-missing", d.first, mailAuthDB,
                         "a mailbox with a delivery line but no password record");
        f.mailname = m.first;
      }
    }
  }

  void Handlers() {
    for (const std::string& address : s_.databases.handler_addresses) {
      if (address == "all" || address == "all-recipients")
        continue;
      size_t at = address.rfind('@');
      std::string domain = Resolve(at == std::string::npos ? address : address.substr(at + 1));
      if (!domain.empty() &&
          (at == std::string::npos || addresses_.count(domain + "-" + address.substr(0, at))))
        continue;
      Finding& f = Add("handler-orphan", at == std::string::npos ? address : address.substr(at + 1),
                       mh_db_path, "handlers of " + address + ", which does not exist");
      if (at != std::string::npos)
        f.mailname = address.substr(0, at);
      f.fix = Fix::kRemoveHandlers;
      f.target = address;
    }
  }

  void Leftovers() {
    for (const std::string& temp : files_.temporaries) {
      Finding& f = Add("leftover-temporary", "", temp, "left by an edit that was interrupted");
      f.fix = Fix::kRemoveTemporary;
      size_t mail = temp.rfind(".mail.");
      f.target = mail != std::string::npos ? temp.substr(0, mail)
                                           : temp.substr(0, temp.size() - 4);  // ".tmp"
    }
    for (const std::string& path : files_.held_locks)
      Add("stale-lock", "", path,
          "its lock stayed taken for more than " + std::to_string(s_.lock_wait_ms / 1000) +
              " s; read without it");
  }

  const ServerState& s_;
  const QmailFiles& files_;
  std::set<std::string> active_;                     // routed to themselves
  std::map<std::string, std::string> alias_of_;      // domain alias -> domain
  std::set<std::string> known_;                      // active, or with assign lines
  std::map<std::string, std::set<std::string>> homes_;  // domain -> mail name dirs
  std::set<std::string> addresses_;                  // "domain-mailname" of "=" lines
  std::vector<Finding> findings_;
};

}  // namespace

bool ParseMaildirsize(const std::string& text, MaildirsizeCount* count) {
  size_t end = text.find('\n');
  if (end == std::string::npos)
    return false;
  count->header_ok = parse_header_string(text.substr(0, end).c_str(), &count->size_limit,
                                         &count->count_limit) != 0;
  if (!count->header_ok || text.size() > kMaxMaildirsize)
    return false;
  count->bytes = count->messages = 0;
  for (size_t start = end + 1; start < text.size(); start = end + 1) {
    end = text.find('\n', start);
    int64_t bytes, messages;
    if (end == std::string::npos ||
        !parse_string_common(text.substr(start, end - start).c_str(), &bytes, &messages, 0))
      return false;
    count->bytes += bytes;
    count->messages += messages;
  }
  return count->bytes >= 0 && count->messages >= 0;
}

std::vector<Finding> Check(const ServerState& state) { return Checker(state).Run(); }

}  // namespace audit
}  // namespace tavix
