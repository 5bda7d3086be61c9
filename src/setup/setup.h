// Checking and preparing the files and directories a host needs, described
// as a table of items: where each lives, what it is, who owns it with which
// mode, and how it is made when missing.
//
// The same table serves both jobs, so what --check reports is exactly what
// a plain run repairs.
#ifndef DRAVNIK_SETUP_SETUP_H_
#define DRAVNIK_SETUP_SETUP_H_

#include <sys/types.h>

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tavix {
namespace setup {

// The name every message of the tool begins with.
extern const char* const kProgram;

enum class Kind { kDirectory, kFile };

struct Access {
  uid_t uid;
  gid_t gid;
  mode_t mode;
};

struct Item {
  std::string path;
  Kind kind;
  // Unknown while an account it names is missing; then only the item's
  // presence and kind are checked.
  std::optional<Access> access;
  // Makes the missing item, and the directories above it. False on failure,
  // with errno set when a system call was the cause.
  std::function<bool()> create;
  // Gives the existing item its owner and mode, for items whose owner has a
  // setter of its own; file_set_perms() when empty. As `create` on failure.
  std::function<bool()> set_access;
  // A database or key: re-created by --force, the old file kept beside.
  bool renewable = false;
};

// One attribute that differs: "owner", "popuser", "root".
struct Mismatch {
  std::string what;
  std::string actual;
  std::string expected;
};

// What is wrong with an item on disk.
struct Finding {
  enum State { kInOrder, kMissing, kWrongKind, kWrongAccess, kUnreadable };
  State state = kInOrder;
  std::vector<Mismatch> mismatches;  // kWrongAccess
  std::string reason;                // kUnreadable: why stat() failed
};

Finding Inspect(const Item& item);
// The finding as lines for --check, each beginning with the item's path
// ("/x: mode 0600, expected 0644"); none when the item is in order.
std::vector<std::string> Problems(const Item& item, const Finding& finding);

// Writes every problem of every item on `out`, one line each; their count.
int Check(const std::vector<Item>& items, std::ostream& out);

struct PrepareOptions {
  // Re-create the renewable items that exist, after renaming each to
  // "<path>.old-<stamp>".
  bool force = false;
  std::string stamp;
};

// Creates what is missing and repairs owners and modes, item by item in
// table order, telling `done` what it changed (one line each). Stops at the
// first failure, which is reported on standard error; false then.
bool Prepare(const std::vector<Item>& items, const PrepareOptions& options, std::ostream& done);

// "YYYYmmddHHMMSS" of the local time now, for the names of kept files.
std::string Timestamp();

// Lines on standard error: "dravnik-setup: <message>" and
// "dravnik-setup: warning: <message>".
void Error(const std::string& message);
void Warning(const std::string& message);

// "user:group mode" as a message shows it, by name where the ids have one.
std::string Describe(const Access& access);

}  // namespace setup
}  // namespace tavix

#endif  // DRAVNIK_SETUP_SETUP_H_
