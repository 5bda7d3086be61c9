#include "util/exec.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "util/fs.h"
#include "util/log.h"
#include "util/unique_free.h"
#include "util/zon_conf.h"

namespace {

using tavix::UniqueFd;
using tavix::unique_free;

// Where the product keeps its helper programs.
const char kLibexecDir[] = "/usr/lib64/tavix-9.0";
// The path-built variants keep at most this many arguments after argv[0].
const size_t kMaxPathArgs = 99;
const size_t kNoLimit = SIZE_MAX;

// What a child's standard stream becomes, besides a descriptor to use.
const int kDevNull = -1;
const int kInherit = -2;

// Failures of this process's own resources end it: no caller could go on.
[[noreturn]] void die(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
void die(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vmesslog2(1, 1, format, ap);
  va_end(ap);
  exit(1);  // vmesslog2 has exited already
}

// A null-terminated argument vector over the caller's strings.
using ArgVector = std::vector<char*>;

// Builds a vector of `first` and the variadic strings after it up to the
// null pointer, keeping at most `max_more` of those.
ArgVector args_from_va(const char* first, va_list ap, size_t max_more) {
  ArgVector argv;
  try {
    if (first) {
      argv.push_back(const_cast<char*>(first));
      for (size_t n = 0; n < max_more; ++n) {
        const char* arg = va_arg(ap, const char*);
        if (!arg)
          break;
        argv.push_back(const_cast<char*>(arg));
      }
    }
    argv.push_back(nullptr);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    die("malloc() failed: %s", strerror(ENOMEM));
  }
  return argv;
}

// Retries waitpid() interrupted by a signal.
pid_t wait_for(pid_t pid, int* status, int options) {
  pid_t rc;
  do {
    errno = 0;
    rc = waitpid(pid, status, options);
  } while (rc < 0 && errno == EINTR);
  return rc;
}

// One wait for `pid` and what its status means: the exit code, or -1 with a
// log line for a failed wait or an abnormal end. With WNOHANG a child that
// is still running sets `*running` and gives 0.
int wait_and_decode(pid_t pid, const char* name, int options, int* status,
                    bool* running) {
  int st = 0;
  pid_t rc = wait_for(pid, &st, options);
  if (rc < 0) {
    int error = errno;
    tavix_log(3, "waitpid(%ld) for '%s' process failed: %s (%d)",
              static_cast<long>(pid), name, strerror(error), error);
    return -1;
  }
  if (rc == 0) {
    if (running) {
      *running = true;
      return 0;
    }
    tavix_log(3, "waitpid(%ld) for '%s' process returned unexpected 0 code",
              static_cast<long>(pid), name);
    return -1;
  }
  if (status)
    *status = st;
  if (WIFSIGNALED(st)) {
    tavix_log(4, "waitpid(%ld)=%ld: process '%s' killed by signal %d",
              static_cast<long>(pid), static_cast<long>(rc), name,
              WTERMSIG(st));
    return -1;
  }
  if (WIFSTOPPED(st)) {
    tavix_log(4, "waitpid(%ld)=%ld: process '%s' stopped by signal %d",
              static_cast<long>(pid), static_cast<long>(rc), name,
              WSTOPSIG(st));
    return -1;
  }
  if ((st & 0xffff) == 0xffff) {
    tavix_log(4, "waitpid(%ld)=%ld: process '%s' continued",
              static_cast<long>(pid), static_cast<long>(rc), name);
    return -1;
  }
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// The descriptor a ChildrenKeepFd hands to children, or -1.
int kept_fd = -1;

// Closes every descriptor from `first` on.
void close_from(int first) {
  if (close_range(first, ~0U, 0) == 0)
    return;
  for (int fd = first, end = getdtablesize(); fd < end; ++fd)
    close(fd);  // most are not open: EBADF is expected
}

// Closes every descriptor from 3 on but `kept_fd`, which loses its
// close-on-exec flag.
bool close_all_but_kept() {
  if (kept_fd < 3) {
    close_from(3);
    return true;
  }
  if (kept_fd > 3 && close_range(3, kept_fd - 1, 0) != 0) {
    for (int fd = 3; fd < kept_fd; ++fd)
      close(fd);  // most are not open: EBADF is expected
  }
  close_from(kept_fd + 1);
  return fcntl(kept_fd, F_SETFD, 0) == 0;
}

// In the child: puts plan[t] on descriptor t for t = 0, 1, 2 and closes all
// other descriptors. Every source is first copied above 2, so that setting
// up one stream can never overwrite the source of another.
bool setup_child_fds(const int plan[3]) {
  int source[3] = {-1, -1, -1};
  for (int t = 0; t < 3; ++t) {
    if (plan[t] == kInherit || plan[t] == t)
      continue;
    int fd = plan[t] == kDevNull ? open("/dev/null", O_RDWR | O_CLOEXEC)
                                 : plan[t];
    if (fd < 0)
      return false;
    source[t] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (source[t] < 0)
      return false;
  }
  for (int t = 0; t < 3; ++t) {
    if (source[t] >= 0 && dup2(source[t], t) < 0)
      return false;
  }
  return close_all_but_kept();
}

// Writes in the child why execv() failed, on its standard error.
using ExecFailureReport = void (*)(const char* path, int error);

// Writes `text` on standard error in one write(), so that a parent reading
// the pipe gets it as one piece.
void write_stderr(const char* text) {
  size_t length = strlen(text);
  while (length > 0) {
    ssize_t n = write(STDERR_FILENO, text, length);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return;  // nobody left to tell
    text += n;
    length -= static_cast<size_t>(n);
  }
}

void report_execv_failure(const char* path, int error) {
  char text[4200];
  snprintf(text, sizeof(text), "fork_execv: execv(\"%s\") failed: %s\n", path,
           strerror(error));
  write_stderr(text);
}

// fork_execv_fd() shows its child's standard error as messages, so the
// child explains itself in the same words as its caller.
void report_fd_execv_failure(const char*, int error) {
  char text[512];
  snprintf(text, sizeof(text), "Error occured during execv():\n%s%s",
           strerror(error),
           error == EFAULT ? ", possible reason - NULL parameter is absent in "
                             "util_exec(path, arg1, arg2, NULL) call.\n"
                           : ".\n");
  write_stderr(text);
}

// The one fork-and-exec: starts `path` with its standard streams as
// `plan` says and every other descriptor closed. A child that cannot be set
// up or executed exits with 255 (after `report`, when given). Returns the
// pid, or -1 with errno when fork() failed.
pid_t spawn(const int plan[3], const char* path, char* const argv[],
            ExecFailureReport report) {
  pid_t pid = fork();
  if (pid != 0)
    return pid;
  // The child leaves with _exit(): this process's unflushed stdio buffers
  // belong to the parent and must not be written twice.
  if (!setup_child_fds(plan)) {
    char text[256];
    snprintf(text, sizeof(text), "fork_execv: dup() failed: %s\n",
             strerror(errno));
    write_stderr(text);
    _exit(255);
  }
  errno = 0;
  execv(path, argv);
  if (report)
    report(path, errno);
  _exit(255);
}

// Output collected from a child; grows as the capture rule says.
class CaptureBuffer {
 public:
  CaptureBuffer() = default;
  CaptureBuffer(const CaptureBuffer&) = delete;
  CaptureBuffer& operator=(const CaptureBuffer&) = delete;
  ~CaptureBuffer() { free(data_); }

  // Keeps more than 2048 bytes free for the next read: small buffers gain
  // 4096 bytes, larger ones double.
  void make_room() {
    if (capacity_ > length_ + 2048)
      return;
    size_t grown = capacity_ > 4096 ? capacity_ * 2 : capacity_ + 4096;
    char* data = static_cast<char*>(realloc(data_, grown));
    if (!data)
      die("Cannot allocate memory");
    data_ = data;
    capacity_ = grown;
  }
  char* end() { return data_ + length_; }
  size_t room() const { return capacity_ - length_ - 1; }  // NUL kept
  void added(size_t count) { length_ += count; }

  // The text, NUL-terminated, for the caller to free(); null when the
  // child wrote nothing.
  char* release() {
    if (length_ == 0)
      return nullptr;
    data_[length_] = '\0';
    char* data = data_;
    data_ = nullptr;
    capacity_ = length_ = 0;
    return data;
  }

 private:
  char* data_ = nullptr;
  size_t capacity_ = 0;
  size_t length_ = 0;
};

// A non-blocking pipe from the child and what came through it.
struct Capture {
  UniqueFd fd;
  CaptureBuffer text;
};

// One read from a ready pipe. The end of the stream or a read error closes
// it; a read that would block changes nothing.
void read_to_buf(Capture* capture) {
  capture->text.make_room();
  int saved = errno;
  ssize_t got = read(capture->fd.get(), capture->text.end(),
                     capture->text.room());
  if (got > 0) {
    capture->text.added(static_cast<size_t>(got));
  } else if (got == 0) {
    capture->fd.reset();
  } else if (errno == EAGAIN || errno == EINTR) {
    errno = saved;
  } else {
    int error = errno;
    capture->fd.reset();
    fprintf(stderr, "fork_exec*: read(pipe) failed: %s\n", strerror(error));
    errno = 0;
  }
}

// Collects what child `pid` writes on the capture pipes until they all
// end, then waits for it. Returns its exit code or -1.
int capture_until_exit(pid_t pid, const char* path, Capture* captures,
                       size_t count) {
  for (;;) {
    fd_set readable;
    FD_ZERO(&readable);
    int max_fd = -1;
    for (size_t i = 0; i < count; ++i) {
      int fd = captures[i].fd.get();
      if (fd > 0) {
        FD_SET(fd, &readable);
        if (fd > max_fd)
          max_fd = fd;
      }
    }
    if (max_fd < 0)
      return fork_exec_waitpid(pid, path, nullptr);

    struct timeval timeout = {1, 0};
    int ready = select(max_fd + 1, &readable, nullptr, nullptr, &timeout);
    if (ready > 0) {
      for (size_t i = 0; i < count; ++i) {
        if (captures[i].fd.get() > 0 &&
            FD_ISSET(captures[i].fd.get(), &readable))
          read_to_buf(&captures[i]);
      }
      continue;
    }
    if (ready < 0 && errno == EINTR)
      continue;
    // A quiet second: the child may have ended while something it started
    // (a daemon) still holds the pipes open, so stop waiting for their end.
    bool running = false;
    int result = wait_and_decode(pid, path, WNOHANG, nullptr, &running);
    if (running)
      continue;
    for (size_t i = 0; i < count; ++i)
      captures[i].fd.reset();
    return result;
  }
}

// Makes a pipe whose read end does not block.
void make_capture_pipe(const char* who, UniqueFd* read_end,
                       UniqueFd* write_end) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    die("%s: pipe() failed", who);
  read_end->reset(fds[0]);
  write_end->reset(fds[1]);
  int flags = fcntl(fds[0], F_GETFL);
  if (flags < 0 || fcntl(fds[0], F_SETFL, flags | O_NONBLOCK) != 0)
    die("%s: fcntl(O_NONBLOCK) failed", who);
}

// Runs `path` with its standard output, and its standard error when `err`
// is given, captured; otherwise the standard error stays ours.
int run_capturing(const char* who, char** out, char** err, const char* path,
                  char* const argv[]) {
  *out = nullptr;
  if (err)
    *err = nullptr;
  Capture captures[2];
  UniqueFd out_write, err_write;
  make_capture_pipe(who, &captures[0].fd, &out_write);
  if (err)
    make_capture_pipe(who, &captures[1].fd, &err_write);
  pid_t pid = fork_execv_pipes(STDIN_FILENO, out_write.get(),
                               err ? err_write.get() : STDERR_FILENO, path,
                               argv);
  out_write.reset();
  err_write.reset();
  int result = capture_until_exit(pid, path, captures, err ? 2 : 1);
  *out = captures[0].text.release();
  if (err)
    *err = captures[1].text.release();
  return result;
}

int exec_path_built(const char* path, va_list ap) {
  ArgVector argv = args_from_va(path, ap, kMaxPathArgs);
  return fork_execv_log(path, argv.data(), 0);
}

// The path of the administration utility `name`; empty after refusing a
// name that carries a path of its own.
std::string util_path(const char* name) {
  if (strchr(name, '/')) {
    errno = 0;  // the refusal is ours, not a system error
    messlog2(0, 0,
             "Utility name '%s' is invalid. Use only utility name without "
             "path.",
             name);
    return std::string();
  }
  // The compiled-in product root, on purpose not the configuration file's.
  return std::string(theZonConfDefauls[ZON_CONF_PRODUCT_ROOT_D]) +
         "/admin/sbin/" + name;
}

// Shows each chunk the child writes on `fd` as a message, until its end.
void show_child_messages(int fd) {
  char chunk[4096];
  for (;;) {
    ssize_t got = read(fd, chunk, sizeof(chunk) - 1);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      tavix_log(3, "fork_execv_fd: read(pipe) failed: %s", strerror(errno));
    if (got <= 0)
      return;
    chunk[got] = '\0';
    errno = 0;  // the text is the child's; no error of ours belongs to it
    messlog2(0, 0, "%s", chunk);
  }
}

// The exit code from a pclose() status, or -1.
int exit_code_of(int status) {
  if (status == -1 || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

struct PcloseDeleter {
  void operator()(FILE* stream) const { pclose(stream); }
};
using PipeStream = std::unique_ptr<FILE, PcloseDeleter>;

// Ignores SIGPIPE while alive, so that a command that stops reading its
// input makes our write fail instead of killing us.
class SigpipeIgnored {
 public:
  SigpipeIgnored() {
    struct sigaction ignore;
    memset(&ignore, 0, sizeof(ignore));
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    active_ = sigaction(SIGPIPE, &ignore, &saved_) == 0;
  }
  ~SigpipeIgnored() {
    if (active_)
      sigaction(SIGPIPE, &saved_, nullptr);
  }
  SigpipeIgnored(const SigpipeIgnored&) = delete;
  SigpipeIgnored& operator=(const SigpipeIgnored&) = delete;

 private:
  struct sigaction saved_;
  bool active_;
};

// do_exec()'s last raw wait status.
int g_do_exec_status;

}  // namespace

pid_t fork_execv_pipes(int in, int out, int err, const char* path,
                       char* const argv[]) {
  const int plan[3] = {in, out, err};
  pid_t pid = spawn(plan, path, argv, report_execv_failure);
  if (pid < 0)
    die("fork_execv_pipes: fork() failed");
  return pid;
}

pid_t fork_execl_pipes(int in, int out, int err, const char* path,
                       const char* arg0, ...) {
  va_list ap;
  va_start(ap, arg0);
  ArgVector argv = args_from_va(arg0, ap, kNoLimit);
  va_end(ap);
  return fork_execv_pipes(in, out, err, path, argv.data());
}

int fork_exec_waitpid(pid_t pid, const char* name, int* status) {
  if (!name)
    name = "<unknown>";
  if (pid < 0) {
    tavix_log(3, "fork before spawning '%s' failed", name);
    return -1;
  }
  return wait_and_decode(pid, name, WUNTRACED, status, nullptr);
}

int fork_exec_getres(pid_t pid, const char* name) {
  if (pid == -1)
    return -1;
  return fork_exec_waitpid(pid, name, nullptr);
}

int fork_execv_getouterr(char** out, char** err, const char* path,
                         char* const argv[]) {
  return run_capturing("fork_execv_getouterr", out, err, path, argv);
}

int fork_execl_getouterr(char** out, char** err, const char* path,
                         const char* arg0, ...) {
  va_list ap;
  va_start(ap, arg0);
  ArgVector argv = args_from_va(arg0, ap, kNoLimit);
  va_end(ap);
  return fork_execv_getouterr(out, err, path, argv.data());
}

int fork_execv_getout(char** out, const char* path, char* const argv[]) {
  return run_capturing("fork_execv_getout", out, nullptr, path, argv);
}

int fork_execl_getout(char** out, const char* path, const char* arg0, ...) {
  va_list ap;
  va_start(ap, arg0);
  ArgVector argv = args_from_va(arg0, ap, kNoLimit);
  va_end(ap);
  return fork_execv_getout(out, path, argv.data());
}

int fork_execv_log(const char* path, char* const argv[], int quiet) {
  return tavix::run_reporting(path, argv, quiet != 0, nullptr);
}

int fork_execl_log(const char* path, int quiet, const char* arg0, ...) {
  va_list ap;
  va_start(ap, arg0);
  ArgVector argv = args_from_va(arg0, ap, kNoLimit);
  va_end(ap);
  return fork_execv_log(path, argv.data(), quiet);
}

int path_exec(const char* path, ...) {
  va_list ap;
  va_start(ap, path);
  int result = exec_path_built(path, ap);
  va_end(ap);
  return result;
}

int util_exec(const char* name, ...) {
  std::string path = util_path(name);
  if (path.empty())
    return -1;
  va_list ap;
  va_start(ap, name);
  int result = exec_path_built(path.c_str(), ap);
  va_end(ap);
  return result;
}

int util_exec_args(const char* name, char* const argv[]) {
  std::string path = util_path(name);
  if (path.empty())
    return -1;
  return fork_execv_log(path.c_str(), argv, 0);
}

int util_libexec(const char* name, ...) {
  std::string path = std::string(kLibexecDir) + "/" + name;
  va_list ap;
  va_start(ap, name);
  int result = exec_path_built(path.c_str(), ap);
  va_end(ap);
  return result;
}

int fork_execv_fd(int fd_in, int fd_out, const char* path,
                  char* const argv[]) {
  if (fd_in == STDIN_FILENO || fd_out == STDOUT_FILENO) {
    errno = 0;
    messlog2(0, 0, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
    return -1;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    die("fork_exec_fd pipe(): %s", strerror(errno));
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);

  const int plan[3] = {fd_in, fd_out, write_end.get()};
  pid_t pid = spawn(plan, path, argv, report_fd_execv_failure);
  if (pid < 0)
    die("Error occured during fork():\n%s", strerror(errno));
  write_end.reset();
  show_child_messages(read_end.get());

  int status = 0;
  if (wait_for(pid, &status, WUNTRACED) < 0) {
    messlog2(0, 0,
             "Error occured during waiting the child process with pid: %d: "
             "%s\n",
             static_cast<int>(pid), strerror(errno));
    return -1;
  }
  if (WIFSIGNALED(status)) {
    messlog2(0, 0, "The child process with pid %d killed by signal %i\n",
             static_cast<int>(pid), WTERMSIG(status));
    return -1;
  }
  if (WIFSTOPPED(status)) {
    messlog2(0, 0, "The child process with pid %d stopped by signal %i\n",
             static_cast<int>(pid), WSTOPSIG(status));
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int fork_execv(const char* path, ...) {
  va_list ap;
  va_start(ap, path);
  ArgVector argv = args_from_va(path, ap, kMaxPathArgs);
  va_end(ap);
  const int plan[3] = {kDevNull, kDevNull, kDevNull};
  if (spawn(plan, path, argv.data(), nullptr) < 0)
    die("fork_execv: fork() failed");
  // Waits for whichever child ends first, not necessarily this one.
  int status = 0;
  if (wait_for(-1, &status, 0) < 0) {
    tavix_log(3, "wait() for '%s' failed: %s", path, strerror(errno));
    return -1;
  }
  if (WIFSIGNALED(status))
    return 1;
  return WEXITSTATUS(status);
}

int do_exec(const char* path, char* const argv[]) {
  const int plan[3] = {kInherit, kInherit, kInherit};
  pid_t pid = spawn(plan, path, argv, nullptr);
  if (pid < 0)
    die("Unable to fork");
  if (wait_for(pid, &g_do_exec_status, 0) < 0) {
    tavix_log(3, "waitpid(%ld) for '%s' process failed: %s",
              static_cast<long>(pid), path, strerror(errno));
    return -1;
  }
  return g_do_exec_status;
}

int popen_exec_getoutput(char** out, const char* command) {
  *out = nullptr;
  PipeStream stream(popen(command, "re"));
  if (!stream) {
    fputs("popen_exec: failed to execute command: fork or pipe calls "
          "failed, or cannot allocate memory\n",
          stderr);
    return -1;
  }
  size_t capacity = 4097;
  size_t length = 0;
  unique_free<char> text(static_cast<char*>(malloc(capacity)));
  if (!text) {
    fputs("popen_exec: failed to allocate memory\n", stderr);
    return -1;
  }
  // After a failed grow the rest of the output is read and dropped, so the
  // command is not killed by a closed pipe.
  bool keeping = true;
  int c;
  while ((c = getc(stream.get())) != EOF) {
    if (keeping && length + 1 == capacity) {
      char* grown = static_cast<char*>(realloc(text.get(), capacity + 4096));
      if (grown) {
        (void)text.release();
        text.reset(grown);
        capacity += 4096;
      } else {
        fputs("popen_exec: warning: failed to allocate memory for command "
              "output buffer\n",
              stderr);
        keeping = false;
      }
    }
    if (keeping)
      text.get()[length++] = static_cast<char>(c);
  }
  bool read_failed = ferror(stream.get()) != 0;
  text.get()[length] = '\0';
  int status = pclose(stream.release());
  *out = text.release();
  if (read_failed) {
    fputs("popen_exec: failed to read command output\n", stderr);
    return -1;
  }
  return exit_code_of(status);
}

int popen_exec(const char* command) {
  char* output_text = nullptr;
  int result = popen_exec_getoutput(&output_text, command);
  unique_free<char> output(output_text);
  if (result == -1) {
    messlog2(0, 1, "popen_exec: failed to execute command: %s\n",
             strerror(errno));
  } else if (result != 0) {
    errno = 0;
    messlog2(0, 1, "popen_exec: command failed code: %d , %s\n", result,
             output && *output ? output.get() : "error: none");
  }
  return result;
}

int popen_exec_with_input(const char* command, const char* input) {
  PipeStream stream(popen(command, "we"));
  if (!stream) {
    messlog2(0, 0,
             "Failed to execute command with input: either pipe, fork or "
             "memory allocation failed.");
    return -1;
  }
  size_t total = strlen(input);
  size_t written = 0;
  {
    SigpipeIgnored no_sigpipe;
    int fd = fileno(stream.get());
    while (written < total) {
      ssize_t n = write(fd, input + written, total - written);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        break;
      written += static_cast<size_t>(n);
    }
  }
  if (written < total) {
    messlog2(0, 0,
             "Failed to execute command with input: only %u of %u bytes were "
             "written.",
             static_cast<unsigned>(written), static_cast<unsigned>(total));
    return -1;
  }
  return exit_code_of(pclose(stream.release()));
}

namespace tavix {

int run_reporting(const char* path, char* const argv[], bool quiet, std::string* failure) {
  char* out_text = nullptr;
  char* err_text = nullptr;
  int result = fork_execv_getouterr(&out_text, &err_text, path, argv);
  unique_free<char> out(out_text);
  unique_free<char> err(err_text);
  if (result == 0 || (quiet && !failure))
    return result;
  std::string message = std::string(path) + " execution failed";
  message += err ? ":\n" + std::string(err.get()) : std::string(" (no output)");
  if (failure)
    *failure = message;
  if (!quiet) {
    if (out) {
      fputs(out.get(), stderr);
      fflush(stderr);
    }
    errno = 0;  // the failure is the child's, not a system error of ours
    messlog2(0, 0, "%s", message.c_str());
  }
  return result;
}

ChildrenKeepFd::ChildrenKeepFd(int fd) : previous_(kept_fd) { kept_fd = fd; }
ChildrenKeepFd::~ChildrenKeepFd() { kept_fd = previous_; }

}  // namespace tavix
