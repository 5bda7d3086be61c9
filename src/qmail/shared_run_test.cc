#include "qmail/shared_run.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qmail/lock.h"
#include "qmail/qmail_test_support.h"

namespace {

using tavix::qmail::RunLedger;
using tavix::qmail::SharedRun;
using tavix::test::CaptureStreams;
using Verdict = RunLedger::Verdict;

// --- The ledger ----------------------------------------------------------------

struct Judged {
  uint64_t generation;
  Verdict verdict;
  const char* why;  // for kFailed
};

void expect_judged(const RunLedger& ledger, const std::vector<Judged>& cases) {
  for (const Judged& c : cases) {
    std::string why;
    EXPECT_EQ(c.verdict, ledger.judge(c.generation, &why)) << "generation " << c.generation;
    if (c.verdict == Verdict::kFailed) {
      EXPECT_EQ(c.why, why) << "generation " << c.generation;
    }
  }
}

TEST(RunLedgerTest, TheFirstRunThatServedAGenerationDecidesForIt) {
  RunLedger ledger;
  expect_judged(ledger, {{1, Verdict::kPending, ""}});
  ledger.enter(5, true, "");
  ledger.enter(9, false, "qmail-newu: fatal: boom\nsecond line");
  ledger.enter(12, true, "");
  expect_judged(ledger, {{1, Verdict::kSucceeded, ""},
                         {5, Verdict::kSucceeded, ""},
                         // Served by the failed run, though a later one succeeded.
                         {6, Verdict::kFailed, "qmail-newu: fatal: boom\nsecond line"},
                         {9, Verdict::kFailed, "qmail-newu: fatal: boom\nsecond line"},
                         {10, Verdict::kSucceeded, ""},
                         {12, Verdict::kSucceeded, ""},
                         {13, Verdict::kPending, ""}});
}

TEST(RunLedgerTest, AFailureNoLongerKeptIsStillAFailureUnlessOneSucceededSince) {
  RunLedger ledger;
  for (uint64_t through = 10; through <= 10 * (RunLedger::kKeptFailures + 1); through += 10)
    ledger.enter(through, false, "failed through " + std::to_string(through));
  std::string why;
  EXPECT_EQ(Verdict::kFailed, ledger.judge(5, &why));
  EXPECT_NE(std::string::npos, why.find("no longer kept")) << why;
  EXPECT_EQ(Verdict::kFailed, ledger.judge(15, &why));
  EXPECT_EQ("failed through 20", why);

  ledger.enter(50, true, "");
  EXPECT_EQ(Verdict::kSucceeded, ledger.judge(5, &why));
  EXPECT_EQ(Verdict::kFailed, ledger.judge(35, &why));
  EXPECT_EQ(Verdict::kSucceeded, ledger.judge(45, &why));
}

TEST(RunLedgerTest, EncodedLedgerReadsBackAndForeignTextIsRefused) {
  RunLedger ledger;
  ledger.enter(3, true, "");
  ledger.enter(7, false, "back\\slash and\nnewline");
  ledger.enter(8, false, "");
  RunLedger read;
  ASSERT_TRUE(RunLedger::decode(ledger.encode(), &read));
  EXPECT_EQ(ledger.encode(), read.encode());
  expect_judged(read, {{3, Verdict::kSucceeded, ""},
                       {4, Verdict::kFailed, "back\\slash and\nnewline"},
                       {8, Verdict::kFailed, ""},
                       {9, Verdict::kPending, ""}});

  for (const char* text : {"", "through 3\n", "through 3\nsucceeded x\n",
                           "succeeded 1\nthrough 3\n", "through 3\nsucceeded 1",
                           "through 3\nsucceeded 1\nfailed 1 2\n",
                           "through 3\nsucceeded 1\nfailed 1 2 bad\\escape\n",
                           "through 3\nsucceeded 1\nsomething else\n"}) {
    RunLedger untouched;
    untouched.enter(1, true, "");
    EXPECT_FALSE(RunLedger::decode(text, &untouched)) << text;
    std::string why;
    EXPECT_EQ(Verdict::kSucceeded, untouched.judge(1, &why)) << text;
  }
}

// A write cut anywhere leaves the new bytes up to the cut over the old
// ones: that must read as the old payload, the new one or nothing, never
// as anything else.
TEST(SealedSlotTest, AWriteCutAnywhereNeverReadsAsAThirdPayload) {
  const size_t kSize = 64;
  const std::string old_payload = "41", new_payload = "1337";
  const std::string old_bytes = tavix::qmail::seal_slot(old_payload, kSize);
  const std::string new_bytes = tavix::qmail::seal_slot(new_payload, kSize);
  ASSERT_EQ(kSize, new_bytes.size());
  std::string payload;
  ASSERT_TRUE(tavix::qmail::unseal_slot(new_bytes, &payload));
  EXPECT_EQ(new_payload, payload);
  ASSERT_TRUE(tavix::qmail::unseal_slot(std::string(kSize, '\0'), &payload));
  EXPECT_EQ("", payload);

  for (const std::string& before : {old_bytes, std::string(kSize, '\0')}) {
    for (size_t cut = 0; cut <= kSize; ++cut) {
      std::string torn = new_bytes.substr(0, cut) + before.substr(cut);
      if (tavix::qmail::unseal_slot(torn, &payload)) {
        EXPECT_TRUE(payload == new_payload || payload == old_payload || payload.empty())
            << "cut at " << cut << " read as " << payload;
      }
    }
  }
  EXPECT_FALSE(tavix::qmail::unseal_slot("12#0123456789abcdef\n" + std::string(44, '\0'),
                                         &payload));
}

// --- Runs that share ---------------------------------------------------------------

// A program that counts its runs in a file and ends as told.
class Counted {
 public:
  explicit Counted(const std::string& dir) : path_(dir + "/runs") {}
  SharedRun::Program program(int result = 0, const char* why = "") const {
    std::string path = path_;
    return [path, result, why](std::string* message) {
      std::string runs = tavix::test::exists(path) ? tavix::test::read_file(path) : "";
      tavix::test::write_file(path, runs + "x");
      *message = why;
      return result;
    };
  }
  size_t runs() const {
    return tavix::test::exists(path_) ? tavix::test::read_file(path_).size() : 0;
  }

 private:
  std::string path_;
};

// Keys of their own for each test: the state file outlives the test.
SharedRun fresh_run(const char* test, bool hold_requests) {
  std::string key = std::string("/var/qmail/shared-run-test/") + test + "/" +
                    std::to_string(getpid());
  return SharedRun(key + " requests", key, hold_requests);
}

TEST(SharedRunTest, OneRunServesEveryRequestMadeBeforeItStarted) {
  tavix::test::ScratchDir dir;
  Counted counted(dir.path());
  SharedRun run = fresh_run("serves", true);
  uint64_t first = run.request(), second = run.request();
  ASSERT_NE(0u, first);
  ASSERT_LT(first, second);

  EXPECT_EQ(0, run.await(second, counted.program()));
  EXPECT_EQ(0, run.await(first, counted.program()));
  EXPECT_EQ(1u, counted.runs());

  // A request made after that run needs one of its own.
  EXPECT_EQ(0, run.await(run.request(), counted.program()));
  EXPECT_EQ(2u, counted.runs());
}

// caught_up() is what dravnik-auth trusts users/cdb by: true only while a
// successful run has served the last change counted.
TEST(SharedRunTest, AFailedRunFailsEveryRequestItServedWithItsMessage) {
  tavix::test::ScratchDir dir;
  Counted counted(dir.path());
  SharedRun run = fresh_run("fails", false);
  EXPECT_FALSE(run.caught_up());  // no run has made the state file yet
  uint64_t first = run.request(), second = run.request();
  EXPECT_FALSE(run.caught_up());

  EXPECT_NE(0, run.await(second, counted.program(111, "qmail-newu: fatal: disk full")));
  EXPECT_FALSE(run.caught_up());
  auto follower = CaptureStreams([&] { return run.await(first, counted.program()); });
  EXPECT_NE(0, follower.result);
  EXPECT_NE(std::string::npos, follower.err.find("qmail-newu: fatal: disk full"))
      << follower.err;
  EXPECT_EQ(1u, counted.runs());

  uint64_t third = run.request();
  EXPECT_FALSE(run.caught_up());
  EXPECT_EQ(0, run.await(third, counted.program()));
  EXPECT_EQ(2u, counted.runs());
  EXPECT_TRUE(run.caught_up());
  run.request();
  EXPECT_FALSE(run.caught_up());
  // Still the answer of the run that served it.
  EXPECT_NE(0, CaptureStreams([&] { return run.await(first, counted.program()); }).result);
}

// A child leads a run that waits on a pipe; while it runs, the parent
// makes a request and has a second child wait for it. That request came
// after the run read the counter, so the second child runs again.
class SharedRunInFlightTest : public testing::TestWithParam<bool> {};

TEST_P(SharedRunInFlightTest, ARequestMadeWhileARunIsUnderWayGetsTheNextRun) {
  tavix::test::ScratchDir dir;
  Counted counted(dir.path());
  SharedRun run = fresh_run(GetParam() ? "in-flight-held" : "in-flight", GetParam());
  uint64_t early = run.request();
  int started[2], go[2];
  ASSERT_EQ(0, pipe(started));
  ASSERT_EQ(0, pipe(go));
  pid_t leader = fork();
  if (leader == 0) {
    int result = run.await(early, [&](std::string* why) {
      char c;
      if (write(started[1], "s", 1) != 1 || read(go[0], &c, 1) != 1)
        _exit(3);
      return counted.program()(why);
    });
    _exit(result);
  }
  char c;
  ASSERT_EQ(1, read(started[0], &c, 1));
  pid_t late = fork();
  if (late == 0) {
    // With the request lock held by the run, the request waits for its end.
    uint64_t generation = run.request();
    _exit(generation > early ? run.await(generation, counted.program()) : 4);
  }
  ASSERT_EQ(1, write(go[1], "g", 1));
  for (pid_t pid : {leader, late}) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  EXPECT_EQ(2u, counted.runs());
  for (int fd : {started[0], started[1], go[0], go[1]})
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(HoldingRequests, SharedRunInFlightTest, testing::Bool());

TEST(SharedRunTest, ALeaderKilledBeforeItsEndServesNobody) {
  tavix::test::ScratchDir dir;
  Counted counted(dir.path());
  SharedRun run = fresh_run("killed", true);
  uint64_t waiting = run.request();
  int started[2];
  ASSERT_EQ(0, pipe(started));
  pid_t leader = fork();
  if (leader == 0) {
    uint64_t own = run.request();
    run.await(own, [&](std::string*) {
      if (write(started[1], "s", 1) != 1)
        _exit(3);
      pause();
      return 0;
    });
    _exit(0);
  }
  char c;
  ASSERT_EQ(1, read(started[0], &c, 1));
  ASSERT_EQ(0, kill(leader, SIGKILL));
  int status = 0;
  ASSERT_EQ(leader, waitpid(leader, &status, 0));
  // The killed run covered `waiting` but never entered its end.
  EXPECT_EQ(0, run.await(waiting, counted.program()));
  EXPECT_EQ(1u, counted.runs());
  close(started[0]);
  close(started[1]);
}

// A state file garbled (a write cut short, a stray edit) is read as "not
// served": the next request is above everything served, and a request that
// was served is run again rather than answered from what cannot be read.
TEST(SharedRunTest, AGarbledStateFileOnlyCostsARunMore) {
  tavix::test::ScratchDir dir;
  Counted counted(dir.path());
  SharedRun run = fresh_run("garbled", false);
  std::string key = std::string("/var/qmail/shared-run-test/garbled/") + std::to_string(getpid());
  uint64_t served = 0;
  for (int i = 0; i < 3; ++i)
    served = run.request();
  ASSERT_EQ(0, run.await(served, counted.program()));

  tavix::UniqueFd state = open_lock_state_file(key.c_str());
  ASSERT_TRUE(state);
  // One slot of the counter, as a kill during its write leaves it: the
  // other still holds the last generation handed out.
  ASSERT_EQ(5, pwrite(state.get(), "junk\n", 5, 64 * ((served + 1) % 2)));
  uint64_t next = run.request();
  EXPECT_EQ(served + 1, next);
  // Both, as no kill can: still above everything served.
  ASSERT_EQ(5, pwrite(state.get(), "junk\n", 5, 0));
  ASSERT_EQ(5, pwrite(state.get(), "junk\n", 5, 64));
  next = run.request();
  EXPECT_GT(next, served);

  ASSERT_EQ(5, pwrite(state.get(), "junk\n", 5, 128));  // the ledger
  EXPECT_EQ(0, run.await(served, counted.program()));
  EXPECT_EQ(2u, counted.runs());
  EXPECT_EQ(0, run.await(next, counted.program()));
  EXPECT_EQ(2u, counted.runs());
}

}  // namespace
