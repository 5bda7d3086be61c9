#include "qmail/delivery.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::exists;
using tavix::test::LogRecorder;
using tavix::test::read_file;
using tavix::test::RunInChild;
using tavix::test::ScratchDir;
using tavix::test::write_file;

const Attributes kDotqmailAttributes{110, 110, 0600};
const char kCourierAgent[] = "/usr/bin/deliverquota";
const char kDovecotAgent[] = "/usr/libexec/dovecot/dovecot-lda";

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

enum Agent { kAbsent, kExecutable, kNotExecutable, kDirectory };

// For a child process: empties the directories of both delivery agents in
// a mount namespace of its own, so each case starts from a machine without
// either (the sandbox shows the host's real Courier agent).
bool hide_agents() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/usr/bin", "tmpfs", 0, "mode=0755") == 0 &&
         mount("tmpfs", "/usr/libexec/dovecot", "tmpfs", 0, "mode=0755") == 0;
}

bool place_agent(const char* path, Agent agent) {
  if (agent == kAbsent) return unlink(path) == 0 || errno == ENOENT;
  if (agent == kDirectory) return mkdir(path, 0755) == 0;
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  // One execute bit, for others only, is enough to count.
  return fd >= 0 && close(fd) == 0 && chmod(path, agent == kExecutable ? 0601 : 0644) == 0;
}

TEST(DeliveryTest, DetectsTheInstalledServer) {
  const std::string not_usable = "Unable to detect IMAP/POP3 server type - LDA is present at '";
  const std::string courier = "kind=0 name=Courier-IMAP component=courier-imap";
  const std::string none = "kind=-1 name= component=";
  const struct {
    const char* title;
    Agent courier, dovecot;
    std::string expected;  // the first line of the report
    std::string logged;    // an error logged, or "" for none
  } cases[] = {
      {"Courier only", kExecutable, kAbsent, courier, ""},
      {"Dovecot only", kAbsent, kExecutable, "kind=1 name=Dovecot component=dovecot", ""},
      {"both: Courier wins", kExecutable, kExecutable, courier, ""},
      {"neither", kAbsent, kAbsent, none,
       "log 3 Unable to detect IMAP/POP3 server type - no LDA found"},
      // A broken Courier agent fails without falling back to Dovecot.
      {"Courier not executable", kNotExecutable, kExecutable, none,
       "log 3 " + not_usable + kCourierAgent + "' but is not a regular file or is not executable"},
      {"Courier a directory", kDirectory, kAbsent, none, kCourierAgent},
      {"Dovecot not executable", kAbsent, kNotExecutable, none, kDovecotAgent},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.title);
    auto child = RunInChild([&c] {
      if (!hide_agents() || !place_agent(kCourierAgent, c.courier) ||
          !place_agent(kDovecotAgent, c.dovecot)) {
        printf("set-up failed: %s\n", strerror(errno));
        return;
      }
      // What detection and the names say, then what was logged, a line each.
      LogRecorder log;
      int kind = detectImapPop3Server();
      printf("kind=%d name=%s component=%s\n", kind, getImapPop3ServerHumanReadableName(),
             getImapPop3ServerParcelmgrComponentName());
      for (const auto& line : log.lines()) printf("log %d %s\n", line.priority, line.text.c_str());
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(0u, child.output.find(c.expected + "\n")) << child.output;
    // No case may log anything but its own error.
    EXPECT_EQ(!c.logged.empty(), contains(child.output, "log ")) << child.output;
    EXPECT_TRUE(contains(child.output, c.logged)) << child.output;
  }
}

// A reset takes the place of the temporaries of resets killed before their
// rename, not of another file's.
TEST(DeliveryTest, ResetRemovesTheTemporariesOfKilledResets) {
  const ScratchDir dir;
  const std::string dotqmail = dir.path(".qmail");
  write_file(dotqmail, "| old\n");
  const struct {
    const char* name;
    bool removed;
  } temps[] = {{".qmail.abcdef", true}, {".qmail-default.abcdef", false}};
  for (const auto& t : temps) write_file(dir.path(t.name), "");
  ASSERT_EQ(0, dotqmail_reset(dotqmail.c_str()));
  EXPECT_EQ("| true\n", read_file(dotqmail));
  EXPECT_TRUE(kDotqmailAttributes == attributes_of(dotqmail));
  for (const auto& t : temps) EXPECT_EQ(!t.removed, exists(dir.path(t.name))) << t.name;
}

// Held .qmail edits leave what the same edits leave on disk, owner and
// mode included, and leave the disk alone until the write.
TEST(DeliveryTest, HeldEditsEndAsTheEditsOnDisk) {
  using Edit = int (*)(const char* path);
  const struct {
    const char* title;
    std::vector<Edit> edits;
  } cases[] = {
      {"a new mailbox", {dotqmail_reset_new, dotqmail_add_delivery}},
      {"a mail name alone", {dotqmail_reset_new}},
      {"a mailbox made twice", {dotqmail_reset, dotqmail_add_delivery, dotqmail_add_delivery}},
      {"a mailbox made and unmade",
       {dotqmail_reset, dotqmail_add_delivery, dotqmail_remove_delivery}},
      {"reset again after its mailbox", {dotqmail_reset, dotqmail_add_delivery, dotqmail_reset}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.title);
    const ScratchDir on_disk, held;
    for (const ScratchDir* dir : {&on_disk, &held}) {
      write_file(dir->path(".qmail"), "| old\n");
      ASSERT_EQ(0, chmod(dir->path(".qmail").c_str(), 0644));
    }
    const std::string disk_path = on_disk.path(".qmail"), held_path = held.path(".qmail");
    for (Edit edit : c.edits) ASSERT_EQ(0, edit(disk_path.c_str()));

    dotqmail_hold();
    for (Edit edit : c.edits) EXPECT_EQ(0, edit(held_path.c_str()));
    EXPECT_EQ("| old\n", read_file(held_path)) << "written before the write";
    EXPECT_EQ(0, dotqmail_write_held());
    dotqmail_end_hold();
    EXPECT_EQ(read_file(disk_path), read_file(held_path));
    EXPECT_TRUE(attributes_of(disk_path) == attributes_of(held_path));
  }
}

// A note whose mail name was removed since writes nothing; ending the hold
// without the write forgets the notes; an edit of a file no reset noted
// goes to disk at once.
TEST(DeliveryTest, HeldNotesOfGoneOrDroppedFiles) {
  const ScratchDir dir;
  const std::string gone = dir.path("gone"), dropped = dir.path("dropped/.qmail");
  const std::string unnoted = dir.path(".qmail");
  ASSERT_EQ(0, mkdir(gone.c_str(), 0700));
  ASSERT_EQ(0, mkdir(dir.path("dropped").c_str(), 0700));
  write_file(unnoted, "| true\n");

  dotqmail_hold();
  ASSERT_EQ(0, dotqmail_reset_new((gone + "/.qmail").c_str()));
  ASSERT_EQ(0, rmdir(gone.c_str()));
  ASSERT_EQ(0, dotqmail_add_delivery(unnoted.c_str()));
  EXPECT_TRUE(contains(read_file(unnoted), "deliverquota")) << "an unnoted file waited";
  EXPECT_EQ(0, dotqmail_write_held());
  EXPECT_FALSE(exists(gone));

  ASSERT_EQ(0, dotqmail_reset_new(dropped.c_str()));
  dotqmail_end_hold();
  EXPECT_FALSE(exists(dropped));
  // The hold has ended: a reset writes at once.
  ASSERT_EQ(0, dotqmail_reset_new(dropped.c_str()));
  EXPECT_EQ("| true\n", read_file(dropped));
}

}  // namespace
