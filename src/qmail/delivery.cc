#include "qmail/delivery.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

#include "qmail/line_file.h"
#include "qmail/lock.h"
#include "qmail/paths.h"
#include "util/atomic_file.h"
#include "util/fs.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"
#include "util/strings.h"
#include "util/unique_free.h"

namespace {

const int kLogError = 3;
const int kLogWarning = 4;

// Mailboxes and their delivery files belong to the account the IMAP/POP3
// server reads them as.
const char* const kMailboxOwner = "popuser";
const mode_t kDotqmailMode = 0600;
// A reset writes "<.qmail>.XXXXXX" beside the file it replaces.
const char kResetTempInfix[] = ".";

struct ImapPop3Server {
  const char* agent;          // the local delivery agent probed for
  const char* delivery_line;  // the .qmail line that hands mail to it
  const char* human_name;
  const char* component;
};

// Indexed by kind, in the order they are probed: Courier wins when both
// are installed.
const ImapPop3Server kServers[] = {
    {"/usr/bin/deliverquota", "| /usr/bin/deliverquota ./Maildir",
     "Courier-IMAP", "courier-imap"},
    {"/usr/libexec/dovecot/dovecot-lda",
     "| /usr/libexec/dovecot/dovecot-lda -d \"$DELIVERED_TO\"", "Dovecot",
     "dovecot"},
};
const int kServerCount = sizeof(kServers) / sizeof(kServers[0]);

// Every delivery line this program writes or once wrote ("./Maildir/" is
// the older form); they are all removed before a new one goes in, so a
// mailbox never gets two deliveries.
const char* const kDeliveryLines[] = {
    "./Maildir/",
    kServers[kImapPop3Courier].delivery_line,
    kServers[kImapPop3Dovecot].delivery_line,
    nullptr,
};

// The server found, remembered for the process; unknown is not
// remembered, so that an agent installed meanwhile is found.
int detected_kind = kImapPop3Unknown;

// The first server whose agent exists, with the agent's stat; unknown when
// none does.
int find_installed_server(struct stat* agent) {
  for (int kind = 0; kind < kServerCount; ++kind) {
    if (stat(kServers[kind].agent, agent) == 0)
      return kind;
  }
  return kImapPop3Unknown;
}

bool is_executable_file(const struct stat& info) {
  return S_ISREG(info.st_mode) &&
         (info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

const ImapPop3Server* detected_server() {
  int kind = detectImapPop3Server();
  return kind == kImapPop3Unknown ? nullptr : &kServers[kind];
}

using MailPathBuilder = std::string (*)(const std::string& domain,
                                        const std::string& mailname);

// get_mailhome_path() and get_dotqmail_path(); `what` names the path in the
// message about a short buffer.
int format_mail_path(char* buffer, size_t size, const char* mailname,
                     const char* domain, MailPathBuilder build,
                     const char* what) {
  if (!is_mailname_valid(mailname) || domain == nullptr || *domain == '\0') {
    messlog2(0, 0, "empty mailname or maildomain");
    return -1;
  }
  int rc = 0;
  tavix::unique_free<char> ascii(idn_toascii(domain, &rc));
  if (!ascii) {
    messlog2(0, 0, "idn_toascii(%s) failed: %s", domain, idn_strerror(rc));
    return -1;
  }
  std::string path = build(ascii.get(), mailname);
  strtolower(&path[0]);
  if (path.size() >= size) {
    messlog2(0, 0,
             "Either domain name '%s' or mailname '%s' are too long to store "
             "%s in the provided buffer",
             domain, mailname, what);
    return -1;
  }
  memcpy(buffer, path.c_str(), path.size() + 1);
  return 0;
}

// How writing a .qmail ended: done, nothing made, or a new file made but
// not put in place.
enum class Written { kDone, kNotMade, kNotPlaced };

// Writes `text` as the .qmail `path`, owned by popuser with mode 0600; the
// caller holds its lock where one is needed (see write_noted()). `home`,
// when not -1, is the file's directory, already open. Reports a file not
// made; errno tells why one was not placed.
Written write_dotqmail(const char* path, int home, const std::string& text) {
  // Written beside the old one and renamed over it, so that the mail user
  // cannot have it written through a link planted at the name.
  tavix::AtomicFile file;
  std::string const temp = tavix::name_beside(path, std::string(kResetTempInfix) + "XXXXXX");
  bool const made =
      home == -1 ? file.create(path, temp, tavix::AtomicFile::Temp::kUnique, kDotqmailMode)
                 : file.create_in(home, tavix::name_beside(path, ""), temp,
                                  tavix::AtomicFile::Temp::kUnique, kDotqmailMode);
  if (!made) {
    tavix_log(kLogError, "Unable to open '%s': %s", path, strerror(errno));
    return Written::kNotMade;
  }
  // The owner and mode are the new file's before it takes the name.
  if (fd_set_user_mode(file.fd(), path, kMailboxOwner, kDotqmailMode) != 0)
    return Written::kNotMade;
  if (!file.write(text) || !file.commit())
    return Written::kNotPlaced;
  return Written::kDone;
}

// Writes the reset contents of `path`; the caller holds its lock.
int write_reset(const char* path) {
  switch (write_dotqmail(path, -1, std::string(kDiscardLine) + "\n")) {
    case Written::kDone:
      return 0;
    case Written::kNotMade:
      return -1;
    case Written::kNotPlaced:
      break;
  }
  // No .qmail at all is better than a wrong one: qmail then delivers by
  // its default instead of to whatever the old file said.
  int write_errno = errno;
  tavix::unlink_nofollow(path);
  tavix_log(kLogError, "Unable to write to '%s': %s", path, strerror(write_errno));
  return -1;
}

int give_to_mailbox_owner(const char* path) {
  return file_set_user_mode(path, kMailboxOwner, kDotqmailMode);
}

// The .qmail of mailname@domain, for the add and remove entry points.
using DotqmailEdit = int (*)(const char* path);

int edit_mailname_dotqmail(const char* mailname, const char* domain,
                           DotqmailEdit edit) {
  char path[4096];
  if (get_dotqmail_path(path, sizeof(path), mailname, domain) != 0)
    return -1;
  return edit(path);
}

}  // namespace

int detectImapPop3Server() {
  if (detected_kind != kImapPop3Unknown)
    return detected_kind;

  struct stat agent;
  int candidate = find_installed_server(&agent);
  if (candidate == kImapPop3Unknown) {
    tavix_log(kLogError,
              "Unable to detect IMAP/POP3 server type - no LDA found");
    return kImapPop3Unknown;
  }
  // A broken agent of the preferred server is reported, not passed over:
  // the other server's agent may be a leftover, and mail handed to it
  // would land where the serving IMAP/POP3 server does not look.
  if (!is_executable_file(agent)) {
    tavix_log(kLogError,
              "Unable to detect IMAP/POP3 server type - LDA is present at "
              "'%s' but is not a regular file or is not executable",
              kServers[candidate].agent);
    detected_kind = kImapPop3Unknown;
    return kImapPop3Unknown;
  }
  detected_kind = candidate;
  return detected_kind;
}

const char* getImapPop3ServerHumanReadableName() {
  const ImapPop3Server* server = detected_server();
  return server ? server->human_name : "";
}

const char* getImapPop3ServerParcelmgrComponentName() {
  const ImapPop3Server* server = detected_server();
  return server ? server->component : "";
}

int get_mailhome_path(char* buffer, size_t size, const char* mailname,
                      const char* domain) {
  return format_mail_path(buffer, size, mailname, domain,
                          tavix::qmail::mailname_dir, "mailname home path");
}

int get_dotqmail_path(char* buffer, size_t size, const char* mailname,
                      const char* domain) {
  return format_mail_path(buffer, size, mailname, domain,
                          tavix::qmail::dotqmail_file, ".qmail path");
}

namespace {

// Runs `write` on the .qmail `path` under its lock.
int write_locked(const char* path, bool tidy, const std::function<int()>& write) {
  // The lock the delivery line edits take (qmail/line_file.h): a reset
  // does not race them, and every temporary beside the file is written
  // under it.
  tavix::ScopedLock lock(mk_lock(path, 1));
  if (!lock.locked()) {
    tavix_log(kLogError, "Error occurred while locking the file %s: %s", path, strerror(errno));
    return -1;
  }
  // A run killed between writing its new .qmail and the rename left the
  // temporary file behind; under the file's lock none of them is in use.
  if (tidy)
    tavix::tidy_stale_temps(path, kResetTempInfix);
  int result = write();
  if (lock.release() != 0) {
    tavix_log(kLogError, "Error occurred while unlocking the file %s: %s", path,
              strerror(errno));
    return -1;
  }
  return result;
}

// --- Held .qmail files ------------------------------------------------------
//
// A batch adds a mail name (its .qmail reset) and its mailbox (the delivery
// line) in separate commands, each of which would lock, read and replace
// the file. While held, a reset only notes the new contents, and the later
// edits of that file change the note; the file is written once, as a reset
// then writes it. No descriptor is kept per note: a checkpoint may note
// tens of thousands of them.

struct HeldDotqmail {
  std::string text;   // whole lines, as the edits on disk would leave them
  // Its directory was not made by this run: the write looks for the
  // temporaries of killed resets, under the lock.
  bool tidy = false;
};

struct DotqmailHolding {
  bool active = false;
  std::map<std::string, HeldDotqmail> files;  // by path
};

DotqmailHolding& dotqmail_holding() {
  static DotqmailHolding state;
  return state;
}

HeldDotqmail* held_dotqmail(const char* path) {
  DotqmailHolding& state = dotqmail_holding();
  if (!state.active)
    return nullptr;
  auto found = state.files.find(path);
  return found == state.files.end() ? nullptr : &found->second;
}

// Takes the lines equal to one of `drop` out of `held`, as an exact
// removal from the file would.
void drop_held_lines(HeldDotqmail* held, const char* const* drop) {
  std::string kept;
  for (size_t start = 0, end; start < held->text.size(); start = end + 1) {
    end = held->text.find('\n', start);
    std::string const line = held->text.substr(start, end - start);
    bool dropped = false;
    for (const char* const* given = drop; *given && !dropped; ++given)
      dropped = line == *given;
    if (!dropped)
      kept += line + "\n";
  }
  held->text = std::move(kept);
}

int note_reset(const char* path, bool tidy) {
  dotqmail_holding().files[path] = HeldDotqmail{std::string(kDiscardLine) + "\n", tidy};
  return 0;
}

// Writes a noted file through its directory, opened once. A directory gone
// since (its mail name removed by a later command) leaves nothing to write.
bool write_noted(const std::string& path, const HeldDotqmail& held) {
  std::string dir;
  std::string name;
  tavix::split_path(path.c_str(), &dir, &name);
  tavix::UniqueFd home(tavix::open_dir_nofollow(dir.c_str()));
  if (!home) {
    if (errno == ENOENT)
      return true;
    tavix_log(kLogError, "Unable to open '%s': %s", path.c_str(), strerror(errno));
    return false;
  }
  // A file not placed leaves the old one: the checkpoint whose write
  // failed is undone, and the old file goes with what it restores.
  auto write = [&] {
    switch (write_dotqmail(path.c_str(), home.get(), held.text)) {
      case Written::kDone:
        return 0;
      case Written::kNotPlaced:
        tavix_log(kLogError, "Unable to write to '%s': %s", path.c_str(), strerror(errno));
        return -1;
      default:
        return -1;
    }
  };
  // In a directory this run made, no killed run left a temporary, and
  // there was no file for an edit of another run to read and rewrite while
  // this one is renamed into place (the only other writer, a reset, comes
  // with an edit of users/assign, which the hold keeps locked): the lock
  // would keep nothing apart. A new mailbox thus costs no lock file.
  if (!held.tidy)
    return write() == 0;
  return write_locked(path.c_str(), true, write) == 0;
}

}  // namespace

void dotqmail_hold() { dotqmail_holding().active = true; }

int dotqmail_write_held() {
  DotqmailHolding& state = dotqmail_holding();
  bool ok = true;
  for (const auto& entry : state.files)
    ok = write_noted(entry.first, entry.second) && ok;
  state.files.clear();
  return ok ? 0 : 1;
}

void dotqmail_end_hold() {
  DotqmailHolding& state = dotqmail_holding();
  state.files.clear();
  state.active = false;
}

const char kDiscardLine[] = "| true";

int is_delivery_line(const char* line) {
  for (const char* const* known = kDeliveryLines; *known; ++known)
    if (strcmp(line, *known) == 0)
      return 1;
  return 0;
}

int dotqmail_reset(const char* path) {
  if (dotqmail_holding().active)
    return note_reset(path, true);
  return write_locked(path, true, [path] { return write_reset(path); });
}

int dotqmail_reset_new(const char* path) {
  if (dotqmail_holding().active)
    return note_reset(path, false);
  return write_locked(path, false, [path] { return write_reset(path); });
}

int dotqmail_remove_delivery_strings(const char* path) {
  if (HeldDotqmail* held = held_dotqmail(path)) {
    drop_held_lines(held, kDeliveryLines);
    return 0;
  }
  if (file_strings(path, kDeliveryLines, kLinesRemove, 1) != 0) {
    tavix_log(kLogWarning, "Unable to remove old delivery strings from '%s'",
              path);
    return -1;
  }
  return 0;
}

int dotqmail_add_delivery(const char* path) {
  const ImapPop3Server* server = detected_server();
  if (server == nullptr)
    return -1;
  const char* const lines[] = {server->delivery_line, nullptr};
  // A noted file is written with the mailbox owner and mode anyway.
  if (HeldDotqmail* held = held_dotqmail(path)) {
    drop_held_lines(held, kDeliveryLines);
    held->text += std::string(server->delivery_line) + "\n";
    return 0;
  }
  switch (file_remove_append(path, kDeliveryLines, lines)) {
    case 0:
      return give_to_mailbox_owner(path);
    case kRemoveFailed:
      tavix_log(kLogWarning, "Unable to remove old delivery strings from '%s'", path);
      return -1;
    default:
      tavix_log(kLogError, "Unable to add delivery string to '%s'", path);
      return -1;
  }
}

int dotqmail_remove_delivery(const char* path) {
  if (dotqmail_remove_delivery_strings(path) != 0)
    return -1;
  return held_dotqmail(path) ? 0 : give_to_mailbox_owner(path);
}

int add_mailname_delivery(const char* mailname, const char* domain) {
  return edit_mailname_dotqmail(mailname, domain, dotqmail_add_delivery);
}

int remove_mailname_delivery(const char* mailname, const char* domain) {
  return edit_mailname_dotqmail(mailname, domain, dotqmail_remove_delivery);
}
