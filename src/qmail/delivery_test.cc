#include "qmail/delivery.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::LogRecorder;
using tavix::test::read_file;
using tavix::test::RunInChild;
using tavix::test::ScratchDir;
using tavix::test::set_attributes;
using tavix::test::write_file;

const uid_t kPopuser = 110;
const Attributes kDotqmailAttributes{kPopuser, kPopuser, 0600};
const char kCourierAgent[] = "/usr/bin/deliverquota";
const char kDovecotAgent[] = "/usr/libexec/dovecot/dovecot-lda";
const char kDovecotLine[] = "| /usr/libexec/dovecot/dovecot-lda -d \"$DELIVERED_TO\"\n";

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// --- detection --------------------------------------------------------------

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
  switch (agent) {
    case kAbsent:
      return unlink(path) == 0 || errno == ENOENT;
    case kExecutable:
    case kNotExecutable: {
      int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0) return false;
      close(fd);
      // One execute bit, for others only, is enough to count.
      return chmod(path, agent == kExecutable ? 0601 : 0644) == 0;
    }
    case kDirectory:
      return mkdir(path, 0755) == 0;
  }
  return false;
}

// In a child with hidden agents: what detection and the names say, and
// what was logged, one item a line.
std::string detection_report() {
  LogRecorder log;
  int kind = detectImapPop3Server();
  std::ostringstream report;
  report << "kind=" << kind << " name=" << getImapPop3ServerHumanReadableName()
         << " component=" << getImapPop3ServerParcelmgrComponentName() << "\n";
  for (const auto& line : log.lines())
    report << "log " << line.priority << " " << line.text << "\n";
  return report.str();
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
      printf("%s", detection_report().c_str());
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(0u, child.output.find(c.expected + "\n")) << child.output;
    // No case may log anything but its own error.
    EXPECT_EQ(!c.logged.empty(), contains(child.output, "log ")) << child.output;
    EXPECT_TRUE(contains(child.output, c.logged)) << child.output;
  }
}

// A found server is kept for the rest of the run; a failure is not, so a
// later call finds an agent installed meanwhile.
TEST(DeliveryTest, RemembersAServerButNotAFailure) {
  auto child = RunInChild([] {
    if (!hide_agents()) {
      printf("set-up failed\n");
      return;
    }
    printf("%d", detectImapPop3Server());
    place_agent(kDovecotAgent, kExecutable);
    printf(" %d", detectImapPop3Server());
    place_agent(kDovecotAgent, kAbsent);
    place_agent(kCourierAgent, kExecutable);
    printf(" %d\n", detectImapPop3Server());
  });
  EXPECT_TRUE(contains(child.output, "-1 1 1\n")) << child.output;
}

// --- paths ------------------------------------------------------------------

TEST(DeliveryTest, MailnameHomeAndDotqmailPaths) {
  const struct {
    const char* mailname;
    const char* domain;
    const char* home;     // expected, or null for a failure
    const char* message;  // printed on failure
  } cases[] = {
      {"info", "example.com", "/var/qmail/mailnames/example.com/info", ""},
      {"Info.Desk", "Bücher.Example", "/var/qmail/mailnames/xn--bcher-kva.example/info.desk", ""},
      {"a..b", "example.com", nullptr, "empty mailname or maildomain"},
      {"info", "", nullptr, "empty mailname or maildomain"},
      {"info", "b\xc3\xbc\xff.example", nullptr, "idn_toascii(b"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.domain);
    char buffer[4096];
    auto home = CaptureStreams(
        [&] { return get_mailhome_path(buffer, sizeof(buffer), c.mailname, c.domain); });
    std::string home_path = buffer;
    auto dotqmail = CaptureStreams(
        [&] { return get_dotqmail_path(buffer, sizeof(buffer), c.mailname, c.domain); });
    if (c.home == nullptr) {
      EXPECT_EQ(-1, home.result);
      EXPECT_EQ(-1, dotqmail.result);
      EXPECT_TRUE(contains(home.err, c.message)) << home.err;
      EXPECT_TRUE(contains(dotqmail.err, c.message)) << dotqmail.err;
    } else {
      ASSERT_EQ(0, home.result) << home.err;
      ASSERT_EQ(0, dotqmail.result) << dotqmail.err;
      EXPECT_EQ(c.home, home_path);
      EXPECT_EQ(std::string(c.home) + "/.qmail", buffer);
    }
  }

  // The path must fit the buffer with its NUL.
  const std::string path = "/var/qmail/mailnames/example.com/info/.qmail";
  std::vector<char> buffer(path.size() + 1);
  auto fits = CaptureStreams(
      [&] { return get_dotqmail_path(buffer.data(), buffer.size(), "info", "example.com"); });
  EXPECT_EQ(0, fits.result);
  EXPECT_EQ(path, buffer.data());
  auto too_short = CaptureStreams(
      [&] { return get_dotqmail_path(buffer.data(), path.size(), "info", "example.com"); });
  EXPECT_EQ(-1, too_short.result);
  EXPECT_TRUE(contains(too_short.err, "Either domain name 'example.com' or mailname 'info' are "
                                      "too long to store .qmail path in the provided buffer"))
      << too_short.err;
}

// --- .qmail -----------------------------------------------------------------

TEST(DeliveryTest, ResetWritesTrueLineForPopuserOrLeavesNoFile) {
  ScratchDir dir;
  const std::string path = dir.path(".qmail");
  for (const char* before : {static_cast<const char*>(nullptr), "&alias@example.com\n"}) {
    if (before != nullptr) {
      write_file(path, before);
      set_attributes(path, {0, 0, 0644});
    }
    EXPECT_EQ(0, dotqmail_reset(path.c_str()));
    EXPECT_EQ("| true\n", read_file(path));
    EXPECT_EQ(kDotqmailAttributes, attributes_of(path));
  }

  const std::string missing_dir = dir.path("none/.qmail");
  {
    LogRecorder log;
    EXPECT_EQ(-1, dotqmail_reset(missing_dir.c_str()));
    EXPECT_TRUE(LogRecorder::Has(3, "Unable to open '" + missing_dir + "'"));
  }
  // A write refused by the file-size limit: the half-written file goes.
  auto child = RunInChild([&path] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
    printf("result=%d\n", dotqmail_reset(path.c_str()));
  });
  EXPECT_TRUE(contains(child.output, "Unable to write to '" + path + "'")) << child.output;
  EXPECT_TRUE(contains(child.output, "result=-1")) << child.output;
  EXPECT_FALSE(exists(path));
}

// The sandbox shows the host's Courier agent, so its line is the one added.
TEST(DeliveryTest, AddsOneDeliveryLineAndRemovesAllOfOurs) {
  const std::string ours = "| /usr/bin/deliverquota ./Maildir\n";
  const std::string others = "&alias@example.com\n| /usr/bin/deliverquota ./Maildir/\n";
  const struct {
    std::string before, after_add, after_remove;
  } cases[] = {
      {"| true\n", "| true\n" + ours, "| true\n"},
      {"| true\n" + ours, "| true\n" + ours, "| true\n"},
      {"./Maildir/\n| true\n", "| true\n" + ours, "| true\n"},
      {std::string("| true\n") + kDovecotLine, "| true\n" + ours, "| true\n"},
      // Other people's lines, even close to ours, stay.
      {others, others + ours, others},
  };
  ScratchDir dir;
  const std::string path = dir.path(".qmail");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.before);
    write_file(path, c.before);
    set_attributes(path, {0, 0, 0644});
    EXPECT_EQ(0, dotqmail_add_delivery(path.c_str()));
    EXPECT_EQ(c.after_add, read_file(path));
    EXPECT_EQ(0, dotqmail_add_delivery(path.c_str()));
    EXPECT_EQ(c.after_add, read_file(path));
    EXPECT_EQ(kDotqmailAttributes, attributes_of(path));

    set_attributes(path, {0, 0, 0644});
    EXPECT_EQ(0, dotqmail_remove_delivery(path.c_str()));
    EXPECT_EQ(c.after_remove, read_file(path));
    EXPECT_EQ(kDotqmailAttributes, attributes_of(path));
  }
}

// --- a real delivery --------------------------------------------------------

// Runs `command` as qmail's local delivery runs a "|" line: through the
// shell, as popuser, in the mail name's directory, the message on standard
// input as a file. Returns the wait status.
int deliver_as_qmail(const std::string& home, const std::string& command,
                     const std::string& message) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(message.c_str(), O_RDONLY);
    if (fd < 0 || dup2(fd, STDIN_FILENO) < 0 || chdir(home.c_str()) != 0 ||
        setgroups(0, nullptr) != 0 || setgid(kPopuser) != 0 || setuid(kPopuser) != 0)
      _exit(126);
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = -1;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return status;
}

void make_popuser_dir(const std::string& path) {
  ASSERT_EQ(0, mkdir(path.c_str(), 0700)) << path;
  set_attributes(path, {kPopuser, kPopuser, 0700});
}

TEST(DeliveryTest, DeliveryLineDeliversIntoTheMaildir) {
  const std::string domain_dir = "/var/qmail/mailnames/delivery-test.example",
                    home = domain_dir + "/info";
  struct RemoveDomain {
    std::string dir;
    ~RemoveDomain() {
      std::error_code ignored;
      std::filesystem::remove_all(dir, ignored);
    }
  } cleanup{domain_dir};
  ASSERT_EQ(0, mkdir(domain_dir.c_str(), 0755));
  for (const char* sub : {"", "/Maildir", "/Maildir/new", "/Maildir/cur", "/Maildir/tmp"})
    make_popuser_dir(home + sub);

  char dotqmail[4096];
  ASSERT_EQ(0, get_dotqmail_path(dotqmail, sizeof(dotqmail), "info", "delivery-test.example"));
  ASSERT_EQ(0, dotqmail_reset(dotqmail));
  ASSERT_EQ(0, add_mailname_delivery("info", "delivery-test.example"));

  const std::string message_file = domain_dir + "/message";
  write_file(message_file, "From: someone@example.org\nTo: info@delivery-test.example\n"
                           "Subject: delivery test\n\nHello.\n");

  std::istringstream lines(read_file(dotqmail));
  std::string line;
  int commands = 0;
  while (std::getline(lines, line)) {
    ASSERT_EQ('|', line[0]) << line;
    int status = deliver_as_qmail(home, line.substr(1), message_file);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << line << ": status " << status;
    ++commands;
  }
  EXPECT_EQ(2, commands);

  std::vector<std::filesystem::path> delivered;
  for (const auto& entry : std::filesystem::directory_iterator(home + "/Maildir/new"))
    delivered.push_back(entry.path());
  ASSERT_EQ(1u, delivered.size());
  EXPECT_TRUE(contains(read_file(delivered[0]), "Subject: delivery test"));
  EXPECT_EQ(kPopuser, attributes_of(delivered[0]).uid);

  EXPECT_EQ(0, remove_mailname_delivery("info", "delivery-test.example"));
  EXPECT_EQ("| true\n", read_file(dotqmail));
}

}  // namespace
