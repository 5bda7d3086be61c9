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
using tavix::test::CaptureOutput;
using tavix::test::LogRecorder;
using tavix::test::TempDir;

const char kSh[] = "/bin/sh";

std::string Text(const unique_free<char>& text) {
  return text ? std::string(text.get()) : std::string("<null>");
}

struct RunCase {
  const char* title;
  const char* script;
  int result;
  const char* out;  // null: nothing captured
  const char* err;
};

void PrintTo(const RunCase& c, std::ostream* os) { *os << c.title; }

class GetOutErrTest : public testing::TestWithParam<RunCase> {};

TEST_P(GetOutErrTest, CapturesBothStreamsAndExitCode) {
  const RunCase& c = GetParam();
  char* out = nullptr;
  char* err = nullptr;
  LogRecorder log;
  EXPECT_EQ(c.result,
            fork_execl_getouterr(&out, &err, kSh, "sh", "-c", c.script,
                                 static_cast<char*>(nullptr)));
  unique_free<char> out_owner(out), err_owner(err);
  EXPECT_EQ(c.out ? c.out : "<null>", Text(out_owner));
  EXPECT_EQ(c.err ? c.err : "<null>", Text(err_owner));
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, GetOutErrTest,
    testing::Values(
        RunCase{"Silent", "exit 0", 0, nullptr, nullptr},
        RunCase{"BothStreams", "printf out; printf err >&2; exit 3", 3, "out",
                "err"},
        RunCase{"ErrorOnly", "echo late >&2; exit 255", 255, nullptr,
                "late\n"},
        RunCase{"Killed", "printf partial; kill -9 $$", -1, "partial",
                nullptr}),
    [](const testing::TestParamInfo<RunCase>& info) {
      return std::string(info.param.title);
    });

TEST(GetOutErr, LargeOutputOnBothStreamsIsComplete) {
  char* out = nullptr;
  char* err = nullptr;
  EXPECT_EQ(0, fork_execl_getouterr(
                   &out, &err, kSh, "sh", "-c",
                   "head -c 20000 /dev/zero | tr '\\0' o; "
                   "head -c 30000 /dev/zero | tr '\\0' e >&2",
                   static_cast<char*>(nullptr)));
  unique_free<char> out_owner(out), err_owner(err);
  EXPECT_EQ(std::string(20000, 'o'), Text(out_owner));
  EXPECT_EQ(std::string(30000, 'e'), Text(err_owner));
}

TEST(GetOut, LargeOutputIsComplete) {
  char* out = nullptr;
  EXPECT_EQ(0, fork_execl_getout(&out, kSh, "sh", "-c",
                                 "head -c 20000 /dev/zero | tr '\\0' x",
                                 static_cast<char*>(nullptr)));
  unique_free<char> owner(out);
  EXPECT_EQ(std::string(20000, 'x'), Text(owner));
}

TEST(GetOut, ArgumentsReachChildInOrder) {
  char* raw = nullptr;
  char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                        const_cast<char*>("printf '%s|' \"$0\" \"$@\""),
                        const_cast<char*>("zero"), const_cast<char*>("one"),
                        const_cast<char*>("two words"), nullptr};
  EXPECT_EQ(0, fork_execv_getout(&raw, kSh, argv));
  unique_free<char> out(raw);
  EXPECT_EQ("zero|one|two words|", Text(out));
}

TEST(GetOutErr, UnexecutableChildGives255AndReason) {
  char* out = nullptr;
  char* err = nullptr;
  EXPECT_EQ(255, fork_execl_getouterr(&out, &err, "/nonexistent/prog", "prog",
                                      static_cast<char*>(nullptr)));
  unique_free<char> out_owner(out), err_owner(err);
  EXPECT_EQ(nullptr, out_owner);
  EXPECT_EQ(
      "fork_execv: execv(\"/nonexistent/prog\") failed: No such file or "
      "directory\n",
      Text(err_owner));
}

TEST(GetOutErr, DaemonHoldingPipeDoesNotBlock) {
  // The child exits at once but leaves a grandchild holding its pipes.
  time_t start = time(nullptr);
  char* out = nullptr;
  char* err = nullptr;
  EXPECT_EQ(4, fork_execl_getouterr(&out, &err, kSh, "sh", "-c",
                                    "sleep 60 & echo $!; exit 4",
                                    static_cast<char*>(nullptr)));
  unique_free<char> out_owner(out), err_owner(err);
  EXPECT_LT(time(nullptr) - start, 30);
  ASSERT_NE(nullptr, out_owner);
  kill(static_cast<pid_t>(atol(out_owner.get())), SIGKILL);
}

TEST(WaitPid, KilledChildLogsAndFails) {
  pid_t pid = fork_execl_pipes(-1, -1, -1, kSh, "sh", "-c", "kill -9 $$",
                               static_cast<char*>(nullptr));
  LogRecorder log;
  int status = 0;
  EXPECT_EQ(-1, fork_exec_waitpid(pid, "victim", &status));
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_TRUE(LogRecorder::Has(
      4, "waitpid(" + std::to_string(pid) + ")=" + std::to_string(pid) +
             ": process 'victim' killed by signal 9"));
}

TEST(WaitPid, ExitCodeAndFailedStart) {
  pid_t pid = fork_execl_pipes(-1, -1, -1, kSh, "sh", "-c", "exit 7",
                               static_cast<char*>(nullptr));
  EXPECT_EQ(7, fork_exec_getres(pid, "seven"));
  LogRecorder log;
  EXPECT_EQ(-1, fork_exec_getres(-1, "none"));
  EXPECT_EQ(-1, fork_exec_waitpid(-5, nullptr, nullptr));
  EXPECT_TRUE(LogRecorder::Has(3, "fork before spawning '<unknown>' failed"));
}

TEST(Pipes, DescriptorsBecomeStandardStreams) {
  TempDir tmp;
  std::string in_path = tmp.path("in");
  std::string out_path = tmp.path("out");
  tavix::test::write_file(in_path, "hello\n");
  tavix::UniqueFd in(open(in_path.c_str(), O_RDONLY));
  tavix::UniqueFd out(open(out_path.c_str(), O_WRONLY | O_CREAT, 0600));
  ASSERT_TRUE(in && out);
  // Standard error goes to the same file as the output.
  pid_t pid = fork_execl_pipes(in.get(), out.get(), out.get(), kSh, "sh", "-c",
                               "tr a-z A-Z; echo err >&2",
                               static_cast<char*>(nullptr));
  EXPECT_EQ(0, fork_exec_getres(pid, "tr"));
  EXPECT_EQ("HELLO\nerr\n", tavix::test::read_file(out_path));
}

struct LogCase {
  const char* title;
  const char* script;
  int quiet;
  int result;
  const char* message;  // null: nothing may be printed
};

void PrintTo(const LogCase& c, std::ostream* os) { *os << c.title; }

class ExecvLogTest : public testing::TestWithParam<LogCase> {};

TEST_P(ExecvLogTest, ReportsFailureOnBothStreams) {
  const LogCase& c = GetParam();
  char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                        const_cast<char*>(c.script), nullptr};
  auto output =
      CaptureOutput([&] { return fork_execv_log(kSh, argv, c.quiet); });
  EXPECT_EQ(c.result, output.result);
  if (c.message) {
    EXPECT_NE(std::string::npos, output.err.find(c.message)) << output.err;
    EXPECT_EQ(std::string(c.message) + "\n", output.out);
  } else {
    EXPECT_EQ("", output.out);
    EXPECT_EQ("", output.err);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, ExecvLogTest,
    testing::Values(
        LogCase{"ErrorText", "echo broken >&2; exit 3", 0, 3,
                "/bin/sh execution failed:\nbroken"},
        LogCase{"Quiet", "echo broken >&2; exit 3", 1, 3, nullptr},
        LogCase{"NoErrorText", "exit 2", 0, 2,
                "/bin/sh execution failed (no output)"},
        LogCase{"SuccessShowsNothing", "echo fine; echo fine >&2", 0, 0,
                nullptr}),
    [](const testing::TestParamInfo<LogCase>& info) {
      return std::string(info.param.title);
    });

TEST(ExecvLog, FailedChildOutputGoesToStandardError) {
  auto output = CaptureOutput([] {
    return fork_execl_log(kSh, 0, "sh", "-c", "echo said; exit 1",
                          static_cast<char*>(nullptr));
  });
  EXPECT_EQ(1, output.result);
  EXPECT_EQ("said\n/bin/sh execution failed (no output)\n", output.err);
}

TEST(PathExec, PathIsArgvZero) {
  auto output = CaptureOutput([] {
    return path_exec(kSh, "-c", "echo \"$0:$1\" >&2; exit 6", "arg",
                     static_cast<char*>(nullptr));
  });
  EXPECT_EQ(6, output.result);
  EXPECT_NE(std::string::npos, output.out.find("execution failed:\narg:"))
      << output.out;
}

TEST(UtilExec, NameWithSlashRefused) {
  const char kMessage[] =
      "Utility name '../bin/sh' is invalid. Use only utility name without "
      "path.\n";
  char* const argv[] = {const_cast<char*>("sh"), nullptr};
  auto output = CaptureOutput([&] {
    return std::vector<int>{
        util_exec("../bin/sh", "-c", "exit 0", static_cast<char*>(nullptr)),
        util_exec_args("../bin/sh", argv)};
  });
  EXPECT_EQ(std::vector<int>({-1, -1}), output.result);
  EXPECT_EQ(std::string(kMessage) + kMessage, output.out);
}

TEST(UtilExec, RunsFromProductDirectories) {
  auto output = CaptureOutput([] {
    return std::vector<int>{
        util_exec("no-such-utility", static_cast<char*>(nullptr)),
        util_libexec("no-such-helper", static_cast<char*>(nullptr))};
  });
  EXPECT_EQ(std::vector<int>({255, 255}), output.result);
  EXPECT_NE(std::string::npos,
            output.out.find("execv(\"/usr/local/zon/admin/sbin/"
                            "no-such-utility\") failed"));
  EXPECT_NE(std::string::npos,
            output.out.find("execv(\"/usr/lib64/tavix-9.0/no-such-helper\") "
                            "failed"));
}

class ExecvFdTest : public testing::Test {
 protected:
  void SetUp() override {
    tavix::test::write_file(tmp_.path("in"), "hello\n");
    in_.reset(open(tmp_.path("in").c_str(), O_RDONLY));
    out_.reset(open(tmp_.path("out").c_str(), O_WRONLY | O_CREAT, 0600));
    ASSERT_TRUE(in_ && out_);
  }

  int Run(int fd_in, int fd_out, const char* path, const char* script) {
    char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                          const_cast<char*>(script), nullptr};
    return fork_execv_fd(fd_in, fd_out, path, argv);
  }

  TempDir tmp_;
  tavix::UniqueFd in_, out_;
};

TEST_F(ExecvFdTest, FiltersFileToFile) {
  EXPECT_EQ(0, Run(in_.get(), out_.get(), kSh, "sed -e s/hello/bye/"));
  EXPECT_EQ("bye\n", tavix::test::read_file(tmp_.path("out")));
}

TEST_F(ExecvFdTest, StandardDescriptorsRefused) {
  auto output = CaptureOutput([&] {
    return std::vector<int>{Run(in_.get(), STDOUT_FILENO, kSh, "exit 0"),
                            Run(STDIN_FILENO, out_.get(), kSh, "exit 0")};
  });
  EXPECT_EQ(std::vector<int>({-1, -1}), output.result);
  EXPECT_EQ(
      "values 0,1,2 not allowed for variables fd_in & fd_out\n"
      "values 0,1,2 not allowed for variables fd_in & fd_out\n",
      output.out);
}

TEST_F(ExecvFdTest, StandardErrorAsOutputRuns) {
  auto output =
      CaptureOutput([&] { return Run(in_.get(), STDERR_FILENO, kSh, "cat"); });
  EXPECT_EQ(0, output.result);
  EXPECT_EQ("hello\n", output.err);
}

TEST_F(ExecvFdTest, ChildErrorsBecomeMessages) {
  auto output = CaptureOutput(
      [&] { return Run(in_.get(), out_.get(), kSh, "echo oops >&2; exit 4"); });
  EXPECT_EQ(4, output.result);
  EXPECT_EQ("oops\n", output.out);
}

TEST_F(ExecvFdTest, UnexecutableChild) {
  auto output = CaptureOutput(
      [&] { return Run(in_.get(), out_.get(), "/nonexistent/sed", ""); });
  EXPECT_EQ(255, output.result);
  EXPECT_EQ("Error occured during execv():\nNo such file or directory.\n",
            output.out);
}

TEST_F(ExecvFdTest, KilledChild) {
  auto output =
      CaptureOutput([&] { return Run(in_.get(), out_.get(), kSh, "kill -9 $$"); });
  EXPECT_EQ(-1, output.result);
  EXPECT_NE(std::string::npos, output.out.find("killed by signal 9"));
}

TEST(ForkExecv, ExitCodeOrOneWhenKilled) {
  EXPECT_EQ(7, fork_execv(kSh, "-c", "echo hidden; exit 7",
                          static_cast<char*>(nullptr)));
  EXPECT_EQ(1, fork_execv(kSh, "-c", "kill -9 $$",
                          static_cast<char*>(nullptr)));
}

TEST(DoExec, ReturnsRawStatus) {
  char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                        const_cast<char*>("exit 2"), nullptr};
  int status = do_exec(kSh, argv);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(2, WEXITSTATUS(status));
}

TEST(PopenExec, GetOutputKeepsAllOutputAndCode) {
  char* raw = nullptr;
  EXPECT_EQ(3, popen_exec_getoutput(
                   &raw, "head -c 20000 /dev/zero | tr '\\0' p; exit 3"));
  unique_free<char> out(raw);
  EXPECT_EQ(std::string(20000, 'p'), Text(out));
}

TEST(PopenExec, FailureReported) {
  auto output = CaptureOutput([] {
    return std::vector<int>{popen_exec("true"), popen_exec("echo bad; exit 2"),
                            popen_exec("exit 1")};
  });
  EXPECT_EQ(std::vector<int>({0, 2, 1}), output.result);
  EXPECT_EQ(
      "popen_exec: command failed code: 2 , bad\n\n"
      "popen_exec: command failed code: 1 , error: none\n",
      output.out);
}

TEST(PopenExec, WithInputFeedsCommand) {
  TempDir tmp;
  std::string path = tmp.path("got");
  std::string command = "cat > " + path + "; exit 5";
  EXPECT_EQ(5, popen_exec_with_input(command.c_str(), "line one\nline two\n"));
  EXPECT_EQ("line one\nline two\n", tavix::test::read_file(path));
}

TEST(PopenExec, WithInputToCommandThatStopsReading) {
  std::string input(1 << 20, 'z');
  auto output = CaptureOutput(
      [&] { return popen_exec_with_input("exit 0", input.c_str()); });
  EXPECT_EQ(-1, output.result);
  EXPECT_NE(std::string::npos,
            output.out.find("Failed to execute command with input: only "))
      << output.out;
}

}  // namespace
