#include "qmail/maildirpp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::LogRecorder;
using tavix::test::read_file;
using tavix::test::ScratchDir;
using tavix::test::write_file;

namespace fs = std::filesystem;

const int64_t kMax = INT64_MAX;
const Attributes kPopuserFile = {110, 110, 0644};

void make_maildir(const std::string& path) {
  for (const char* sub : {"new", "cur", "tmp"})
    fs::create_directories(path + "/" + sub);
}

// Creates `relative` inside `maildir` with `size` bytes, making the folder
// it belongs to ("<folder>/<new|cur|tmp>/<name>") first.
void add_message(const std::string& maildir, const std::string& relative,
                 size_t size) {
  std::string path = maildir + "/" + relative;
  std::string folder = fs::path(path).parent_path().parent_path();
  make_maildir(folder);
  write_file(path, std::string(size, 'm'));
}

struct stat stat_of(const std::string& path) {
  struct stat info = {};
  EXPECT_EQ(0, stat(path.c_str(), &info)) << path;
  return info;
}

std::string usage_text(int64_t bytes, int64_t count) {
  char line[64];
  snprintf(line, sizeof(line), "%12lld%12lld\n", static_cast<long long>(bytes),
           static_cast<long long>(count));
  return line;
}

// The mailbox of name@domain under the mail names root, removed at the end.
class Mailbox {
 public:
  Mailbox(const std::string& domain, const std::string& name)
      : domain_dir_("/var/qmail/mailnames/" + domain),
        dir_(domain_dir_ + "/" + name) {
    make_maildir(maildir());
  }
  ~Mailbox() {
    std::error_code ignored;
    fs::remove_all(domain_dir_, ignored);
  }
  const std::string& dir() const { return dir_; }
  std::string maildir() const { return dir_ + "/Maildir"; }
  std::string maildirsize() const { return maildir() + "/maildirsize"; }

 private:
  std::string domain_dir_;
  std::string dir_;
};

TEST(ParseHeaderTest, AcceptsTheQuotaHeaderFormsAndRefusesTheRest) {
  const struct {
    const char* header;
    bool accepted;
    int64_t size;   // when accepted
    int64_t count;
  } cases[] = {
      {"", true, 0, 0},  // no limits at all
      {"1048576S,0C", true, 1048576, 0},
      {"1000S,25C", true, 1000, 25},
      {"1000S", true, 1000, 0},
      {"1000", true, 1000, 0},
      {"1000X,25C", true, 1000, 25},  // either the "S" or the "," will do
      {"1000S;25C", true, 1000, 25},
      {"abc", false, 0, 0},
      {"S,0C", false, 0, 0},
      {"-1S,0C", false, 0, 0},
      {"99999999999999999999S,0C", false, 0, 0},  // overflow
      {"1000;25C", false, 0, 0},
      {"1000C", false, 0, 0},
      {"1000S,C", false, 0, 0},
      {"1000S,25", false, 0, 0},
      {"1000S,25CC", false, 0, 0},
      {"1000S ", false, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("header \"") + c.header + "\"");
    int64_t size = -7;
    int64_t count = -7;
    EXPECT_EQ(c.accepted ? 1 : 0, parse_header_string(c.header, &size, &count));
    EXPECT_EQ(c.accepted ? c.size : kMax, size);
    EXPECT_EQ(c.accepted ? c.count : kMax, count);
  }
}

// Reading without recount: every usage line is summed, anything damaged
// refuses the file.
TEST(MaildirsizeReaderTest, SumsTheUsageLinesOfAnIntactFile) {
  const struct {
    const char* text;
    bool read;
    int64_t bytes;
    int64_t count;
  } cases[] = {
      {"1000S,0C\n         100           2\n300 1\n-50\t-1\n", true, 350, 2},
      {"1000S,0C\n", true, 0, 0},
      {"1000S,0C\n100 2\n300 1", false, 0, 0},  // last line unfinished
      {"1000S,0C\n100 2\n\n", false, 0, 0},
      {"1000S,0C\n100\n", false, 0, 0},
      {"1000S,0C\n100 2 3\n", false, 0, 0},
      {"1000S,0C\n100x 2\n", false, 0, 0},
      {"1000S,0C\n100 2\n-200 -1\n", false, 0, 0},  // negative sum
      {"1000S,0C", false, 0, 0},                     // header unfinished
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    ScratchDir dir;
    std::string maildir = dir.path("Maildir");
    make_maildir(maildir);
    write_file(maildir + "/maildirsize", c.text);
    int64_t bytes = -1, count = -1, size_limit = -1, count_limit = -1;
    EXPECT_EQ(c.read ? 1 : 0,
              get_maildirpp_usage_and_limits(maildir.c_str(), 1, &bytes,
                                             &count, &size_limit,
                                             &count_limit));
    if (c.read) {
      EXPECT_EQ(c.bytes, bytes);
      EXPECT_EQ(c.count, count);
      EXPECT_EQ(1000, size_limit);
      EXPECT_EQ(0, count_limit);
    }
  }
}

TEST(MaildirsizeReaderTest, RecountsWhenTheFileCannotBeUsed) {
  const struct {
    const char* what;
    std::string text;  // "" for no file
    bool corrupted_header;
  } cases[] = {
      {"missing", "", false},
      {"corrupted header", "abc\n0 0\n", true},
      {"too long", "1000S,0C\n" + std::string(5200, ' ') + "0 0\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchDir dir;
    std::string maildir = dir.path("Maildir");
    make_maildir(maildir);
    add_message(maildir, "cur/1.host,S=4000:2,S", 1);
    if (!c.text.empty())
      write_file(maildir + "/maildirsize", c.text);
    LogRecorder log;
    int64_t bytes = -1, count = -1, size_limit = -1, count_limit = -1;
    EXPECT_EQ(0, get_maildirpp_usage_and_limits(maildir.c_str(), 1, &bytes,
                                                &count, &size_limit,
                                                &count_limit));
    EXPECT_EQ(1, get_maildirpp_usage_and_limits(maildir.c_str(), 0, &bytes,
                                                &count, &size_limit,
                                                &count_limit));
    EXPECT_EQ(4000, bytes);
    EXPECT_EQ(1, count);
    EXPECT_EQ(kMax, size_limit);
    EXPECT_EQ(kMax, count_limit);
    EXPECT_EQ(c.corrupted_header,
              LogRecorder::Has(3, "maildirsize quota header is corrupted. "
                                  "Please run mbox_fixup utility to fix."));
  }
}

TEST(MaildirScanTest, CountsMessagesOfTheMaildirAndItsFoldersButNotTrash) {
  const struct {
    const char* message;  // inside the Maildir; its content is 10 bytes
    int64_t bytes;
    int64_t count;
  } cases[] = {
      {"new/1234.host,S=2048:2,S", 2048, 1},
      {"cur/1234.host,S=2048", 2048, 1},
      {"cur/1234.host,S=12x,S=30:2,S", 30, 1},  // first size that parses
      {"cur/1234.host,S=:2,S", 10, 1},           // no digits: real size
      {"new/1234.host", 10, 1},
      {".Spam/cur/1234.host,S=100", 100, 1},
      {".Trash.Old/new/1234.host,S=100", 100, 1},
      {".Trash/cur/1234.host,S=100", 0, 0},
      {"tmp/1234.host,S=100", 0, 0},  // not delivered yet
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    ScratchDir dir;
    std::string maildir = dir.path("Maildir");
    make_maildir(maildir);
    add_message(maildir, c.message, 10);
    write_file(maildir + "/.not-a-folder", "x");
    int64_t bytes = -1, count = -1;
    ASSERT_EQ(1, get_maildirpp_usage(maildir.c_str(), &bytes, &count));
    EXPECT_EQ(c.bytes, bytes);
    EXPECT_EQ(c.count, count);
  }
}

TEST(WriteMaildirsizeTest, WritesLimitsAndCountForPopuser) {
  const struct {
    int64_t quota;
    const char* header;
  } cases[] = {
      {1048576, "1048576S,0C\n"},
      {0, "1S,0C\n"},  // blocks delivery; 0 would mean no limit
      {-1, "0S,0C\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.header);
    for (bool with_mail : {false, true}) {
      ScratchDir dir;
      std::string maildir = dir.path("Maildir");
      make_maildir(maildir);
      write_file(maildir + "/maildirsize", "old contents\n");
      if (with_mail) {
        add_message(maildir, "new/1.host,S=2048", 1);
        add_message(maildir, ".Spam/cur/2.host:2,S", 30);
      }
      mode_t saved_umask = umask(077);
      EXPECT_EQ(1, store_maildirpp_quota_raw(maildir.c_str(), c.quota));
      umask(saved_umask);
      EXPECT_EQ(std::string(c.header) +
                    (with_mail ? usage_text(2078, 2) : usage_text(0, 0)),
                read_file(maildir + "/maildirsize"));
      EXPECT_EQ(kPopuserFile, attributes_of(maildir + "/maildirsize"));
      EXPECT_TRUE(fs::is_empty(maildir + "/tmp"));
    }
  }
}

TEST(WriteMaildirsizeTest, DatesTheFileBackWhenMailArrivesDuringTheCount) {
  ScratchDir dir;
  std::string maildir = dir.path("Maildir");
  make_maildir(maildir);
  std::string file = maildir + "/maildirsize";
  std::string incoming = maildir + "/new";
  const time_t start = time(nullptr);

  // Nothing changes while counting: the file keeps its own time.
  ASSERT_EQ(1, write_maildirpp_maildirsize(maildir.c_str(), 0, 0, 0, 0));
  EXPECT_GE(stat_of(file).st_mtime, start);

  // A delivery agent keeps changing new/ (to ever later times, far ahead).
  const time_t arrival = start + 100000;
  pid_t agent = fork();
  ASSERT_GE(agent, 0);
  if (agent == 0) {
    for (time_t t = arrival;; ++t) {
      struct utimbuf times = {t, t};
      utime(incoming.c_str(), &times);
    }
  }
  // The change must fall between the count and the check; a few tries
  // make sure it does once.
  time_t mtime = 0;
  for (int attempt = 0; attempt < 200 && mtime < arrival - 960; ++attempt) {
    ASSERT_EQ(1, write_maildirpp_maildirsize(maildir.c_str(), 0, 0, 0, 0));
    mtime = stat_of(file).st_mtime;
  }
  kill(agent, SIGKILL);
  waitpid(agent, nullptr, 0);

  // Dated 960 seconds before the newest time the count saw, which is older
  // than what the check found afterwards.
  EXPECT_GE(mtime, arrival - 960);
  EXPECT_LT(mtime + 960, stat_of(incoming).st_mtime);
  EXPECT_GE(stat_of(file).st_atime, start);
  EXPECT_LE(stat_of(file).st_atime, time(nullptr));
}

// Someone else's files, or links planted at the names the writer would
// use, are never written through: after five tries (8 seconds) it gives up.
TEST(WriteMaildirsizeTest, NeverWritesThroughAPlantedTemporaryName) {
  ScratchDir dir;
  std::string maildir = dir.path("Maildir");
  make_maildir(maildir);
  write_file(maildir + "/maildirsize", "1000S,0C\n");
  char host[HOST_NAME_MAX + 1] = {};
  ASSERT_EQ(0, gethostname(host, sizeof(host) - 1));
  std::string target = dir.path("target");
  const time_t now = time(nullptr);
  for (time_t t = now; t < now + 20; ++t) {
    std::string name = maildir + "/tmp/" + std::to_string(t) + "." +
                       std::to_string(getpid()) + "." + host + "-maildirsize";
    ASSERT_EQ(0, symlink(target.c_str(), name.c_str()));
  }

  auto run = CaptureStreams([&] {
    errno = 0;
    int result = write_maildirpp_maildirsize(maildir.c_str(), 0, 0, 0, 0);
    return std::make_pair(result, errno);
  });
  EXPECT_EQ(0, run.result.first);
  EXPECT_EQ(EAGAIN, run.result.second);
  EXPECT_NE(std::string::npos,
            run.err.find("Maximal allowed number of attempts to create a "
                         "maildirsize file exceeded"));
  EXPECT_FALSE(exists(target));
  EXPECT_EQ("1000S,0C\n", read_file(maildir + "/maildirsize"));
}

TEST(OverquotaTest, ComparesUsagePlusTheNewMessageWithTheLimits) {
  const struct {
    const char* maildirsize;  // "" for none
    int64_t add_bytes;
    int64_t add_count;
    int over;
  } cases[] = {
      {"1000S,0C\n900 3\n", 100, 1, 0},
      {"1000S,0C\n900 3\n", 101, 1, 1},
      {"0S,0C\n900 3\n", int64_t{1} << 50, 1, 0},  // no limit
      {"0S,3C\n900 3\n", 0, 1, 1},
      {"0S,4C\n900 3\n", 0, 1, 0},
      {"1S,0C\n0 0\n", 1, 1, 0},  // the blocking limit
      {"1S,0C\n0 0\n", 2, 1, 1},
      {"abc\n900 3\n", kMax, 1, 0},  // unreadable: deliver
      {"", kMax, 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.maildirsize);
    ScratchDir dir;
    std::string maildir = dir.path("Maildir");
    make_maildir(maildir);
    if (*c.maildirsize)
      write_file(maildir + "/maildirsize", c.maildirsize);
    EXPECT_EQ(c.over, check_maildirpp_overquota(maildir.c_str(), c.add_bytes,
                                                c.add_count));
  }
}

TEST(StoreMboxQuotaTest, AttachmentsTakeTheirShareOfTheQuota) {
  const struct {
    int64_t quota;
    size_t attachments;  // bytes in @attachments; 0 for no directory
    bool warned;
  } cases[] = {
      {1048576, 0, false},
      {1048576, 1000, false},
      {500, 1000, true},
      {-1, 1000, false},  // no limit stays no limit
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.quota);
    Mailbox box("example.com", "info");
    int64_t remainder = c.quota;
    if (c.attachments) {
      fs::create_directory(box.dir() + "/@attachments");
      write_file(box.dir() + "/@attachments/a", std::string(c.attachments, 'a'));
      // The directory's own size counts as well.
      if (c.quota >= 0)
        remainder -= stat_of(box.dir() + "/@attachments").st_size + c.attachments;
    }
    int64_t limit = c.quota < 0 ? 0 : std::max<int64_t>(remainder, 1);
    const std::string cwd = fs::current_path();

    auto run = CaptureStreams(
        [&] { return store_mbox_quota("Example.COM", "INFO", c.quota); });
    EXPECT_NE(0, run.result);
    EXPECT_EQ(std::to_string(limit) + "S,0C\n" + usage_text(0, 0),
              read_file(box.maildirsize()));
    EXPECT_EQ(c.warned,
              run.err.find("WARNING: @attachments directory is big enough to "
                           "disable delivery!") != std::string::npos);
    EXPECT_EQ(cwd, fs::current_path());
  }
}

// Runs the delivery agent as qmail does, the message on standard input as
// a file; its exit status.
int deliver(const std::string& maildir, const std::string& message) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int in = open(message.c_str(), O_RDONLY);
    int out = open("/dev/null", O_WRONLY);
    if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0)
      _exit(126);
    execl("/usr/bin/deliverquota", "deliverquota", maildir.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = -1;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

int lines_of(const std::string& text) {
  int lines = 0;
  for (char c : text)
    lines += c == '\n';
  return lines;
}

TEST(DeliveryAgentTest, AgentEnforcesTheStoredQuotaAndWeReadWhatItCounted) {
  Mailbox box("example.org", "alice");
  ScratchDir dir;
  std::string message = dir.path("message");
  write_file(message, "Subject: test\n\n" + std::string(285, 'x'));  // 300
  fs::create_directory(box.dir() + "/@attachments");
  write_file(box.dir() + "/@attachments/a", std::string(700, 'a'));
  const int64_t attachments =
      stat_of(box.dir() + "/@attachments").st_size + 700;
  ASSERT_NE(0, store_mbox_quota("example.org", "alice", 1000 + attachments));
  const std::string maildir = box.maildir();

  int64_t bytes, count, size_limit, count_limit;
  for (int delivered = 1; delivered <= 3; ++delivered) {
    SCOPED_TRACE(delivered);
    ASSERT_EQ(0, deliver(maildir, message));
    std::string text = read_file(box.maildirsize());
    ASSERT_EQ(1, get_maildirpp_usage_and_limits(maildir.c_str(), 1, &bytes,
                                                &count, &size_limit,
                                                &count_limit))
        << text;
    EXPECT_EQ(300 * delivered, bytes);
    EXPECT_EQ(delivered, count);
    EXPECT_EQ(1000, size_limit);
    EXPECT_EQ(0, count_limit);
    if (delivered == 2) {  // our two lines and one appended per delivery
      EXPECT_EQ(4, lines_of(text)) << text;
    }
  }
  EXPECT_EQ(1, check_maildirpp_overquota(maildir.c_str(), 300, 1));
  EXPECT_EQ(77, deliver(maildir, message));
  EXPECT_EQ(3u, static_cast<size_t>(std::distance(
                    fs::directory_iterator(maildir + "/new"),
                    fs::directory_iterator())));
  EXPECT_EQ(1, get_maildirpp_usage(maildir.c_str(), &bytes, &count));
  EXPECT_EQ(900, bytes);
  EXPECT_EQ(900 + attachments, get_mbox_size("alice", "example.org", 0));
}

}  // namespace
