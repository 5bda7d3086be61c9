#include "batch/command_runner.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "commands/password.h"
#include "main/dispatch.h"
#include "maildata/session_mail_data.h"
#include "util/log.h"

namespace tavix {
namespace batch {

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": " + strerror(errno));
}

UniqueFd duplicate(int fd) {
  UniqueFd copy(fcntl(fd, F_DUPFD_CLOEXEC, 3));
  if (!copy)
    fail("cannot keep a standard stream aside");
  return copy;
}

UniqueFd memory_file(const char* name) {
  UniqueFd fd(memfd_create(name, MFD_CLOEXEC));
  if (!fd)
    fail("cannot make a memory file");
  return fd;
}

// Makes the memory file `fd` hold `text` alone, and rewinds it. The text
// goes over the old one before the file is cut to its length: emptying the
// file first would give back its page only to take a new one for the text.
void refill(int fd, const std::string& text) {
  bool ok = lseek(fd, 0, SEEK_SET) == 0 && (text.empty() || write_all(fd, text)) &&
            ftruncate(fd, static_cast<off_t>(text.size())) == 0 &&
            (text.empty() || lseek(fd, 0, SEEK_SET) == 0);
  if (!ok)
    fail("cannot write a memory file");
}

// What the command wrote to `fd`, which its output shares an offset with.
std::string written(int fd) {
  off_t length = lseek(fd, 0, SEEK_CUR);
  if (length < 0)
    fail("cannot read the command's output");
  std::string text(static_cast<size_t>(length), '\0');
  if (length > 0 && pread(fd, &text[0], text.size(), 0) != length)
    fail("cannot read the command's output");
  return text;
}

void flush_streams() {
  std::cout.flush();
  std::cerr.flush();
  fflush(stdout);
  fflush(stderr);
}

// Whatever the streams still buffer belongs to the descriptor they are
// about to lose: read-ahead of a document is dropped, not handed on.
void forget_input() {
  __fpurge(stdin);
  clearerr(stdin);
  std::cin.clear();
}

void move_fd(int from, int to) {
  if (dup2(from, to) < 0)
    fail("cannot redirect a standard stream");
}

// The passwords reach the front end as they would from the environment,
// but are taken out of it before the command runs: no child it starts
// (qmail-newu, sed) may inherit them.
void hand_passwords(const Command& command) {
  if (command.password && setenv("ZON_PASSWORD", command.password->c_str(), 1) != 0)
    fail("cannot pass the password");
  if (command.crypted_password &&
      setenv("ZON_CRYPTED_PASSWORD", command.crypted_password->c_str(), 1) != 0)
    fail("cannot pass the password");
  take_env_passwords();
}

// A password the command did not ask for must not reach the next one.
void drop_passwords() {
  const char* password = nullptr;
  int crypted = 0;
  (void)get_env_password(&password, &crypted);
}

pid_t runner_pid = 0;

// A command's fatal failure ends the command. In a child the command forked
// (a rename plug-in's process) it ends that child, as exit() would have: a
// throw there would run the rest of the batch a second time.
[[noreturn]] void end_command(int status) {
  if (getpid() != runner_pid) {
    fflush(nullptr);
    _exit(status);
  }
  throw_command_exit(status);
}

}  // namespace

CommandRunner::CommandRunner()
    : saved_in_(duplicate(STDIN_FILENO)),
      saved_out_(duplicate(STDOUT_FILENO)),
      saved_err_(duplicate(STDERR_FILENO)),
      no_input_(open("/dev/null", O_RDONLY | O_CLOEXEC)),
      input_(memory_file("stdin")),
      output_(memory_file("output")) {
  if (!no_input_)
    fail("cannot open /dev/null");
  runner_pid = getpid();
  tavix_set_fatal_handler(end_command);
}

CommandRunner::~CommandRunner() {
  // The batch gives the streams back itself; here only a way out that
  // skipped it is covered, and a destructor must not throw.
  try {
    restore();
  } catch (const std::exception&) {
  }
  tavix_set_fatal_handler(nullptr);
}

// Standard output and error stay on the output file from one command to
// the next; standard input changes only when the kind of input does (the
// document file is refilled in place, and the descriptor shares its offset).
void CommandRunner::redirect(int in) {
  flush_streams();
  forget_input();
  if (!redirected_) {
    move_fd(output_.get(), STDOUT_FILENO);
    move_fd(output_.get(), STDERR_FILENO);
  }
  if (!redirected_ || in != input_now_)
    move_fd(in, STDIN_FILENO);
  input_now_ = in;
  redirected_ = true;
}

void CommandRunner::restore() {
  if (!redirected_)
    return;
  flush_streams();
  forget_input();
  move_fd(saved_in_.get(), STDIN_FILENO);
  move_fd(saved_out_.get(), STDOUT_FILENO);
  move_fd(saved_err_.get(), STDERR_FILENO);
  redirected_ = false;
}

// The same document again needs only its offset back at the start.
void CommandRunner::load_input(const std::string& text) {
  if (input_loaded_ && text == input_text_) {
    if (lseek(input_.get(), 0, SEEK_SET) != 0)
      fail("cannot rewind a memory file");
    return;
  }
  input_loaded_ = false;
  refill(input_.get(), text);
  input_text_ = text;
  input_loaded_ = true;
}

// Everything printed goes through the one shared offset, so a command
// whose output was read as empty left the file empty. Until that is known
// again, the file counts as used.
void CommandRunner::clear_output() {
  if (output_used_)
    refill(output_.get(), std::string());
  output_used_ = true;
}

std::string CommandRunner::capture(const std::function<void()>& work) {
  clear_output();
  redirect(no_input_.get());
  try {
    work();
  } catch (...) {
    restore();
    throw;
  }
  flush_streams();
  fresh_.descriptors_changed();
  std::string printed = written(output_.get());
  output_used_ = !printed.empty();
  restore();
  return printed;
}

Outcome CommandRunner::run(const Command& command) {
  if (command.stdin_text)
    load_input(*command.stdin_text);
  clear_output();

  std::vector<std::string> words{"dravnik"};
  words.insert(words.end(), command.argv.begin(), command.argv.end());
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(&word[0]);
  argv.push_back(nullptr);

  Outcome outcome;
  redirect(command.stdin_text ? input_.get() : no_input_.get());
  hand_passwords(command);
  fresh_.before_command();
  outcome.status = run_command(static_cast<int>(words.size()), argv.data());
  drop_passwords();
  free_session_mail_db_info();
  flush_streams();
  fresh_.after_command(outcome.status != 0);
  outcome.output = written(output_.get());
  output_used_ = !outcome.output.empty();
  return outcome;
}

}  // namespace batch
}  // namespace tavix
