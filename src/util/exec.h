// Running other programs.
//
// Every child is started with fork() and execv() of an explicit path; only
// the popen_exec group goes through the shell. The variants differ in what
// they do with the child's standard streams, whether they wait and how they
// report. Resource failures in this process (fork, pipe, memory) end it with
// a message; a child that cannot be executed exits with status 255 after
// writing why on its standard error.
//
// The "l" variants take their arguments as a list ended by a null pointer
// (pass it as (char*)NULL); the "v" variants take a null-terminated vector
// whose first entry is argv[0]. Captured output is a NUL-terminated heap
// buffer that the caller free()s, or null when the child wrote nothing.
#ifndef DRAVNIK_UTIL_EXEC_H_
#define DRAVNIK_UTIL_EXEC_H_

#include <sys/types.h>

#include <string>

// Starts `path` with the given descriptors as its standard input, output
// and error (-1: /dev/null) and every other descriptor closed. Does not wait.
pid_t fork_execv_pipes(int in, int out, int err, const char* path,
                       char* const argv[]);
pid_t fork_execl_pipes(int in, int out, int err, const char* path,
                       const char* arg0, ...);

// Waits for `pid` and decodes how it ended: the exit code, or -1 (logged)
// for a failed wait or a child killed, stopped or continued. The raw status
// goes to `*status` when given; `name` names the child in messages.
int fork_exec_waitpid(pid_t pid, const char* name, int* status);
// fork_exec_waitpid() that passes a failed start (-1) through.
int fork_exec_getres(pid_t pid, const char* name);

// Run, capture the child's output (and error), wait; the exit code or -1.
int fork_execv_getouterr(char** out, char** err, const char* path,
                         char* const argv[]);
int fork_execl_getouterr(char** out, char** err, const char* path,
                         const char* arg0, ...);
int fork_execv_getout(char** out, const char* path, char* const argv[]);
int fork_execl_getout(char** out, const char* path, const char* arg0, ...);

// fork_execv_getouterr(), then, unless `quiet`, shows what a failing child
// wrote. Returns the same result.
int fork_execv_log(const char* path, char* const argv[], int quiet);
int fork_execl_log(const char* path, int quiet, const char* arg0, ...);

// fork_execv_log() with argv[0] = path and at most 99 further arguments.
int path_exec(const char* path, ...);
// path_exec() of the product's administration utility `name`, which must
// be a bare name; -1 (reported) for a name with a "/".
int util_exec(const char* name, ...);
int util_exec_args(const char* name, char* const argv[]);
// path_exec() of the helper `name` in the product's library directory.
int util_libexec(const char* name, ...);

// Runs `path` on `fd_in` and `fd_out` as standard input and output and
// shows what it writes on its standard error as messages. fd_in 0 and
// fd_out 1 are refused (-1). Returns the exit code or -1.
int fork_execv_fd(int fd_in, int fd_out, const char* path,
                  char* const argv[]);

// Runs `path` with all standard streams on /dev/null and at most 99
// arguments, then waits for any child: 1 when it was killed by a signal,
// otherwise its exit code.
int fork_execv(const char* path, ...);

// Runs `path` on this process's standard streams; returns the raw wait
// status.
int do_exec(const char* path, char* const argv[]);

// Shell commands. popen_exec_getoutput() hands the command's standard
// output to `*out` (free() it); the others report failures themselves.
// Each returns the exit code or -1.
int popen_exec_getoutput(char** out, const char* command);
int popen_exec(const char* command);
int popen_exec_with_input(const char* command, const char* input);

namespace tavix {

// fork_execv_log(): runs `path`, waits, and unless `quiet` shows what a
// failing child wrote. When the child fails and `failure` is given, the
// message shown (or that would have been shown) goes there too, for a
// caller that reports the same failure on behalf of others.
int run_reporting(const char* path, char* const argv[], bool quiet, std::string* failure);

// While one lives, every child started through this module keeps `fd`
// open (children otherwise get only their standard streams). For a lock
// that must outlive this process while a child works under it: the lock
// belongs to the open file, so it is released when the last holder ends.
class ChildrenKeepFd {
 public:
  explicit ChildrenKeepFd(int fd);
  ~ChildrenKeepFd();
  ChildrenKeepFd(const ChildrenKeepFd&) = delete;
  ChildrenKeepFd& operator=(const ChildrenKeepFd&) = delete;

 private:
  int previous_;
};

}  // namespace tavix

#endif  // DRAVNIK_UTIL_EXEC_H_
