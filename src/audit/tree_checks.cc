// The mail tree against users/assign: directories no line points at, owners
// and modes, links, and the quota files of the mailboxes.
#include <cstdlib>
#include <string>

#include "audit/checker.h"
#include "qmail/maildirpp.h"

namespace tavix {
namespace audit {

void Checker::Tree() {
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
          Ownership(found->second, home + "/" + item->name, domain, m.first, uid, gid, item->mode);
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

void Checker::Quota(const std::string& domain, const std::string& mailname,
                    const std::string& maildir, const Mailbox& mailbox) {
  if (!mailbox.has_maildirsize) return;
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
  if (!f) return;
  f->mailname = mailname;
  if (count.header_ok) {
    f->fix = Fix::kRecount;
    f->target = maildir;
    f->size_limit = count.size_limit;
    f->count_limit = count.count_limit;
  }
}

bool ParseMaildirsize(const std::string& text, MaildirsizeCount* count) {
  size_t end = text.find('\n');
  if (end == std::string::npos) return false;
  count->header_ok = parse_header_string(text.substr(0, end).c_str(), &count->size_limit,
                                         &count->count_limit) != 0;
  if (!count->header_ok || text.size() > kMaxMaildirsize) return false;
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

}  // namespace audit
}  // namespace tavix
