#include "setup/setup.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <iostream>

#include "util/fs.h"

namespace tavix {
namespace setup {

const char* const kProgram = "dravnik-setup";

namespace {

std::string UserName(uid_t uid) {
  const struct passwd* pw = getpwuid(uid);
  return pw ? pw->pw_name : std::to_string(uid);
}

std::string GroupName(gid_t gid) {
  const struct group* gr = getgrgid(gid);
  return gr ? gr->gr_name : std::to_string(gid);
}

std::string ModeText(mode_t mode) {
  char text[8];
  snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

const char* KindName(Kind kind) { return kind == Kind::kDirectory ? "directory" : "file"; }

bool HasKind(const struct stat& st, Kind kind) {
  return kind == Kind::kDirectory ? S_ISDIR(st.st_mode) : S_ISREG(st.st_mode);
}

std::vector<Mismatch> CompareAccess(const struct stat& st, const Access& want) {
  std::vector<Mismatch> found;
  if (st.st_uid != want.uid)
    found.push_back({"owner", UserName(st.st_uid), UserName(want.uid)});
  if (st.st_gid != want.gid)
    found.push_back({"group", GroupName(st.st_gid), GroupName(want.gid)});
  if ((st.st_mode & 07777) != want.mode)
    found.push_back({"mode", ModeText(st.st_mode), ModeText(want.mode)});
  return found;
}

// "owner popuser, mode 0600": what an item had before it was repaired.
std::string Actuals(const std::vector<Mismatch>& mismatches) {
  std::string text;
  for (const Mismatch& m : mismatches)
    text += (text.empty() ? "" : ", ") + m.what + " " + m.actual;
  return text;
}

// ": <system error>" when a failed step left errno set (it was cleared
// before), else nothing: the step's own report then says why.
std::string Reason() { return errno ? std::string(": ") + strerror(errno) : std::string(); }

// Renames a file that --force replaces to "<path>.old-<stamp>"; an older
// copy of that name is never overwritten.
bool KeepOld(const std::string& path, const std::string& stamp, std::ostream& done) {
  std::string old = path + ".old-" + stamp;
  if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, old.c_str(), RENAME_NOREPLACE) != 0) {
    Error(path + ": cannot keep it as " + old + ": " + strerror(errno));
    return false;
  }
  done << path << ": kept as " << old << "\n";
  return true;
}

bool SetAccess(const Item& item) {
  if (item.set_access)
    return item.set_access();
  const Access& want = *item.access;
  return file_set_perms(item.path.c_str(), want.uid, want.gid, want.mode) == 0;
}

// Creates the item when `missing`, then gives it its owner and mode when
// they differ, and makes sure that it is in order now.
bool MakeAndFix(const Item& item, bool missing) {
  errno = 0;
  if (missing && !item.create()) {
    Error(item.path + ": cannot create the " + KindName(item.kind) + Reason());
    return false;
  }
  errno = 0;
  if (Inspect(item).state == Finding::kWrongAccess && !SetAccess(item)) {
    Error(item.path + ": cannot set owner and mode " + Describe(*item.access) + Reason());
    return false;
  }
  Finding now = Inspect(item);
  if (now.state != Finding::kInOrder) {
    Error(Problems(item, now).front() + " (after setting it up)");
    return false;
  }
  return true;
}

bool PrepareItem(const Item& item, const PrepareOptions& options, std::ostream& done) {
  if (!item.access) {
    Error(item.path + ": its owner's account is missing");
    return false;
  }
  Finding before = Inspect(item);
  if (before.state == Finding::kUnreadable) {
    Error(Problems(item, before).front());
    return false;
  }
  // Never removed here: whatever is in the way may be someone's data.
  if (before.state == Finding::kWrongKind) {
    Error(Problems(item, before).front() + "; move it out of the way and run again");
    return false;
  }
  if (options.force && item.renewable && before.state != Finding::kMissing) {
    if (!KeepOld(item.path, options.stamp, done))
      return false;
    before.state = Finding::kMissing;
  }
  if (!MakeAndFix(item, before.state == Finding::kMissing))
    return false;
  if (before.state == Finding::kMissing)
    done << item.path << ": created " << KindName(item.kind) << " " << Describe(*item.access)
         << "\n";
  else if (before.state == Finding::kWrongAccess)
    done << item.path << ": set to " << Describe(*item.access) << " (was "
         << Actuals(before.mismatches) << ")\n";
  return true;
}

}  // namespace

Finding Inspect(const Item& item) {
  Finding finding;
  struct stat st;
  if (stat(item.path.c_str(), &st) != 0) {
    finding.state = errno == ENOENT ? Finding::kMissing : Finding::kUnreadable;
    finding.reason = strerror(errno);
    return finding;
  }
  if (!HasKind(st, item.kind)) {
    finding.state = Finding::kWrongKind;
    return finding;
  }
  if (item.access) {
    finding.mismatches = CompareAccess(st, *item.access);
    if (!finding.mismatches.empty())
      finding.state = Finding::kWrongAccess;
  }
  return finding;
}

std::vector<std::string> Problems(const Item& item, const Finding& finding) {
  const std::string& path = item.path;
  switch (finding.state) {
    case Finding::kInOrder:
      return {};
    case Finding::kMissing:
      return {path + ": missing " + KindName(item.kind)};
    case Finding::kWrongKind:
      return {path + ": not a " + (item.kind == Kind::kDirectory ? "directory" : "regular file")};
    case Finding::kUnreadable:
      return {path + ": cannot be examined: " + finding.reason};
    case Finding::kWrongAccess:
      break;
  }
  std::vector<std::string> lines;
  for (const Mismatch& m : finding.mismatches)
    lines.push_back(path + ": " + m.what + " " + m.actual + ", expected " + m.expected);
  return lines;
}

int Check(const std::vector<Item>& items, std::ostream& out) {
  int count = 0;
  for (const Item& item : items) {
    for (const std::string& line : Problems(item, Inspect(item))) {
      out << line << "\n";
      ++count;
    }
  }
  out.flush();
  return count;
}

bool Prepare(const std::vector<Item>& items, const PrepareOptions& options, std::ostream& done) {
  for (const Item& item : items) {
    bool ok = PrepareItem(item, options, done);
    done.flush();
    if (!ok)
      return false;
  }
  return true;
}

std::string Timestamp() {
  time_t now = time(nullptr);
  struct tm local;
  char text[32];
  if (!localtime_r(&now, &local) || strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local) == 0)
    return std::to_string(now);  // still unique per second, still sortable
  return text;
}

void Error(const std::string& message) {
  std::cerr << kProgram << ": " << message << std::endl;
}

void Warning(const std::string& message) { Error("warning: " + message); }

std::string Describe(const Access& access) {
  return UserName(access.uid) + ":" + GroupName(access.gid) + " " + ModeText(access.mode);
}

}  // namespace setup
}  // namespace tavix
