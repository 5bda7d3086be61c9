#include "util/exec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "util/fs.h"
#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

using tavix::unique_free;
using tavix::test::CaptureStreams;
using tavix::test::LogRecorder;
using tavix::test::TempDir;

const char kSh[] = "/bin/sh";
const char* const kEnd = nullptr;  // ends the list of an "l" variant

// "sh -c SCRIPT ARGS..." as an argument vector.
std::vector<char*> ShArgv(std::vector<const char*> script_and_args) {
  std::vector<char*> argv{const_cast<char*>("sh"), const_cast<char*>("-c")};
  for (const char* arg : script_and_args) argv.push_back(const_cast<char*>(arg));
  argv.push_back(nullptr);
  return argv;
}

// Takes ownership of a captured buffer; "<null>" when nothing was captured.
std::string Take(char* text) {
  unique_free<char> owner(text);
  return owner ? std::string(owner.get()) : std::string("<null>");
}

TEST(GetOutErr, CapturesBothStreamsAndExitCode) {
  const std::string large = "head -c 20000 /dev/zero | tr '\\0' o; "
                            "head -c 30000 /dev/zero | tr '\\0' e >&2";
  const struct {
    const char* path;
    std::string script, out, err;
    int result;
  } cases[] = {
      {kSh, "exit 0", "<null>", "<null>", 0},
      {kSh, "printf out; printf err >&2; exit 3", "out", "err", 3},
      {kSh, "printf partial; kill -9 $$", "partial", "<null>", -1},
      {kSh, large, std::string(20000, 'o'), std::string(30000, 'e'), 0},
      {"/nonexistent/prog", "", "<null>",
       "fork_execv: execv(\"/nonexistent/prog\") failed: No such file or directory\n", 255},
  };
  LogRecorder log;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script.substr(0, 40));
    char* out = nullptr;
    char* err = nullptr;
    EXPECT_EQ(c.result,
              fork_execl_getouterr(&out, &err, c.path, "sh", "-c", c.script.c_str(), kEnd));
    EXPECT_EQ(c.out, Take(out));
    EXPECT_EQ(c.err, Take(err));
  }
}

TEST(GetOutErr, DaemonHoldingPipeDoesNotBlock) {
  // The child exits at once but leaves a grandchild holding its pipes.
  time_t start = time(nullptr);
  char* out = nullptr;
  char* err = nullptr;
  EXPECT_EQ(4, fork_execl_getouterr(&out, &err, kSh, "sh", "-c", "sleep 60 & echo $!; exit 4",
                                    kEnd));
  unique_free<char> out_owner(out), err_owner(err);
  EXPECT_LT(time(nullptr) - start, 30);
  ASSERT_NE(nullptr, out_owner);
  kill(static_cast<pid_t>(atol(out_owner.get())), SIGKILL);
}

TEST(WaitPid, ExitCodeKilledChildAndFailedStart) {
  LogRecorder log;
  EXPECT_EQ(7, fork_exec_getres(fork_execl_pipes(-1, -1, -1, kSh, "sh", "-c", "exit 7", kEnd),
                                "seven"));
  pid_t pid = fork_execl_pipes(-1, -1, -1, kSh, "sh", "-c", "kill -9 $$", kEnd);
  int status = 0;
  EXPECT_EQ(-1, fork_exec_waitpid(pid, "victim", &status));
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_TRUE(LogRecorder::Has(4, "waitpid(" + std::to_string(pid) + ")=" + std::to_string(pid) +
                                      ": process 'victim' killed by signal 9"));
  EXPECT_EQ(-1, fork_exec_getres(-1, "none"));
  EXPECT_EQ(-1, fork_exec_waitpid(-5, nullptr, nullptr));
  EXPECT_TRUE(LogRecorder::Has(3, "fork before spawning '<unknown>' failed"));
}

// A failure is shown on both streams, a failing child's own output on
// standard error.
TEST(ExecvLog, ReportsFailureOnBothStreams) {
  const struct {
    const char* script;
    int quiet, result;
    const char* out;
    const char* err;
  } cases[] = {
      {"echo broken >&2; exit 3", 0, 3, "/bin/sh execution failed:\nbroken\n",
       "/bin/sh execution failed:\nbroken\n"},
      {"echo broken >&2; exit 3", 1, 3, "", ""},
      {"echo said; exit 1", 0, 1, "/bin/sh execution failed (no output)\n",
       "said\n/bin/sh execution failed (no output)\n"},
      {"echo fine; echo fine >&2", 0, 0, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    auto output =
        CaptureStreams([&] { return fork_execv_log(kSh, ShArgv({c.script}).data(), c.quiet); });
    EXPECT_EQ(c.result, output.result);
    EXPECT_EQ(c.out, output.out);
    EXPECT_EQ(c.err, output.err);
  }
  // path_exec puts the path first; "arg" is the script's $0.
  auto output = CaptureStreams(
      [] { return path_exec(kSh, "-c", "echo \"$0:$1\" >&2; exit 6", "arg", kEnd); });
  EXPECT_EQ(6, output.result);
  EXPECT_EQ("/bin/sh execution failed:\narg:\n", output.out);
}

TEST(ExecvFd, FiltersAndReportsWhatTheChildSays) {
  const std::string refused = "values 0,1,2 not allowed for variables fd_in & fd_out\n";
  enum { kFile = -1 };  // the test's own file rather than a standard descriptor
  const struct {
    int in, out;
    const char* path;
    const char* script;
    int result;
    // Shown on both standard streams, the child's own standard error, the file.
    std::string shown, err, file;
  } cases[] = {
      {kFile, kFile, kSh, "sed -e s/hello/bye/", 0, "", "", "bye\n"},
      {kFile, STDOUT_FILENO, kSh, "exit 0", -1, refused, "", ""},
      {STDIN_FILENO, kFile, kSh, "exit 0", -1, refused, "", ""},
      {kFile, STDERR_FILENO, kSh, "cat", 0, "", "hello\n", ""},
      {kFile, kFile, kSh, "echo oops >&2; exit 4", 4, "oops\n", "", ""},
      {kFile, kFile, "/nonexistent/sed", "", 255,
       "Error occured during execv():\nNo such file or directory.\n", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    TempDir tmp;
    tavix::test::write_file(tmp.path("in"), "hello\n");
    tavix::UniqueFd in(open(tmp.path("in").c_str(), O_RDONLY));
    tavix::UniqueFd out(open(tmp.path("out").c_str(), O_WRONLY | O_CREAT, 0600));
    auto output = CaptureStreams([&] {
      return fork_execv_fd(c.in == kFile ? in.get() : c.in, c.out == kFile ? out.get() : c.out,
                           c.path, ShArgv({c.script}).data());
    });
    EXPECT_EQ(c.result, output.result);
    EXPECT_EQ(c.shown, output.out);
    EXPECT_EQ(c.shown + c.err, output.err);
    EXPECT_EQ(c.file, tavix::test::read_file(tmp.path("out")));
  }
}

TEST(PopenExec, OutputCodesInputAndReports) {
  char* out = nullptr;
  EXPECT_EQ(3, popen_exec_getoutput(&out, "head -c 20000 /dev/zero | tr '\\0' p; exit 3"));
  EXPECT_EQ(std::string(20000, 'p'), Take(out));
  TempDir tmp;
  const std::string command = "cat > " + tmp.path("got") + "; exit 5";
  EXPECT_EQ(5, popen_exec_with_input(command.c_str(), "line one\nline two\n"));
  EXPECT_EQ("line one\nline two\n", tavix::test::read_file(tmp.path("got")));

  const std::string input(1 << 20, 'z');  // more than a command that stops reading takes
  auto output = CaptureStreams([&] {
    return std::vector<int>{popen_exec("true"), popen_exec("echo bad; exit 2"),
                            popen_exec("exit 1"), popen_exec_with_input("exit 0", input.c_str())};
  });
  EXPECT_EQ(std::vector<int>({0, 2, 1, -1}), output.result);
  EXPECT_EQ(0u, output.out.find("popen_exec: command failed code: 2 , bad\n\n"
                                "popen_exec: command failed code: 1 , error: none\n"
                                "Failed to execute command with input: only "))
      << output.out;
}

}  // namespace
