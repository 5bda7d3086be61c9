#include "qmail/maildirpp.h"

#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "qmail/lock.h"
#include "qmail/paths.h"
#include "util/account.h"
#include "util/atomic_file.h"
#include "util/fs.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/strings.h"
#include "util/unique_free.h"

namespace {

using tavix::UniqueFd;

const int kLogError = 3;
const int64_t kNoLimit = INT64_MAX;
const size_t kMaxPath = 4096;
// A longer maildirsize is due for a rewrite by the delivery agent; its
// lines are not summed but the mailbox is counted afresh.
const size_t kMaxMaildirsize = 5120;
// The header and the first usage line always fit: at most 83 characters.
const size_t kMaxMaildirsizeText = 99;
const int kCreateAttempts = 5;
const unsigned kRetryDelaySeconds = 2;
// Readers trust a maildirsize for 15 minutes; one dated back further than
// that is counted again by the next reader.
const time_t kOutdatedBy = 960;
// Ends the names of the temporary files a new maildirsize is written to,
// "tmp/<seconds>.<pid>.<host>-maildirsize". The delivery agents name their
// temporaries otherwise, so a file with this ending is one of ours.
const char kTempSuffix[] = "-maildirsize";

// Messages keep errno: the caller may still report the cause.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
  int saved = errno;
  va_list ap;
  va_start(ap, format);
  vmesslog2(0, 0, format, ap);
  va_end(ap);
  errno = saved;
}

// Work on a Maildir is done from inside it. enter() saves the working
// directory and changes into another; the destructor goes back, on every
// way out, so no caller is left in a mailbox.
class DirVisit {
 public:
  DirVisit() = default;
  DirVisit(const DirVisit&) = delete;
  DirVisit& operator=(const DirVisit&) = delete;
  ~DirVisit() {
    if (!saved_)
      return;
    int saved_errno = errno;
    if (fchdir(saved_.get()) != 0)
      say("unable to change back to the previous working directory: %s",
          strerror(errno));
    errno = saved_errno;
  }

  // `what` names the directory in the failure message; a relative `path`
  // starts at the directory `at`.
  bool enter(const char* path, const char* what, int at = AT_FDCWD) {
    UniqueFd here(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!here) {
      say("unable to get current working directory");
      return false;
    }
    // The mail user owns the mailbox: a directory of it swapped for a link
    // must not take the run (and the files it writes) elsewhere.
    UniqueFd there(tavix::open_dir_nofollow(path, at));
    if (!there || fchdir(there.get()) != 0) {
      say("unable to change to %s %s: %s", what, path, strerror(errno));
      return false;
    }
    saved_ = std::move(here);
    there_ = std::move(there);
    return true;
  }
  // The directory entered.
  int dir() const { return there_.get(); }

 private:
  UniqueFd saved_;
  UniqueFd there_;
};

bool is_dot_or_dotdot(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Maildir++ folders are the Maildir's dot-directories. The trash does not
// count: deleting mail must be able to bring a mailbox under its quota.
bool is_counted_folder(const char* name) {
  return name[0] == '.' && !is_dot_or_dotdot(name) &&
         strcmp(name, ".Trash") != 0;
}

// "dir/name" into `*path`; false when that would not fit a path buffer.
bool join(std::string* path, const std::string& dir, const char* name) {
  *path = dir + "/" + name;
  return path->size() < kMaxPath;
}

// The size a delivery agent put into a message's name, as 2048 in
// "1234.host,S=2048:2,S"; -1 when the name holds none.
int64_t size_from_name(const char* name) {
  for (const char* mark = strstr(name, ",S="); mark;
       mark = strstr(mark + 3, ",S=")) {
    const char* digit = mark + 3;
    int64_t size = 0;
    bool overflow = false;
    for (; isdigit(static_cast<unsigned char>(*digit)); ++digit)
      overflow |= __builtin_mul_overflow(size, 10, &size) ||
                  __builtin_add_overflow(size, *digit - '0', &size);
    if (digit > mark + 3 && !overflow && (*digit == ':' || *digit == '\0'))
      return size;
  }
  return -1;
}

struct Usage {
  int64_t bytes = 0;
  int64_t count = 0;
  time_t newest = 0;  // of the directories read
};

// Adds the messages of one message directory (new/ or cur/) to `usage`.
bool scan_messages(const std::string& dir, Usage* usage) {
  tavix::DirReader listing(UniqueFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  struct stat info;
  if (!listing || fstat(listing.fd(), &info) != 0) {
    say("unable to read Maildir folder %s: %s", dir.c_str(), strerror(errno));
    return false;
  }
  usage->newest = std::max(usage->newest, info.st_mtime);
  std::string path;
  for (;;) {
    errno = 0;
    const struct dirent64* entry = listing.next();
    if (!entry)
      break;
    if (is_dot_or_dotdot(entry->d_name))
      continue;
    int64_t size = size_from_name(entry->d_name);
    if (size < 0) {
      if (!join(&path, dir, entry->d_name)) {
        errno = ENAMETOOLONG;
        say("message name too long in Maildir folder %s", dir.c_str());
        return false;
      }
      if (lstat(path.c_str(), &info) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
          continue;  // moved or expunged while we were counting
        say("unable to check message %s: %s", path.c_str(), strerror(errno));
        return false;
      }
      size = info.st_size;
    }
    usage->bytes += size;
    usage->count += 1;
  }
  if (errno != 0) {
    say("unable to read Maildir folder %s: %s", dir.c_str(), strerror(errno));
    return false;
  }
  return true;
}

// Adds new/ and cur/ of a folder ("" for the Maildir itself).
bool scan_folder(const std::string& folder, Usage* usage) {
  for (const char* sub : {"new", "cur"}) {
    std::string dir;
    if (folder.empty()) {
      dir = sub;
    } else if (!join(&dir, folder, sub)) {
      errno = ENAMETOOLONG;
      say("Maildir folder name %s too long", folder.c_str());
      return false;
    }
    if (!scan_messages(dir, usage))
      return false;
  }
  return true;
}

// Calls visit(entry) for each entry of the Maildir (the current directory)
// whose name is that of a counted folder. false when visit() returns false,
// or after `listing_failure` was reported when the Maildir cannot be listed.
template <typename Visit>
bool for_each_folder_entry(const char* listing_failure, Visit visit) {
  tavix::DirReader maildir(UniqueFd(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (!maildir) {
    say("%s", listing_failure);
    return false;
  }
  for (;;) {
    errno = 0;
    const struct dirent64* entry = maildir.next();
    if (!entry)
      break;
    if (is_counted_folder(entry->d_name) && !visit(*entry))
      return false;
  }
  if (errno != 0) {
    say("%s", listing_failure);
    return false;
  }
  return true;
}

// The newest modification time of the message directories of the Maildir
// (the current directory) and of its folders, found after the file was
// written.
bool newest_message_dir_mtime(const char* maildir, time_t* newest) {
  *newest = 0;
  if (!get_maildirpp_folder_mtime(".", newest))
    return false;
  return for_each_folder_entry(
      "Unable to open Maildir folder. Has it just been removed?",
      [&](const struct dirent64& entry) {
        bool is_dir = entry.d_type == DT_DIR;
        if (entry.d_type == DT_UNKNOWN) {
          struct stat info;
          if (stat(entry.d_name, &info) != 0) {
            say("unable to check Maildir entry %s: %s", entry.d_name,
                strerror(errno));
            return false;
          }
          is_dir = S_ISDIR(info.st_mode);
        }
        if (!is_dir) {
          say("Bad/unrecognized entry %s within Maildir folder %s\n",
              entry.d_name, maildir);
          return true;
        }
        return get_maildirpp_folder_mtime(entry.d_name, newest) == 1;
      });
}

// Mail delivered while the usage was being counted may be missing from the
// count. Then the file is dated back, so that the next reader counts again.
void outdate_if_changed(const char* maildir, time_t scanned) {
  time_t newest;
  if (newest_message_dir_mtime(maildir, &newest) && newest <= scanned)
    return;
  struct timespec times[2] = {};
  times[0].tv_nsec = UTIME_NOW;
  times[1].tv_sec = scanned - kOutdatedBy;
  if (utimensat(AT_FDCWD, "maildirsize", times, AT_SYMLINK_NOFOLLOW) != 0)
    say("unable to date back %s/maildirsize: %s", maildir, strerror(errno));
}

// What names a writer's temporary files and sets their mode: looked up
// once for all the Maildirs written in a row.
struct Writer {
  char host[HOST_NAME_MAX + 1];
  pid_t pid;
  mode_t umask;

  bool look_up() {
    if (gethostname(host, sizeof(host)) != 0) {
      say("Unable to receive hostname");
      return false;
    }
    host[HOST_NAME_MAX] = '\0';
    pid = getpid();
    umask = ::umask(022);
    ::umask(umask);
    return true;
  }
};

// Starts a new maildirsize in tmp/ of the Maildir `maildir` (open), like
// any delivery. Time, process and host in the name keep concurrent writers
// apart; the file is created exclusively and never through a link. A name
// that is taken is tried again after a pause.
bool create_maildirsize(int maildir, const Writer& writer, tavix::AtomicFile* file) {
  for (int attempt = 1;; ++attempt) {
    char name[kMaxPath];
    int length = snprintf(name, sizeof(name), "tmp/%lu.%u.%s%s",
                          static_cast<unsigned long>(time(nullptr)),
                          static_cast<unsigned>(writer.pid), writer.host, kTempSuffix);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(name)) {
      errno = ENAMETOOLONG;
      say("host name is too long to be used in filename");
      return false;
    }
    if (file->create_in(maildir, "maildirsize", name, tavix::AtomicFile::Temp::kExclusive, 0644))
      return true;
    if (attempt == kCreateAttempts)
      break;
    sleep(kRetryDelaySeconds);
  }
  errno = EAGAIN;
  say("Maximal allowed number of attempts to create a maildirsize file "
      "exceeded");
  return false;
}

// Runs of this program that rewrite one Maildir's maildirsize take turns,
// so that a temporary of ours found in tmp/ by the run holding the lock
// was left by a run killed before its rename. Keyed by the physical path
// of the current directory (the Maildir), however the caller spelled it.
lock_handle* lock_maildirsize() {
  char here[kMaxPath];
  if (getcwd(here, sizeof(here)) == nullptr)
    return nullptr;
  return mk_lock((std::string(here) + "/maildirsize").c_str(), 1);
}

}  // namespace

// Those of other hosts sharing the Maildir are not kept out by our lock,
// and the delivery agents' files never match.
bool is_maildirsize_temp(const char* name, const char* host) {
  const char* rest = name;
  for (int field = 0; field < 2; ++field) {
    const char* digits = rest;
    while (isdigit(static_cast<unsigned char>(*rest)))
      ++rest;
    if (rest == digits || *rest != '.')
      return false;
    ++rest;
  }
  size_t host_length = strlen(host);
  return strncmp(rest, host, host_length) == 0 &&
         strcmp(rest + host_length, kTempSuffix) == 0;
}

namespace {

// Removes from tmp/ of the current Maildir the temporaries of our runs
// killed before their rename; only with the maildirsize lock held. Failures
// are reported but do not stop the write.
void remove_stale_maildirsize_temps(const char* maildir, const char* host) {
  tavix::DirReader listing(tavix::open_dir_nofollow("tmp"));
  if (!listing) {
    say("unable to read %s/tmp: %s", maildir, strerror(errno));
    return;
  }
  for (;;) {
    errno = 0;
    const struct dirent64* entry = listing.next();
    if (!entry)
      break;
    if (is_maildirsize_temp(entry->d_name, host) &&
        unlinkat(listing.fd(), entry->d_name, 0) != 0 && errno != ENOENT)
      say("unable to remove %s/tmp/%s: %s", maildir, entry->d_name, strerror(errno));
  }
  if (errno != 0)
    say("unable to read %s/tmp: %s", maildir, strerror(errno));
}

// A quota of 0 must block every delivery, but the limit 0 means "none": it
// becomes the smallest limit there is. A negative quota means no limit.
int64_t size_limit_for(int64_t quota) {
  if (quota > 0)
    return quota;
  return quota == 0 ? 1 : 0;
}

// Attachments kept beside the Maildir (in the mailbox `home`) take their
// share of the quota.
bool subtract_attachments(int home, int64_t* quota) {
  struct stat info;
  if (fstatat(home, "@attachments", &info, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISDIR(info.st_mode))
    return true;
  long long size = get_dir_size_at(home, "@attachments", 0);
  if (size < 0) {
    say("unable to count attachments folder size");
    return false;
  }
  *quota -= size;
  if (*quota < 0) {
    say("WARNING: @attachments directory is big enough to disable delivery!");
    *quota = 0;
  }
  return true;
}

// The mailbox directory R/D/M under the mail names root, names in lower
// case; `ascii_domain` is the domain's IDNA form.
std::string mailbox_dir(const char* ascii_domain, const char* mailname) {
  std::string domain(ascii_domain);
  std::string name(mailname);
  strtolower(&domain[0]);
  strtolower(&name[0]);
  return tavix::qmail::mailname_dir(domain, name);
}

// Reads `path` whole when it holds at most `limit` bytes.
bool read_small_file(const char* path, size_t limit, std::string* text) {
  UniqueFd fd(tavix::open_nofollow(path, O_RDONLY));
  if (!fd)
    return false;
  text->clear();
  char block[1024];
  for (;;) {
    ssize_t got = read(fd.get(), block, sizeof(block));
    if (got == 0)
      return true;
    if (got < 0) {
      if (errno == EINTR)
        continue;
      return false;
    }
    text->append(block, got);
    if (text->size() > limit)
      return false;
  }
}

// Usage and limits from the maildirsize of the current directory; false
// when the file is missing, too long or damaged and the usage must be
// counted instead. The limits are set as soon as the header is read.
bool read_maildirsize(int64_t* bytes, int64_t* count, int64_t* size_limit,
                      int64_t* count_limit) {
  std::string text;
  if (!read_small_file("maildirsize", kMaxMaildirsize, &text) ||
      text.find('\0') != std::string::npos)
    return false;
  size_t end = text.find('\n');
  if (end == std::string::npos ||
      !parse_header_string(text.substr(0, end).c_str(), size_limit,
                           count_limit)) {
    tavix_log(kLogError,
              "maildirsize quota header is corrupted. Please run mbox_fixup "
              "utility to fix.");
    return false;
  }
  int64_t total_bytes = 0;
  int64_t total_count = 0;
  for (size_t start = end + 1; start < text.size(); start = end + 1) {
    end = text.find('\n', start);
    if (end == std::string::npos)
      return false;  // a line still being appended
    int64_t line_bytes;
    int64_t line_count;
    if (!parse_string_common(text.substr(start, end - start).c_str(),
                             &line_bytes, &line_count, 0) ||
        __builtin_add_overflow(total_bytes, line_bytes, &total_bytes) ||
        __builtin_add_overflow(total_count, line_count, &total_count))
      return false;
  }
  if (total_bytes < 0 || total_count < 0)
    return false;
  *bytes = total_bytes;
  *count = total_count;
  return true;
}

// A decimal number as strtoll() reads it (leading blanks and a sign
// allowed); moves `*text` past it. false without digits or on overflow.
bool parse_number(const char** text, int64_t* value) {
  int saved = errno;
  errno = 0;
  char* end;
  long long number = strtoll(*text, &end, 10);
  bool ok = end != *text && errno != ERANGE;
  errno = saved;
  if (!ok)
    return false;
  *value = number;
  *text = end;
  return true;
}

// "<size>", "<size>S" or "<size>" + two characters (the first "S" or the
// second ",") + "<count>C"; "" means no limits at all.
bool parse_header(const char* text, int64_t* size_limit,
                  int64_t* count_limit) {
  if (*text == '\0') {
    *size_limit = 0;
    *count_limit = 0;
    return true;
  }
  int64_t size;
  int64_t messages = 0;
  if (!parse_number(&text, &size) || size < 0)
    return false;
  if (*text != '\0' && strcmp(text, "S") != 0) {
    if (text[1] == '\0' || (text[0] != 'S' && text[1] != ','))
      return false;
    text += 2;
    if (!parse_number(&text, &messages) || strcmp(text, "C") != 0)
      return false;
  }
  *size_limit = size;
  *count_limit = messages;
  return true;
}

// "<bytes><white space><count>", either possibly negative.
bool parse_usage_line(const char* text, int64_t* bytes, int64_t* count) {
  int64_t first;
  int64_t second;
  if (!parse_number(&text, &first) || !isspace(static_cast<unsigned char>(*text)) ||
      !parse_number(&text, &second) || *text != '\0')
    return false;
  *bytes = first;
  *count = second;
  return true;
}

// usage + add > limit, where the limit 0 means none and a negative usage
// counts as nothing.
bool exceeds(int64_t usage, int64_t add, int64_t limit) {
  if (limit == 0)
    limit = kNoLimit;
  if (usage < 0)
    usage = 0;
  int64_t total;
  if (__builtin_add_overflow(usage, add, &total))
    return add > 0;
  return total > limit;
}

// write_maildirpp_maildirsize() with a relative `maildir` starting at the
// directory `at`.
int write_maildirsize_at(int at, const char* maildir, uid_t uid, gid_t gid,
                         int64_t size_limit, int64_t count_limit);

int store_quota_at(int at, const char* maildir, int64_t quota) {
  uid_t uid;
  gid_t gid;
  if (tavix_getpw("popuser", &uid, &gid, nullptr) != 0)
    return 0;
  return write_maildirsize_at(at, maildir, uid, gid, size_limit_for(quota), 0);
}

}  // namespace

int store_mbox_quota(const char* domain, const char* mailname, int64_t quota) {
  int rc = 0;
  tavix::unique_free<char> ascii(idn_toascii(domain, &rc));
  if (!ascii) {
    errno = 0;  // the name is at fault, not the system
    say("idn_toascii(%s) failed: %s", domain, idn_strerror(rc));
    return 0;
  }
  std::string mailbox = mailbox_dir(ascii.get(), mailname);
  if (mailbox.size() >= kMaxPath) {
    errno = 0;
    say("domain and/or user name too long to be stored on the filesystem");
    return 0;
  }
  // Everything below is reached through the mailbox's descriptor: the mail
  // user owns the mailbox, and a directory swapped for a link is not
  // entered.
  UniqueFd home(tavix::open_dir_nofollow(mailbox.c_str()));
  if (!home) {
    say("unable to change to mbox folder %s: %s", mailbox.c_str(), strerror(errno));
    return 0;
  }
  return store_mbox_quota_in(home.get(), quota);
}

int store_mbox_quota_in(int home, int64_t quota) {
  if (quota >= 0 && !subtract_attachments(home, &quota))
    return 0;
  return store_quota_at(home, "./Maildir", quota);
}

int store_maildirpp_quota_raw(const char* maildir, int64_t quota) {
  return store_quota_at(AT_FDCWD, maildir, quota);
}

namespace {

struct QuotaFile {
  uid_t uid;
  gid_t gid;
  int64_t size_limit;
  int64_t count_limit;
};

// Writes the maildirsize of the Maildir that is the current directory,
// open as `dir`; `maildir` names it in messages.
bool write_here(int dir, const char* maildir, const QuotaFile& quota, const Writer& writer,
                bool tidy = true) {
  tavix::ScopedLock lock(lock_maildirsize());
  if (!lock.locked()) {
    say("unable to lock %s/maildirsize: %s", maildir, strerror(errno));
    return false;
  }
  if (tidy)
    remove_stale_maildirsize_temps(maildir, writer.host);
  tavix::AtomicFile temp;
  if (!create_maildirsize(dir, writer, &temp))
    return false;
  // The mode asked for at the creation is the file's unless the umask took
  // some of it away.
  if (!temp.set_owner(quota.uid, quota.gid) ||
      ((0644 & ~writer.umask) != 0644 && !temp.set_mode(0644))) {
    say("unable to set owner and mode of %s/%s: %s", maildir,
        temp.temp_path().c_str(), strerror(errno));
    return false;
  }
  int64_t bytes;
  int64_t count;
  time_t scanned;
  if (!get_maildirpp_messages_usage(&bytes, &count, &scanned))
    return false;

  char text[kMaxMaildirsizeText + 1];
  int length = snprintf(text, sizeof(text),
                        "%" PRId64 "S,%" PRId64 "C\n%12" PRId64 "%12" PRId64
                        "\n",
                        quota.size_limit, quota.count_limit, bytes, count);
  if (length < 1 || static_cast<size_t>(length) > kMaxMaildirsizeText) {
    errno = EINVAL;
    say("maildirsize contents do not fit in %zu characters",
        kMaxMaildirsizeText);
    return false;
  }
  if (!temp.write(std::string_view(text, length))) {
    say("unable to write data to file");
    return false;
  }
  if (!temp.sync()) {
    say("unable to commit written data to file");
    return false;
  }
  if (!temp.commit()) {
    say("unable to rename %s/%s to maildirsize: %s", maildir, temp.temp_path().c_str(),
        strerror(errno));
    return false;
  }
  outdate_if_changed(maildir, scanned);
  return true;
}

// While held, a Maildir's maildirsize is written once, with the last
// limits asked for: a batch gives a new mailbox its file, its password and
// its quota in three commands, and each would rewrite (and recount) it.
// Each entry keeps the Maildir open, so the write lands where the mailbox
// is even if it was renamed since; a Maildir removed since is skipped.
struct HeldQuota {
  UniqueFd dir;
  std::string name;  // as the caller spelled it, for messages
  QuotaFile quota;
};

// Few enough to stay far from the descriptor limit.
const size_t kMaxHeldQuotas = 256;

using DirId = std::pair<dev_t, ino_t>;

struct QuotaHolding {
  bool active = false;
  std::map<DirId, HeldQuota> files;
  // Maildirs made by this run (maildirsize_note_new()), until written.
  std::set<DirId> made;
};

QuotaHolding& quota_holding() {
  static QuotaHolding state;
  return state;
}

bool write_held_quotas() {
  QuotaHolding& state = quota_holding();
  if (state.files.empty())
    return true;
  UniqueFd saved(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!saved) {
    say("unable to get current working directory");
    return false;
  }
  Writer writer;
  if (!writer.look_up())
    return false;
  bool ok = true;
  for (auto& entry : state.files) {
    HeldQuota& held = entry.second;
    struct stat info;
    if (fstat(held.dir.get(), &info) != 0 || fchdir(held.dir.get()) != 0) {
      say("unable to change to Maildir folder %s: %s", held.name.c_str(), strerror(errno));
      ok = false;
      continue;
    }
    if (info.st_nlink == 0)
      continue;  // removed since: nothing left to write
    bool const made = state.made.erase(entry.first) != 0;
    ok = write_here(held.dir.get(), held.name.c_str(), held.quota, writer, !made) && ok;
  }
  state.files.clear();
  if (fchdir(saved.get()) != 0) {
    say("unable to change back to the previous working directory: %s", strerror(errno));
    ok = false;
  }
  return ok;
}

// The held entry of `maildir`, a single name in `at` (a mailbox's
// "./Maildir"), found by a look at the name alone: the commands that give a
// new mailbox its file, its password and its quota each reach it. Null
// when it is not held, or is not a directory there (a link is looked at,
// not followed).
HeldQuota* held_in(int at, const char* maildir) {
  QuotaHolding& state = quota_holding();
  const char* name = maildir;
  while (strncmp(name, "./", 2) == 0)
    name += 2;
  if (state.files.empty() || *name == '\0' || strchr(name, '/') != nullptr)
    return nullptr;
  struct stat info;
  if (fstatat(at, name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(info.st_mode))
    return nullptr;
  auto found = state.files.find(std::make_pair(info.st_dev, info.st_ino));
  return found == state.files.end() ? nullptr : &found->second;
}

// Holds the write of `maildir`, opened as entering it would.
bool hold_quota(int at, const char* maildir, const QuotaFile& quota) {
  QuotaHolding& state = quota_holding();
  // Held already: its descriptor is that directory.
  if (HeldQuota* held = held_in(at, maildir)) {
    held->name = maildir;
    held->quota = quota;
    return true;
  }
  UniqueFd dir(tavix::open_dir_nofollow(maildir, at));
  struct stat info;
  if (!dir || fstat(dir.get(), &info) != 0) {
    say("unable to change to Maildir folder %s: %s", maildir, strerror(errno));
    return false;
  }
  auto key = std::make_pair(info.st_dev, info.st_ino);
  if (state.files.count(key) == 0 && state.files.size() >= kMaxHeldQuotas &&
      !write_held_quotas())
    return false;
  state.files[key] = HeldQuota{std::move(dir), maildir, quota};
  return true;
}

int write_maildirsize_at(int at, const char* maildir, uid_t uid, gid_t gid,
                         int64_t size_limit, int64_t count_limit) {
  QuotaFile quota{uid, gid, size_limit, count_limit};
  if (quota_holding().active)
    return hold_quota(at, maildir, quota) ? 1 : 0;
  Writer writer;
  if (!writer.look_up())
    return 0;
  DirVisit visit;
  if (!visit.enter(maildir, "Maildir folder", at))
    return 0;
  return write_here(visit.dir(), maildir, quota, writer) ? 1 : 0;
}

}  // namespace

int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid,
                                int64_t size_limit, int64_t count_limit) {
  return write_maildirsize_at(AT_FDCWD, maildir, uid, gid, size_limit, count_limit);
}

void maildirsize_hold() { quota_holding().active = true; }

void maildirsize_note_new(int maildir) {
  QuotaHolding& state = quota_holding();
  struct stat info;
  if (state.active && fstat(maildir, &info) == 0)
    state.made.insert(std::make_pair(info.st_dev, info.st_ino));
}

bool maildirsize_holds_descriptor(int fd) {
  for (const auto& entry : quota_holding().files) {
    if (entry.second.dir.get() == fd)
      return true;
  }
  return false;
}

int maildirsize_write_held() {
  QuotaHolding& state = quota_holding();
  bool ok = write_held_quotas();
  state.made.clear();
  state.active = false;
  return ok ? 0 : 1;
}

int get_maildirpp_messages_usage(int64_t* bytes, int64_t* count,
                                 time_t* newest_mtime) {
  *bytes = 0;
  *count = 0;
  *newest_mtime = 0;
  Usage usage;
  if (!scan_folder("", &usage))
    return 0;
  bool listed = for_each_folder_entry(
      "unable to list the folders of the Maildir",
      [&](const struct dirent64& entry) {
        return entry.d_type != DT_DIR || scan_folder(entry.d_name, &usage);
      });
  if (!listed)
    return 0;
  *bytes = usage.bytes;
  *count = usage.count;
  *newest_mtime = usage.newest;
  return 1;
}

int get_maildirpp_folder_mtime(const char* folder, time_t* newest_mtime) {
  for (const char* sub : {"cur", "new"}) {
    std::string path;
    if (!join(&path, folder, sub)) {
      errno = ENAMETOOLONG;
      say("Maildir subfolder '%s' name too long to fit the allowed buffer",
          sub);
      return 0;
    }
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
      errno = EIO;
      say("Maildir subfolder '%s' stat failed", sub);
      return 0;
    }
    *newest_mtime = std::max(*newest_mtime, info.st_mtime);
  }
  return 1;
}

int get_maildirpp_usage_and_limits(const char* maildir, int no_recount,
                                   int64_t* bytes, int64_t* count,
                                   int64_t* size_limit, int64_t* count_limit) {
  if (!write_held_quotas())
    return 0;
  DirVisit visit;
  if (!visit.enter(maildir, "Maildir folder"))
    return 0;
  *size_limit = kNoLimit;
  *count_limit = kNoLimit;
  if (read_maildirsize(bytes, count, size_limit, count_limit))
    return 1;
  if (no_recount)
    return 0;
  time_t newest;
  return get_maildirpp_messages_usage(bytes, count, &newest);
}

int get_maildirpp_usage(const char* maildir, int64_t* bytes, int64_t* count) {
  int64_t size_limit;
  int64_t count_limit;
  return get_maildirpp_usage_and_limits(maildir, 0, bytes, count, &size_limit,
                                        &count_limit);
}

int check_maildirpp_overquota(const char* maildir, int64_t add_bytes,
                              int64_t add_count) {
  int64_t bytes;
  int64_t count;
  int64_t size_limit;
  int64_t count_limit;
  if (!get_maildirpp_usage_and_limits(maildir, 1, &bytes, &count, &size_limit,
                                      &count_limit))
    return 0;
  return exceeds(bytes, add_bytes, size_limit) ||
         exceeds(count, add_count, count_limit);
}

int64_t get_mbox_size(const char* mailname, const char* domain,
                      int in_blocks) {
  int rc = 0;
  tavix::unique_free<char> ascii(idn_toascii(domain, &rc));
  if (!ascii) {
    errno = 0;
    messlog2(1, 1, "idn_toascii() failed: %s", idn_strerror(rc));
  }
  std::string mailbox = mailbox_dir(ascii.get(), mailname) + "/";
  if (mailbox.size() > kMaxPath - 2) {
    errno = 0;
    messlog2(1, 1, "user mailbox path is too long");
  }
  int64_t total = 0;
  std::string attachments = mailbox + "@attachments";
  struct stat info;
  if (lstat(attachments.c_str(), &info) == 0)
    total = std::max(0LL, get_dir_size(attachments.c_str(), in_blocks));
  int64_t bytes;
  int64_t count;
  if (get_maildirpp_usage((mailbox + "Maildir").c_str(), &bytes, &count))
    total += bytes;
  else
    say("Unable to calculate Maildir++ size: %s", strerror(errno));
  return total;
}

int parse_header_string(const char* text, int64_t* size_limit,
                        int64_t* count_limit) {
  if (parse_string_common(text, size_limit, count_limit, 1))
    return 1;
  *size_limit = kNoLimit;
  *count_limit = kNoLimit;
  return 0;
}

int parse_string_common(const char* text, int64_t* a, int64_t* b,
                        int header_mode) {
  if (header_mode)
    return parse_header(text, a, b);
  return parse_usage_line(text, a, b);
}
