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
#include "util/fs.h"

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

void make_maildir(const std::string& path) {
  for (const char* sub : {"new", "cur", "tmp"}) fs::create_directories(path + "/" + sub);
}

// A Maildir in a scratch directory.
struct ScratchMaildir {
  ScratchMaildir() { make_maildir(path); }
  // Creates `relative` ("<folder>/<new|cur|tmp>/<name>") with `size` bytes,
  // making its folder first.
  void add(const std::string& relative, size_t size) const {
    make_maildir(fs::path(path + "/" + relative).parent_path().parent_path());
    write_file(path + "/" + relative, std::string(size, 'm'));
  }
  std::string size_file() const { return path + "/maildirsize"; }

  ScratchDir dir;
  const std::string path = dir.path("Maildir");
};

struct Usage {
  int result;
  int64_t bytes = -1, count = -1, size_limit = -1, count_limit = -1;
};

Usage read_usage(const std::string& maildir, int no_recount) {
  Usage u{0};
  u.result = get_maildirpp_usage_and_limits(maildir.c_str(), no_recount, &u.bytes, &u.count,
                                            &u.size_limit, &u.count_limit);
  return u;
}

struct stat stat_of(const std::string& path) {
  struct stat info = {};
  EXPECT_EQ(0, stat(path.c_str(), &info)) << path;
  return info;
}

TEST(ParseHeaderTest, AcceptsTheQuotaHeaderFormsAndRefusesTheRest) {
  const struct {
    const char* header;
    bool accepted;
    int64_t size = 0, count = 0;  // when accepted
  } cases[] = {
      {"", true, 0, 0},  // no limits at all
      {"1000S,25C", true, 1000, 25}, {"1000S", true, 1000, 0}, {"1000", true, 1000, 0},
      // Either the "S" or the "," will do.
      {"1000X,25C", true, 1000, 25}, {"1000S;25C", true, 1000, 25},
      {"abc", false},      {"S,0C", false},       {"-1S,0C", false},
      {"99999999999999999999S,0C", false},  // overflow
      {"1000;25C", false}, {"1000C", false},      {"1000S,25", false},
      {"1000S,25CC", false}, {"1000S ", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("header \"") + c.header + "\"");
    int64_t size = -7, count = -7;
    EXPECT_EQ(c.accepted ? 1 : 0, parse_header_string(c.header, &size, &count));
    EXPECT_EQ(c.accepted ? c.size : kMax, size);
    EXPECT_EQ(c.accepted ? c.count : kMax, count);
  }
}

// Every usage line of an intact file is summed. A missing, damaged or too
// long file is refused, or with a recount allowed counted afresh (under the
// limits of a header that could be read).
TEST(MaildirsizeReaderTest, SumsAnIntactFileOrRecounts) {
  enum Kind { kIntact, kDamagedLines, kUnusable };
  const struct {
    std::string text;  // "" for no file
    Kind kind;
    int64_t bytes = 0, count = 0;  // of an intact file
    bool corrupted_header = false;
  } cases[] = {
      {"1000S,0C\n         100           2\n300 1\n-50\t-1\n", kIntact, 350, 2},
      {"1000S,0C\n", kIntact, 0, 0},
      {"", kUnusable},
      {"abc\n0 0\n", kUnusable, 0, 0, true},
      {"1000S,0C\n" + std::string(5200, ' ') + "0 0\n", kUnusable},  // too long
      {"1000S,0C", kUnusable, 0, 0, true},                           // header unfinished
      {"1000S,0C\n100 2\n300 1", kDamagedLines},                     // last line unfinished
      {"1000S,0C\n100 2\n\n", kDamagedLines},
      {"1000S,0C\n100\n", kDamagedLines},
      {"1000S,0C\n100 2 3\n", kDamagedLines},
      {"1000S,0C\n100x 2\n", kDamagedLines},
      {"1000S,0C\n100 2\n-200 -1\n", kDamagedLines},  // negative sum
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 30));
    const ScratchMaildir maildir;
    maildir.add("cur/1.host,S=4000:2,S", 1);
    if (!c.text.empty()) write_file(maildir.size_file(), c.text);
    LogRecorder log;
    const bool intact = c.kind == kIntact, limits = c.kind != kUnusable;
    EXPECT_EQ(intact ? 1 : 0, read_usage(maildir.path, 1).result);
    const Usage u = read_usage(maildir.path, 0);
    EXPECT_EQ(1, u.result);
    EXPECT_EQ(intact ? c.bytes : 4000, u.bytes);
    EXPECT_EQ(intact ? c.count : 1, u.count);
    EXPECT_EQ(limits ? 1000 : kMax, u.size_limit);
    EXPECT_EQ(limits ? 0 : kMax, u.count_limit);
    EXPECT_EQ(c.corrupted_header, LogRecorder::Has(3, "maildirsize quota header is corrupted. "
                                                      "Please run mbox_fixup utility to fix."));
  }
}

TEST(MaildirScanTest, CountsMessagesOfTheMaildirAndItsFoldersButNotTrash) {
  const struct {
    const char* message;  // inside the Maildir; its content is 10 bytes
    int64_t bytes = 0, count = 0;
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
    const ScratchMaildir maildir;
    maildir.add(c.message, 10);
    write_file(maildir.path + "/.not-a-folder", "x");
    int64_t bytes = -1, count = -1;
    ASSERT_EQ(1, get_maildirpp_usage(maildir.path.c_str(), &bytes, &count));
    EXPECT_EQ(c.bytes, bytes);
    EXPECT_EQ(c.count, count);
  }
}

TEST(WriteMaildirsizeTest, DatesTheFileBackWhenMailArrivesDuringTheCount) {
  const ScratchMaildir maildir;
  const std::string file = maildir.size_file(), incoming = maildir.path + "/new";
  const time_t start = time(nullptr);

  // Nothing changes while counting: the file keeps its own time.
  ASSERT_EQ(1, write_maildirpp_maildirsize(maildir.path.c_str(), 0, 0, 0, 0));
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
    ASSERT_EQ(1, write_maildirpp_maildirsize(maildir.path.c_str(), 0, 0, 0, 0));
    mtime = stat_of(file).st_mtime;
  }
  kill(agent, SIGKILL);
  waitpid(agent, nullptr, 0);

  // Dated 960 seconds before the newest time the count saw, which is older
  // than what the check found afterwards.
  EXPECT_GE(mtime, arrival - 960);
  EXPECT_LT(mtime + 960, stat_of(incoming).st_mtime);
  // Its access time is now, by the file system's clock, which may run a
  // tick ahead of time().
  EXPECT_GE(stat_of(file).st_atime, start);
  write_file(maildir.dir.path("now"), "");
  EXPECT_LE(stat_of(file).st_atime, stat_of(maildir.dir.path("now")).st_mtime);
}

// What killed runs of ours left in tmp/ goes; a delivery agent's files and
// another host's temporaries stay.
TEST(WriteMaildirsizeTest, RemovesOnlyOurOwnStaleTemporaries) {
  char host[HOST_NAME_MAX + 1] = {};
  ASSERT_EQ(0, gethostname(host, HOST_NAME_MAX));
  const std::string ours = std::string(host) + "-maildirsize";
  const struct {
    std::string name;
    bool removed;
  } temps[] = {
      {"123.45." + ours, true},
      {"123.45.other" + ours, false},
      {"123.45_NeWmAiLdIrSiZe." + std::string(host), false},  // deliverquota's
      {"123.M45P6." + ours, false},                            // a message
  };
  const ScratchMaildir maildir;
  for (const auto& t : temps) write_file(maildir.path + "/tmp/" + t.name, "");
  ASSERT_EQ(1, write_maildirpp_maildirsize(maildir.path.c_str(), 0, 0, 0, 0));
  for (const auto& t : temps)
    EXPECT_EQ(!t.removed, exists(maildir.path + "/tmp/" + t.name)) << t.name;
}

// Held, a Maildir's file is written once, with the last limits, where the
// Maildir is by then; a reader sees it written; a removed one is skipped.
TEST(WriteMaildirsizeTest, HeldWritesLandOnceWithTheLastLimits) {
  const ScratchMaildir moved, removed, read;
  moved.add("cur/1,S=10", 10);
  maildirsize_hold();
  for (int64_t limit : {100, 200}) {
    for (const ScratchMaildir* m : {&moved, &removed, &read})
      ASSERT_EQ(1, write_maildirpp_maildirsize(m->path.c_str(), 0, 0, limit, 0));
  }
  EXPECT_FALSE(exists(moved.size_file()));
  fs::rename(moved.path, moved.dir.path("Renamed"));
  fs::remove_all(removed.path);

  EXPECT_EQ(200, read_usage(read.path, 1).size_limit);  // written for the reader
  ASSERT_EQ(1, write_maildirpp_maildirsize(read.path.c_str(), 0, 0, 300, 0));
  EXPECT_EQ(0, maildirsize_write_held());
  EXPECT_EQ("200S,0C\n          10           1\n",
            read_file(moved.dir.path("Renamed/maildirsize")));
  EXPECT_FALSE(exists(removed.path));
  EXPECT_EQ(300, read_usage(read.path, 1).size_limit);

  // No longer held: written at once.
  ASSERT_EQ(1, write_maildirpp_maildirsize(read.path.c_str(), 0, 0, 400, 0));
  EXPECT_EQ(400, read_usage(read.path, 1).size_limit);
}

// A Maildir noted as just made is not searched for the temporaries of
// killed runs; every other held one still is.
TEST(WriteMaildirsizeTest, HeldWriteTidiesAllButTheMaildirsJustMade) {
  char host[HOST_NAME_MAX + 1] = {};
  ASSERT_EQ(0, gethostname(host, HOST_NAME_MAX));
  const std::string stale = "/tmp/123.45." + std::string(host) + "-maildirsize";
  const ScratchMaildir made, old;
  for (const ScratchMaildir* m : {&made, &old}) write_file(m->path + stale, "");
  maildirsize_hold();
  tavix::UniqueFd dir(open(made.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  maildirsize_note_new(dir.get());
  for (const ScratchMaildir* m : {&made, &old})
    ASSERT_EQ(1, write_maildirpp_maildirsize(m->path.c_str(), 0, 0, 100, 0));
  EXPECT_EQ(0, maildirsize_write_held());
  EXPECT_TRUE(exists(made.path + stale));
  EXPECT_FALSE(exists(old.path + stale));
  EXPECT_EQ("100S,0C\n           0           0\n", read_file(made.size_file()));
}

// A held Maildir is found again by its name alone, but a link that the mail
// user planted at the name is not taken for the held Maildir it points to.
TEST(WriteMaildirsizeTest, HeldMaildirFoundByItsNameButNotThroughALink) {
  const ScratchMaildir own, other;
  // The mail user's directory: a link in it is never followed.
  ASSERT_EQ(0, chown(own.dir.path().c_str(), 110, 110));
  tavix::UniqueFd saved(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(0, chdir(own.dir.path().c_str()));
  maildirsize_hold();
  EXPECT_EQ(1, store_maildirpp_quota_raw(other.path.c_str(), 500));
  EXPECT_EQ(1, store_maildirpp_quota_raw("./Maildir", 100));
  EXPECT_EQ(1, store_maildirpp_quota_raw("Maildir", 200));
  fs::rename(own.path, own.dir.path("Kept"));
  fs::create_directory_symlink(other.path, own.path);
  EXPECT_EQ(0, store_maildirpp_quota_raw("./Maildir", 300));
  EXPECT_EQ(0, maildirsize_write_held());
  ASSERT_EQ(0, fchdir(saved.get()));
  EXPECT_EQ("200S,0C\n           0           0\n", read_file(own.dir.path("Kept/maildirsize")));
  EXPECT_EQ("500S,0C\n           0           0\n", read_file(other.size_file()));
}

TEST(OverquotaTest, ComparesUsagePlusTheNewMessageWithTheLimits) {
  const struct {
    const char* maildirsize;  // "" for none
    int64_t add_bytes;
    int over;
  } cases[] = {
      {"1000S,0C\n900 3\n", 100, 0},
      {"1000S,0C\n900 3\n", 101, 1},
      {"0S,0C\n900 3\n", int64_t{1} << 50, 0},  // no limit
      {"0S,3C\n900 3\n", 0, 1},
      {"0S,4C\n900 3\n", 0, 0},
      {"1S,0C\n0 0\n", 1, 0},  // the blocking limit
      {"1S,0C\n0 0\n", 2, 1},
      {"abc\n900 3\n", kMax, 0},  // unreadable: deliver
      {"", kMax, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.maildirsize);
    const ScratchMaildir maildir;
    if (*c.maildirsize) write_file(maildir.size_file(), c.maildirsize);
    EXPECT_EQ(c.over, check_maildirpp_overquota(maildir.path.c_str(), c.add_bytes, 1));
  }
}

}  // namespace
