#include "audit/mail_tree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

#include "qmail/maildirpp.h"
#include "util/fs.h"

namespace tavix {
namespace audit {

const TreeItem kMailboxItems[] = {
    {"Maildir", true, 0700},           {"Maildir/tmp", true, 0700},
    {"Maildir/new", true, 0700},       {"Maildir/cur", true, 0700},
    {"Maildir/.Spam", true, 0700},     {"Maildir/.Spam/tmp", true, 0700},
    {"Maildir/.Spam/new", true, 0700}, {"Maildir/.Spam/cur", true, 0700},
    {"@attachments", true, 0700},      {".qmail", false, 0600},
    {"Maildir/maildirsize", false, 0644}, {nullptr, false, 0},
};

namespace {

// Deeper than any Maildir the mail system makes; what lies below is only
// a descriptor sink that a hostile user could build.
constexpr int kMaxDepth = 24;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

class Walker {
 public:
  Walker(MailTree* tree, bool sizes, bool attachments)
      : tree_(tree), sizes_(sizes), attachments_(attachments) {
    if (gethostname(host_, sizeof host_) != 0)
      host_[0] = '\0';
    host_[sizeof host_ - 1] = '\0';
  }

  void Root() {
    UniqueFd fd(open_dir_nofollow(tree_->root.c_str()));
    if (!fd) {
      if (errno != ENOENT)
        Unreadable(tree_->root);
      return;
    }
    tree_->root_exists = true;
    ForEach(std::move(fd), tree_->root, [&](int dir, const std::string& path,
                                            const char* name, unsigned type) {
      if (type != DT_DIR)
        return;
      DomainDir& domain = tree_->domains[name];
      domain.dir = Stat(dir, name, path);
      Domain(dir, name, path, &domain);
    });
  }

 private:
  template <class Visit>
  void ForEach(UniqueFd fd, const std::string& path, Visit visit) {
    if (!fd)  // gone since it was listed, or reported by OpenDir()
      return;
    int dir_fd = fd.get();
    UniqueDir dir(fdopendir(dir_fd));
    if (!dir) {
      Unreadable(path);
      return;
    }
    fd.release();
    for (;;) {
      errno = 0;
      struct dirent* entry = readdir(dir.get());
      if (!entry) {
        if (errno != 0)
          Unreadable(path);
        return;
      }
      const char* name = entry->d_name;
      if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        continue;
      unsigned type = entry->d_type;
      std::string child = path + "/" + name;
      if (type == DT_UNKNOWN)
        type = TypeOf(dir_fd, name, child);
      if (type == DT_LNK)
        tree_->symlinks.push_back(child);
      else
        visit(dir_fd, child, name, type);
    }
  }

  void Domain(int parent, const char* name, const std::string& path, DomainDir* domain) {
    ForEach(OpenDir(parent, name, path), path, [&](int dir, const std::string& child,
                                                   const char* entry, unsigned type) {
      if (strcmp(entry, ".qmail-default") == 0) {
        domain->qmail_default = Stat(dir, entry, child);
        if (type == DT_REG)
          ReadSmall(dir, entry, child, 1 << 16, &domain->qmail_default_text);
      } else if (IsTemp(entry, ".qmail-default.")) {
        tree_->temporaries.push_back({child, path + "/.qmail-default", path});
      } else if (type == DT_DIR) {
        Mailbox& mailbox = domain->mailboxes[entry];
        mailbox.dir = Stat(dir, entry, child);
        Below(dir, entry, child, "", &mailbox, 1);
      }
    });
  }

  // Everything under a mail name's directory; `relative` is the path below
  // it ("" for the directory itself).
  void Below(int parent, const char* name, const std::string& path, const std::string& relative,
             Mailbox* mailbox, int depth) {
    if (depth > kMaxDepth)
      return;
    bool messages = sizes_ && IsMessageDir(relative);
    ForEach(OpenDir(parent, name, path), path, [&](int dir, const std::string& child,
                                                   const char* entry, unsigned type) {
      std::string below = relative.empty() ? entry : relative + "/" + entry;
      if (Tracked(below))
        mailbox->items[below] = Stat(dir, entry, child);
      if (below == ".qmail" && type == DT_REG)
        ReadSmall(dir, entry, child, 1 << 16, &mailbox->dotqmail);
      if (below == "Maildir/maildirsize" && type == DT_REG)
        mailbox->has_maildirsize =
            ReadSmall(dir, entry, child, kMaxMaildirsize + 1, &mailbox->maildirsize);
      Temporary(path, relative, entry, child);
      if (attachments_ && below == "@attachments" && type == DT_DIR)
        mailbox->attachments_bytes = get_dir_size_at(dir, entry, 0);
      if (type == DT_DIR)
        Below(dir, entry, child, below, mailbox, depth + 1);
      else if (messages)
        Count(dir, entry, child, mailbox);
    });
  }

  // new/ and cur/ of the Maildir and of its folders but .Trash.
  static bool IsMessageDir(const std::string& relative) {
    if (relative == "Maildir/new" || relative == "Maildir/cur")
      return true;
    if (relative.compare(0, 9, "Maildir/.") != 0 || relative.compare(0, 15, "Maildir/.Trash/") == 0)
      return false;
    size_t slash = relative.find('/', 9);
    if (slash == std::string::npos)
      return false;
    std::string leaf = relative.substr(slash + 1);
    return leaf == "new" || leaf == "cur";
  }

  static bool Tracked(const std::string& relative) {
    for (const TreeItem* item = kMailboxItems; item->name; ++item)
      if (relative == item->name)
        return true;
    return false;
  }

  void Count(int dir, const char* name, const std::string& path, Mailbox* mailbox) {
    ++mailbox->messages;
    int64_t size = SizeFromName(name);
    if (size < 0) {
      struct stat st;
      if (fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT)  // delivered or expunged meanwhile
          Unreadable(path);
        return;
      }
      size = st.st_size;
    }
    mailbox->bytes += size;
  }

  UniqueFd OpenDir(int parent, const char* name, const std::string& path) {
    UniqueFd fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
      if (errno == ELOOP)  // replaced by a link since it was listed
        tree_->symlinks.push_back(path);
      else if (errno != ENOENT && errno != ENOTDIR)  // not removed or replaced meanwhile
        Unreadable(path);
    }
    return fd;
  }

  Entry Stat(int dir, const char* name, const std::string& path) {
    Entry entry;
    struct stat st;
    if (fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT)
        Unreadable(path);
      return entry;
    }
    entry.exists = true;
    entry.is_dir = S_ISDIR(st.st_mode);
    entry.uid = st.st_uid;
    entry.gid = st.st_gid;
    entry.mode = st.st_mode & 07777;
    return entry;
  }

  unsigned TypeOf(int dir, const char* name, const std::string& path) {
    struct stat st;
    if (fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT)
        Unreadable(path);
      return DT_UNKNOWN;
    }
    return S_ISLNK(st.st_mode) ? DT_LNK : S_ISDIR(st.st_mode) ? DT_DIR
                                      : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
  }

  bool ReadSmall(int dir, const char* name, const std::string& path, size_t limit,
                 std::string* text) {
    UniqueFd fd(openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
      if (errno == ELOOP)
        tree_->symlinks.push_back(path);
      else if (errno != ENOENT)
        Unreadable(path);
      return false;
    }
    text->clear();
    char buffer[8192];
    while (text->size() < limit) {
      ssize_t n = read(fd.get(), buffer, sizeof(buffer));
      if (n < 0 && errno == EINTR)
        continue;
      if (n < 0) {
        Unreadable(path);
        return false;
      }
      if (n == 0)
        break;
      text->append(buffer, n);
    }
    if (text->size() > limit)
      text->resize(limit);
    return true;
  }

  // "<prefix>XXXXXX", the name mkstemp() gives a temporary.
  static bool IsTemp(const char* entry, const char* prefix) {
    size_t length = strlen(prefix);
    return strlen(entry) == length + 6 && strncmp(entry, prefix, length) == 0;
  }

  // The temporaries that the writers of a mail name's .qmail (a reset, a
  // rename's edit) and of its maildirsize leave when killed. The latter
  // lock the Maildir's maildirsize by its physical path.
  void Temporary(const std::string& path, const std::string& relative, const char* entry,
                 const std::string& child) {
    if (relative.empty() && (IsTemp(entry, ".qmail.") || IsTemp(entry, ".qmail.mail."))) {
      tree_->temporaries.push_back({child, path + "/.qmail", path});
    } else if (relative == "Maildir/tmp" && is_maildirsize_temp(entry, host_)) {
      char maildir[PATH_MAX];
      std::string mailbox = path.substr(0, path.size() - relative.size() - 1);
      if (realpath((path + "/..").c_str(), maildir) != nullptr)
        tree_->temporaries.push_back({child, std::string(maildir) + "/maildirsize", mailbox});
    }
  }

  void Unreadable(const std::string& path) {
    tree_->unreadable.push_back(path + ": " + strerror(errno));
  }

  MailTree* tree_;
  bool sizes_;
  bool attachments_;
  char host_[256];
};

}  // namespace

int64_t SizeFromName(const char* name) {
  for (const char* at = strstr(name, ",S="); at; at = strstr(at + 1, ",S=")) {
    const char* digit = at + 3;
    int64_t size = 0;
    const char* end = digit;
    while (*end >= '0' && *end <= '9' && size <= (INT64_MAX - 9) / 10)
      size = size * 10 + (*end++ - '0');
    if (end > digit && (*end == ':' || *end == '\0'))
      return size;
  }
  return -1;
}

MailTree WalkMailTree(const std::string& root, bool sizes, bool attachments) {
  MailTree tree;
  tree.root = root;
  Walker(&tree, sizes, attachments).Root();
  return tree;
}

}  // namespace audit
}  // namespace tavix
