// One walk of the mail names tree, <root>/<domain>/<mail name>/..., for the
// audit and the export.
//
// The tree belongs to the mail user, who can put a symbolic link anywhere
// in it. The walk goes from directory descriptor to directory descriptor
// (openat with O_NOFOLLOW, fstatat with AT_SYMLINK_NOFOLLOW), so a link is
// only ever recorded, never followed. Entry types come from the directory
// listing; only the entries whose owner and mode matter are stat'ed, and
// messages only when their sizes are asked for.
#ifndef DRAVNIK_AUDIT_MAIL_TREE_H_
#define DRAVNIK_AUDIT_MAIL_TREE_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavix {
namespace audit {

struct Entry {
  bool exists = false;
  bool is_dir = false;
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;  // permission bits only
};

// The entries of a mail name's directory that the commands create, relative
// to it, and the mode each gets.
struct TreeItem {
  const char* name;
  bool is_dir;
  mode_t mode;
};
extern const TreeItem kMailboxItems[];

struct Mailbox {
  Entry dir;
  std::map<std::string, Entry> items;  // by kMailboxItems name, when present
  std::string dotqmail;                // its text
  bool has_maildirsize = false;
  std::string maildirsize;  // its text, at most kMaxMaildirsize + 1 bytes
  // With sizes: what the messages of Maildir add up to.
  int64_t bytes = 0;
  int64_t messages = 0;
  // With attachments: the size of @attachments as a quota sees it (the
  // directory itself included); -1 when unknown.
  int64_t attachments_bytes = -1;
};

struct DomainDir {
  Entry dir;
  Entry qmail_default;
  std::string qmail_default_text;  // at most 64 KiB of it
  std::map<std::string, Mailbox> mailboxes;
};

// A temporary file of a write killed before its rename.
struct Temporary {
  std::string path;
  std::string lock;  // the file whose lock its writers hold while it exists
  std::string dir;   // the domain's or the mail name's directory
};

struct MailTree {
  std::string root;
  bool root_exists = false;
  std::map<std::string, DomainDir> domains;
  std::vector<std::string> symlinks;
  std::vector<std::string> unreadable;  // "path: reason"
  std::vector<Temporary> temporaries;
};

// A maildirsize longer than this is not one the commands or the delivery
// agent keep: both rewrite it before.
constexpr size_t kMaxMaildirsize = 5120;

// Walks `root`. With `sizes`, the messages of each Maildir are counted as
// its usage is (Maildir++ folders but .Trash, sizes from ",S=" in the name
// where given); with `attachments`, the size of each @attachments, which a
// quota is set net of.
MailTree WalkMailTree(const std::string& root, bool sizes, bool attachments = false);

// The size a message's name states (",S=<digits>" ended by ":" or the end),
// or -1.
int64_t SizeFromName(const char* name);

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_MAIL_TREE_H_
