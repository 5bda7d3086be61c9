#!/usr/bin/env python3
"""A private machine for running the real dravnik as root.

dravnik edits qmail's files under /var/qmail, keeps its databases under
/var/lib/tavix, takes locks in /run/lock/files, reads /etc/zon and
/etc/domainkeys, runs qmail-newu and qmail's init script and signals
qmail-send.  A Sandbox gives the program private copies of all of these in a
bubblewrap container; the rest of the host is visible read-only.  Nothing is
created on the host outside the sandbox's own directory: where a private
path has no mount point on the host, the directory that would hold it is
replaced by a tmpfs in which the host's other entries are bound again.

qmail itself is played by small stand-ins (scripts/standins): qmail-newu checks
users/assign, compiles it into users/cdb and records its calls, the init script records its arguments,
and a process named qmail-send counts the SIGHUPs it receives.

Library use (stdlib only):

    with Sandbox() as sb:
        r = sb.run("--add-domain", "--domain-name=example.com")
        r.rc, r.out, r.err, r.hups, r.newu_calls, r.init_calls
        sb.read("/var/qmail/control/rcpthosts")

A private directory can also be put on a small file system of its own, to
see the program meet a full disk, exhausted inodes or a read-only mount and
then run again once the fault is mended (content kept throughout):

    sb.limit("/var/qmail", free=40000)      # 40,000 bytes left
    sb.limit("/var/lib/tavix/mail", inodes=0)  # no inode left
    sb.read_only("/var/qmail")
    sb.mend("/var/qmail")                   # writable, with room again

Command-line use:

    python3 scripts/sandbox.py [--dir DIR] [--keep] -- <dravnik args>
    python3 scripts/sandbox.py --dir DIR --shell
"""

import argparse
import atexit
import ctypes
import difflib
import fcntl
import hashlib
import json
import os
import select
import shlex
import shutil
import sqlite3
import stat
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

SCRIPTS_DIR = Path(__file__).resolve().parent
REPO = SCRIPTS_DIR.parent
STANDINS = SCRIPTS_DIR / "standins"
DEFAULT_DRAVNIK = REPO / "build" / "src" / "main" / "dravnik"

BWRAP = "/usr/bin/bwrap"
PYTHON = "/usr/bin/python3"
DEFAULT_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
DEFAULT_HOSTNAME = "mail.sandbox.test"

# Inside the sandbox: the stand-ins' launcher and qmail-send, and the records
# the stand-ins write.  Not part of the mail state, so never in snapshots.
RECORD_DIR = "/run/sandbox"
LOG_DIR = RECORD_DIR + "/log"
HUP_LOG = LOG_DIR + "/hups"
NEWU_LOG = LOG_DIR + "/qmail-newu.calls"
INIT_LOG = LOG_DIR + "/init.calls"
NEWU_PAUSE = RECORD_DIR + "/newu-pause"   # read by the qmail-newu stand-in
NEWU_FAIL = RECORD_DIR + "/newu-fail"     # read by the qmail-newu stand-in
NEWU_INPUTS = LOG_DIR + "/qmail-newu.inputs"
AUTH_DB = "/var/lib/tavix/mail/auth/passwd.db"

# Every path the program may change or whose content a test sets up.  Each
# sandbox holds its own copy of these under <dir>/root.
PRIVATE_PATHS = (
    "/etc/passwd",
    "/etc/group",
    "/etc/hosts",
    "/etc/hostname",
    "/etc/zon",
    "/etc/domainkeys",
    "/etc/rc.d",
    "/var/qmail",
    "/var/lib/tavix",
    "/run/lock/files",
    RECORD_DIR,
    "/usr/lib64/tavix-9.0",
    "/usr/libexec/dovecot",
)

# The host's password hashes have no business in the sandbox.
ALWAYS_HIDDEN = ("/etc/shadow", "/etc/shadow-", "/etc/gshadow", "/etc/gshadow-")

# Directories that start empty instead of showing the host's entries.
FRESH_DIRS = ("/run",)

POPUSER_UID = 110
POPUSER_GID = 110

PASSWD = """\
root:x:0:0:root:/root:/bin/bash
popuser:x:{uid}:{gid}:POP3 service user:/var/qmail:/usr/sbin/nologin
nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin
""".format(uid=POPUSER_UID, gid=POPUSER_GID)

GROUP = """\
root:x:0:
popuser:x:{gid}:
nofiles:x:111:
nogroup:x:65534:
""".format(gid=POPUSER_GID)

ZON_CONF = """\
# Product configuration of this sandbox.
TAVIX_MAILNAMES_D	/var/qmail/mailnames
PRODUCT_ROOT_D		/usr/local/zon
"""

TEXT_LIMIT = 64 * 1024  # larger files are compared, not shown


class SandboxError(Exception):
    """The sandbox could not run a command (as opposed to the command failing)."""


def hosts_file(hostname):
    short = hostname.split(".")[0]
    names = hostname if short == hostname else "%s %s" % (hostname, short)
    return ("127.0.0.1\tlocalhost\n"
            "127.0.1.1\t%s\n"
            "::1\tlocalhost ip6-localhost ip6-loopback\n" % names)


# --------------------------------------------------------------------------
# Mounts

def _ancestors(path):
    """"/a/b/c" -> ["/", "/a", "/a/b"]."""
    parts = Path(path).parts
    return [str(Path(*parts[:i])) for i in range(1, len(parts))]


def _under(path, top):
    return path == top or path.startswith(top.rstrip("/") + "/")


def _shadowed_dir(path, fresh):
    """The host directory that must be replaced to place `path` privately:
    a fresh directory holding it, else its deepest existing ancestor."""
    for top in fresh:
        if _under(path, top):
            return top
    existing = "/"
    for ancestor in _ancestors(path):
        if os.path.islink(ancestor):
            raise SandboxError("%s: ancestor %s is a symbolic link on the host; "
                               "name the real path" % (path, ancestor))
        if not os.path.isdir(ancestor):
            break
        existing = ancestor
    if existing == "/":
        raise SandboxError("%s: would have to replace the host's root" % path)
    return existing


def mount_plan(binds, hidden=(), fresh=()):
    """bwrap arguments that mount each host source of `binds` (a mapping of
    sandbox path to host path) at its sandbox path, leave out the `hidden`
    host paths, and give each `fresh` directory an empty tmpfs, all without
    creating a mount point on the host.

    Each directory that must change (the deepest existing host ancestor of a
    private or hidden path) is replaced by a tmpfs in which every other host
    entry is bound again read-only (symbolic links are recreated), parents
    before children; then the missing directories of each private path are
    made in the tmpfs and the private copy is bound read-write.  Finally the
    tmpfs directories are made read-only."""
    binds = dict(binds)
    targets = sorted(binds) + sorted(hidden)
    shadows = {}
    for path in targets:
        shadows.setdefault(_shadowed_dir(path, fresh), set()).add(path)

    args = []
    for shadow in sorted(shadows, key=lambda p: (p.count("/"), p)):
        mode = stat.S_IMODE(os.stat(shadow).st_mode) if os.path.isdir(shadow) else 0o755
        args += ["--perms", "%04o" % mode, "--tmpfs", shadow]
        if shadow in fresh:
            continue
        kept_out = {os.path.join(shadow, Path(p).relative_to(shadow).parts[0])
                    for p in shadows[shadow]}
        for name in sorted(os.listdir(shadow)):
            entry = os.path.join(shadow, name)
            if entry in kept_out:
                continue
            if os.path.islink(entry):
                args += ["--symlink", os.readlink(entry), entry]
            else:
                args += ["--ro-bind-try", entry, entry]

    for path in sorted(binds):
        shadow = _shadowed_dir(path, fresh)
        for ancestor in _ancestors(path):
            if len(ancestor) > len(shadow):
                args += ["--perms", "0755", "--dir", ancestor]
        args += ["--bind", str(binds[path]), path]

    # What is not private stays read-only, as the rest of the host is: a
    # write elsewhere fails loudly instead of vanishing with the tmpfs.
    for shadow in sorted(shadows):
        args += ["--remount-ro", shadow]
    return args


# --------------------------------------------------------------------------
# Snapshots of the private tree

@dataclass(frozen=True)
class Entry:
    kind: str           # "file", "dir", "symlink" or "other"
    mode: int
    uid: int
    gid: int
    digest: str         # of the content, or of a link's target
    size: int = 0
    text: str = None    # small text files, and SQLite databases as SQL


@dataclass
class Change:
    path: str
    what: str           # "added", "removed" or "changed"
    before: Entry = None
    after: Entry = None
    diff: str = ""


def _sqlite_dump(path):
    # immutable: reading must not leave a journal or lock behind.
    try:
        db = sqlite3.connect("file:%s?immutable=1" % path, uri=True)
        try:
            return "\n".join(db.iterdump()) + "\n"
        finally:
            db.close()
    except sqlite3.Error as e:
        return "(unreadable SQLite database: %s)\n" % e


def _file_text(path, data):
    if data.startswith(b"SQLite format 3\0"):
        return _sqlite_dump(path)
    if len(data) > TEXT_LIMIT or b"\0" in data:
        return None
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError:
        return None


def _entry(host_path):
    st = os.lstat(host_path)
    common = dict(mode=stat.S_IMODE(st.st_mode), uid=st.st_uid, gid=st.st_gid)
    if stat.S_ISLNK(st.st_mode):
        target = os.readlink(host_path)
        return Entry("symlink", digest=target, text=target, **common)
    if stat.S_ISDIR(st.st_mode):
        return Entry("dir", digest="", **common)
    if stat.S_ISREG(st.st_mode):
        with open(host_path, "rb") as f:
            data = f.read()
        return Entry("file", digest=hashlib.sha256(data).hexdigest(), size=len(data),
                     text=_file_text(host_path, data), **common)
    return Entry("other", digest="", **common)


def _unified_diff(path, before, after):
    old = before.text if before and before.text is not None else ""
    new = after.text if after and after.text is not None else ""
    if (before and before.kind == "file" and before.text is None) or \
            (after and after.kind == "file" and after.text is None):
        return ""
    lines = difflib.unified_diff(old.splitlines(keepends=True), new.splitlines(keepends=True),
                                 "a" + path, "b" + path)
    return "".join(l if l.endswith("\n") else l + "\n\\ No newline at end of file\n"
                   for l in lines)


def changed_files(before, after):
    """The differences between two snapshots, by path, with unified diffs of
    small text files.  Times are ignored: only kind, content, mode and owner
    count."""
    changes = []
    for path in sorted(set(before) | set(after)):
        old, new = before.get(path), after.get(path)
        if old == new:
            continue
        what = "added" if old is None else "removed" if new is None else "changed"
        changes.append(Change(path, what, old, new, _unified_diff(path, old, new)))
    return changes


# --------------------------------------------------------------------------
# Results

@dataclass
class Result:
    argv: list
    rc: int             # exit status, or minus the signal that ended the program
    out: str
    err: str
    hups: int = 0       # SIGHUPs that qmail-send received during the run
    newu_calls: list = field(default_factory=list)   # one argument list per qmail-newu run
    init_calls: list = field(default_factory=list)   # one argument list per init script run

    def summary(self):
        """The run's effects on qmail, one line."""
        init = ", ".join(shlex.join(call) or "(no arguments)" for call in self.init_calls)
        return ("qmail-newu runs: %d; init script runs: %s; SIGHUPs to qmail-send: %d"
                % (len(self.newu_calls), init or "none", self.hups))

    def __str__(self):
        return ("$ %s\n--- stdout ---\n%s--- stderr ---\n%sexit status: %d\n%s"
                % (shlex.join(self.argv), self.out, self.err, self.rc, self.summary()))


def _pipe_above_stdio():
    """A pipe whose ends are not descriptors 0 to 2, which a caller started
    with closed standard streams would get, and the child's set-up would
    then overwrite."""
    ends = []
    for fd in os.pipe():
        if fd < 3:
            high = fcntl.fcntl(fd, fcntl.F_DUPFD_CLOEXEC, 3)
            os.close(fd)
            fd = high
        ends.append(fd)
    return ends


def _run_on_terminal(command, pass_fds, timeout, prompt, answer):
    """Runs `command` with a pseudo-terminal as standard input and output, as
    an operator at a console would; once `prompt` has appeared, types
    `answer` and an end of input (^D).  Returns what subprocess.run would,
    with the terminal's transcript (echo included) as stdout."""
    master, slave = os.openpty()
    try:
        proc = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=subprocess.PIPE,
                                pass_fds=pass_fds)
    finally:
        os.close(slave)
    transcript, answered = b"", False
    deadline = time.monotonic() + timeout
    try:
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                proc.kill()
                raise subprocess.TimeoutExpired(command, timeout)
            if not select.select([master], [], [], remaining)[0]:
                continue
            try:
                chunk = os.read(master, 4096)
            except OSError:  # EIO: the program and its children are gone
                break
            if not chunk:
                break
            transcript += chunk
            if not answered and prompt.encode() in transcript:
                os.write(master, answer.encode() + b"\n\x04")
                answered = True
    finally:
        os.close(master)
    stderr = proc.stderr.read()
    proc.stderr.close()
    proc.wait()
    return subprocess.CompletedProcess(command, proc.returncode,
                                       transcript.replace(b"\r\n", b"\n"), stderr)


def _read_lines(path):
    try:
        with open(path) as f:
            return f.read().splitlines()
    except FileNotFoundError:
        return []


def host_fingerprint():
    """What the host holds at the sandbox's private paths and their missing
    parents: equal before and after any number of runs, or a run leaked."""
    paths = set()
    for p in PRIVATE_PATHS:
        paths.add(p)
        paths.update(a for a in _ancestors(p) if a.count("/") > 1)
    state = {}
    for p in sorted(paths):
        if not os.path.lexists(p):
            state[p] = None
        elif os.path.isdir(p) and not os.path.islink(p):
            state[p] = ("dir", tuple(sorted(os.listdir(p))) if p in PRIVATE_PATHS else ())
        else:
            state[p] = _entry(p)
    return state


# --------------------------------------------------------------------------
# Small file systems

# Room a mended file system has: more than any test fills.
ROOMY_SIZE = 512 * 1024 * 1024
ROOMY_INODES = 1000000

CLONE_NEWNS = 0x00020000
MS_REC = 0x4000
MS_PRIVATE = 1 << 18

_own_mount_namespace = None   # None: not tried yet


def _private_mount_namespace():
    """Moves this process into a mount namespace of its own, once, so that the
    small file systems it mounts are seen by it and the sandboxes it starts
    (bwrap inherits the namespace) and by nothing else, and vanish with the
    process however it ends: a killed test run leaves no mount on the host.
    False when that cannot be had (another thread runs: unshare refuses);
    the mounts are then made on the host's namespace, and cleanup() and an
    exit hook take them down."""
    global _own_mount_namespace
    if _own_mount_namespace is None:
        libc = ctypes.CDLL(None, use_errno=True)
        _own_mount_namespace = (
            libc.unshare(CLONE_NEWNS) == 0 and
            # Nothing mounted here may travel back to the host's namespace.
            libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None) == 0)
    return _own_mount_namespace


def _mount(*args):
    result = subprocess.run(["mount", *args], capture_output=True, text=True)
    if result.returncode != 0:
        raise SandboxError("mount %s: %s" % (shlex.join(args), result.stderr.strip()))


def _unmount(path):
    """Takes the mount at `path` down; lazily when something still holds it
    (a process of a sandbox run that outlived it), so that it is gone from
    the tree at once either way."""
    if subprocess.run(["umount", "--", str(path)], capture_output=True).returncode != 0:
        subprocess.run(["umount", "--lazy", "--", str(path)], check=True, capture_output=True)


def _usage(path):
    """(bytes, inodes) in use on the file system at `path`."""
    st = os.statvfs(path)
    return (st.f_blocks - st.f_bfree) * st.f_frsize, st.f_files - st.f_ffree


# --------------------------------------------------------------------------
# The sandbox

class Sandbox:
    """A private tree of the paths dravnik uses, and the means to run the
    program (or any command) as root in a container that sees it.

    With `directory`, the tree lives there and is kept (created and set up
    when missing, reused as it is otherwise); without, it lives in a fresh
    temporary directory that cleanup() removes.

    `host_copies` names further host directories that the sandbox also
    holds private copies of, taken from the host as they are (owners, modes,
    links) unless the tree already has them: for a test that must change
    system directories, as installing the package changes dpkg's database
    and the directories it installs into.  They are not part of snapshot().
    `private_dirs` names directories that start empty in the sandbox instead
    (where the host's content is not needed, or the host has none)."""

    def __init__(self, directory=None, dravnik=None, hostname=None, host_copies=(),
                 private_dirs=()):
        if directory is None:
            self.dir = Path(tempfile.mkdtemp(prefix="dravnik-sandbox-"))
            self.keep = False
        else:
            self.dir = Path(directory).resolve()
            self.dir.mkdir(parents=True, exist_ok=True)
            self.keep = True
        self.root = self.dir / "root"
        self.mounts = {}   # sandbox path -> host mount point of its small file system
        self._exit_hook = False
        self.dravnik = Path(dravnik).absolute() if dravnik else self.default_dravnik()
        self.hidden = set(ALWAYS_HIDDEN)
        self.host_copies = self._check_host_copies(host_copies)
        self.private_dirs = tuple(os.path.normpath(p) for p in private_dirs)
        for p in self.private_dirs:
            if any(_under(p, q) or _under(q, p)
                   for q in PRIVATE_PATHS + FRESH_DIRS + self.host_copies):
                raise ValueError("%s overlaps a private path of the sandbox" % p)
        if not self.root.exists():
            self._populate(hostname or DEFAULT_HOSTNAME)
        elif hostname:
            self.set_hostname(hostname)
        self._install_launcher()
        self._copy_from_host()
        for p in self.private_dirs:
            self.path(p).mkdir(mode=0o755, parents=True, exist_ok=True)

    @staticmethod
    def default_dravnik():
        """$DRAVNIK, else the program of the build tree."""
        return Path(os.environ.get("DRAVNIK") or DEFAULT_DRAVNIK).absolute()

    # -- set-up -------------------------------------------------------------

    def _populate(self, hostname):
        staging = self.dir / "root.new"
        if staging.exists():
            shutil.rmtree(staging)
        self.root = staging
        for path in ("/etc/zon", "/etc/domainkeys", "/etc/rc.d/init.d",
                     "/var/qmail/control", "/var/qmail/users", "/var/qmail/bin",
                     "/var/qmail/mailnames", "/var/lib/tavix", "/run/lock/files",
                     "/usr/lib64/tavix-9.0/domain_rename", "/usr/libexec/dovecot"):
            self.path(path).mkdir(mode=0o755, parents=True, exist_ok=True)
        self.write("/etc/passwd", PASSWD)
        self.write("/etc/group", GROUP)
        self.set_hostname(hostname)
        self.write("/etc/zon/zon.conf", ZON_CONF)
        self.write("/var/qmail/control/rcpthosts", "")
        self.write("/var/qmail/control/virtualdomains", "")
        self.write("/var/qmail/control/locals", "localhost\n")
        self.write("/var/qmail/users/assign", ".\n")
        self._install(STANDINS / "qmail-newu", "/var/qmail/bin/qmail-newu")
        self._install(STANDINS / "qmail-init", "/etc/rc.d/init.d/qmail")
        staging.rename(self.dir / "root")
        self.root = self.dir / "root"

    @staticmethod
    def _check_host_copies(paths):
        paths = tuple(os.path.normpath(p) for p in paths)
        for p in paths:
            if any(_under(p, q) or _under(q, p) for q in PRIVATE_PATHS + FRESH_DIRS):
                raise ValueError("%s overlaps a private path of the sandbox" % p)
            if not os.path.isdir(p) or os.path.islink(p):
                raise SandboxError("%s is not a directory on the host" % p)
        return paths

    def _copy_from_host(self):
        for p in self.host_copies:
            target = self.path(p)
            if not target.exists():
                target.parent.mkdir(parents=True, exist_ok=True)
                subprocess.run(["cp", "-a", "--", p, str(target)], check=True)

    def _install(self, source, path, mode=0o755):
        target = self.path(path)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source, target)
        os.chmod(target, mode)

    def _install_launcher(self):
        """The launcher and qmail-send are tools of the sandbox, not state:
        refreshed on every start so that a kept sandbox uses current ones."""
        self._install(STANDINS / "launch", RECORD_DIR + "/bin/launch")
        self._install(STANDINS / "qmail-send", RECORD_DIR + "/bin/qmail-send")
        self.path(LOG_DIR).mkdir(parents=True, exist_ok=True)

    def set_hostname(self, hostname):
        """The host name that the sandbox's gethostname() and /etc/hosts give."""
        self.write("/etc/hostname", hostname + "\n")
        self.write("/etc/hosts", hosts_file(hostname))

    def hostname(self):
        return self.read("/etc/hostname").strip()

    def set_newu_pause(self, seconds):
        """Makes every later qmail-newu wait `seconds` between writing
        users/cdb.tmp and renaming it (0 for no wait), so that a test can
        make compiles overlap on purpose."""
        if seconds:
            self.write(NEWU_PAUSE, "%g\n" % seconds)
        elif self.exists(NEWU_PAUSE):
            self.path(NEWU_PAUSE).unlink()

    def set_newu_fail(self, call, message):
        """Makes the qmail-newu run numbered `call` (counting every run the
        sandbox has seen, from 1) fail with `message`; None for no failure.
        Meanwhile each run records what it read (newu_inputs())."""
        if call:
            self.write(NEWU_FAIL, "%d %s\n" % (call, message))
        elif self.exists(NEWU_FAIL):
            self.path(NEWU_FAIL).unlink()

    def newu_inputs(self):
        """[{"call", "assign", "status"}] of the qmail-newu runs made while a
        failure was planned."""
        return [json.loads(l) for l in _read_lines(self.path(NEWU_INPUTS))]

    def hide(self, path):
        """Leave a host path out of the sandbox (for example a delivery agent,
        to make the program see a machine without it)."""
        if not os.path.lexists(path):
            raise SandboxError("%s does not exist on the host" % path)
        self.hidden.add(path)

    # -- files --------------------------------------------------------------

    def path(self, sandbox_path):
        """The host path of the private copy of a sandbox path."""
        sandbox_path = os.path.normpath(sandbox_path)
        if not any(_under(sandbox_path, p)
                   for p in PRIVATE_PATHS + self.host_copies + self.private_dirs):
            raise ValueError("%s is not a private path of the sandbox" % sandbox_path)
        return self.root / sandbox_path.lstrip("/")

    def read(self, sandbox_path):
        return self.path(sandbox_path).read_text()

    def write(self, sandbox_path, text, mode=0o644):
        """Writes a file of the private tree, owned by root with `mode`."""
        target = self.path(sandbox_path)
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(text)
        os.chown(target, 0, 0)
        os.chmod(target, mode)

    def exists(self, sandbox_path):
        return os.path.lexists(self.path(sandbox_path))

    def snapshot(self):
        """Every entry of the private tree (stand-in records excepted), by
        sandbox path."""
        entries = {}
        for top in PRIVATE_PATHS:
            if top == RECORD_DIR:
                continue
            host_top = self.path(top)
            if not os.path.lexists(host_top):
                continue
            entries[top] = _entry(host_top)
            for dirpath, dirnames, filenames in os.walk(host_top):
                for name in dirnames + filenames:
                    host = os.path.join(dirpath, name)
                    entries["/" + os.path.relpath(host, self.root)] = _entry(host)
        return entries

    changed_files = staticmethod(changed_files)

    def describe(self, changes):
        """Readable lines for a list of changes, owners by the sandbox's names."""
        users = self._names("/etc/passwd")
        groups = self._names("/etc/group")

        def attrs(e):
            owner = "%s:%s" % (users.get(e.uid, e.uid), groups.get(e.gid, e.gid))
            target = " -> " + e.text if e.kind == "symlink" else ""
            return "%s %04o %s%s" % (e.kind, e.mode, owner, target)

        lines = []
        for c in changes:
            now = attrs(c.after or c.before)
            if c.what == "changed" and attrs(c.before) != now:
                now += ", was " + attrs(c.before)
            lines.append("  %-7s %s (%s)" % (c.what, c.path, now))
            if c.diff:
                lines += ["      " + line for line in c.diff.splitlines()]
            elif c.what != "removed" and c.after.kind == "file" and c.after.text is None and \
                    (c.before is None or c.before.digest != c.after.digest):
                lines.append("      (%d bytes, not shown)" % c.after.size)
        return "\n".join(lines)

    def _names(self, sandbox_path):
        names = {}
        for line in self.read(sandbox_path).splitlines():
            fields = line.split(":")
            if len(fields) >= 3 and fields[2].isdigit():
                names.setdefault(int(fields[2]), fields[0])
        return names

    # -- faults of the file system ------------------------------------------

    def limit(self, sandbox_path, free=None, inodes=None):
        """Puts the private directory `sandbox_path` (for example /var/qmail,
        /var/qmail/mailnames or /var/lib/tavix/mail) on a tmpfs of its own,
        with its content, owner and mode, leaving `free` bytes (rounded up to
        a page) and `inodes` inodes free beyond what it holds; None leaves
        plenty.  bwrap binds the private tree recursively, so the runs see
        it.  The content stays across runs; unlimit() or cleanup() takes the
        file system down."""
        sandbox_path = os.path.normpath(sandbox_path)
        if sandbox_path in self.mounts:
            raise SandboxError("%s is limited already" % sandbox_path)
        if any(_under(sandbox_path, p) or _under(p, sandbox_path) for p in self.mounts):
            raise SandboxError("%s overlaps a limited directory" % sandbox_path)
        host = self.path(sandbox_path)
        if not host.is_dir() or host.is_symlink():
            raise SandboxError("%s is not a directory of the sandbox" % sandbox_path)
        _private_mount_namespace()
        st = os.stat(host)
        # Mounted beside the tree and filled there, then bound in place: the
        # directory never shows half its content.
        staging = Path(tempfile.mkdtemp(prefix="limit-", dir=self.dir))
        options = "size=%d,nr_inodes=%d,mode=%04o,uid=%d,gid=%d" % (
            ROOMY_SIZE, ROOMY_INODES, stat.S_IMODE(st.st_mode), st.st_uid, st.st_gid)
        _mount("-t", "tmpfs", "-o", options, "dravnik-sandbox", str(staging))
        try:
            subprocess.run(["cp", "-a", "--", "%s/." % host, str(staging)], check=True)
            _mount("--bind", str(staging), str(host))
        except BaseException:
            _unmount(staging)
            staging.rmdir()
            raise
        self.mounts[sandbox_path] = host
        if not self._exit_hook:
            atexit.register(self._unmount_all)
            self._exit_hook = True
        _unmount(staging)
        staging.rmdir()
        self.set_free(sandbox_path, free, inodes)

    def set_free(self, sandbox_path, free=None, inodes=None):
        """Resizes a limited directory's file system so that `free` bytes and
        `inodes` inodes are left (0: full; None: plenty)."""
        host = self._mount_point(sandbox_path)
        used, used_inodes = _usage(host)
        size = ROOMY_SIZE if free is None else used + free
        count = ROOMY_INODES if inodes is None else used_inodes + inodes
        # tmpfs cannot shrink below what it holds: a size of exactly that
        # leaves nothing free.
        _mount("-o", "remount,size=%d,nr_inodes=%d" % (max(size, 1), count), str(host))

    def read_only(self, sandbox_path):
        """Makes a limited directory's file system read-only."""
        _mount("-o", "remount,ro", str(self._mount_point(sandbox_path)))

    def mend(self, sandbox_path):
        """Makes a limited directory's file system writable again, with room."""
        host = self._mount_point(sandbox_path)
        _mount("-o", "remount,rw,size=%d,nr_inodes=%d" % (ROOMY_SIZE, ROOMY_INODES), str(host))

    def unlimit(self, sandbox_path):
        """Takes a limited directory's file system down, its content back on
        the sandbox's own disk."""
        host = self._mount_point(sandbox_path)
        copy = Path(tempfile.mkdtemp(prefix="unlimit-", dir=self.dir))
        try:
            subprocess.run(["cp", "-a", "--", str(host), str(copy / "content")], check=True)
            _unmount(host)
            del self.mounts[os.path.normpath(sandbox_path)]
            shutil.rmtree(host)   # what the mount hid: the content before it
            (copy / "content").rename(host)
        finally:
            shutil.rmtree(copy, ignore_errors=True)

    def _mount_point(self, sandbox_path):
        try:
            return self.mounts[os.path.normpath(sandbox_path)]
        except KeyError:
            raise SandboxError("%s is not limited (see limit())" % sandbox_path) from None

    def _unmount_all(self):
        for sandbox_path in sorted(self.mounts, reverse=True):
            _unmount(self.mounts.pop(sandbox_path))

    # -- running ------------------------------------------------------------

    def environment(self, env=None):
        """The run's environment: PATH only, plus `env` (None removes a name)."""
        result = {"PATH": DEFAULT_PATH}
        for name, value in (env or {}).items():
            if value is None:
                result.pop(name, None)
            else:
                result[name] = str(value)
        return result

    def bwrap_args(self, private_network=False):
        """With `private_network` the sandbox gets a network namespace of
        its own, holding only a loopback interface: for servers a test
        starts, which must not listen on the host's addresses."""
        binds = {p: self.path(p)
                 for p in PRIVATE_PATHS + self.host_copies + self.private_dirs}
        return [
            BWRAP,
            "--ro-bind", "/", "/",
            "--dev", "/dev",
            "--proc", "/proc",
            "--unshare-pid",
            *(["--unshare-net"] if private_network else []),
            "--unshare-uts", "--hostname", self.hostname(),
            "--die-with-parent",
            *mount_plan(binds, hidden=sorted(self.hidden), fresh=FRESH_DIRS),
            "--chdir", "/",
            "--clearenv", "--setenv", "PATH", DEFAULT_PATH,
        ]

    def init_databases(self):
        """Prepares the sandbox as installing the product on a mail server
        does: runs dravnik-setup ($DRAVNIK_SETUP, else the build tree's),
        which creates the authentication database with its key and the
        handlers database, and gives the mail names root to popuser."""
        setup = Path(os.environ.get("DRAVNIK_SETUP")
                     or REPO / "build" / "src" / "setup" / "dravnik-setup").absolute()
        result = self.run_raw([str(setup)])
        if result.rc != 0:
            raise SandboxError("dravnik-setup failed (exit status %d): %s" % (result.rc, result.err))

    def deliver(self, home, message):
        """Delivers `message` as qmail's local delivery would through the
        .qmail file in the mailbox directory `home`: each "|" line through
        the shell, as popuser, in `home`, with the message as a file on
        standard input.  The first non-zero exit status, or 0."""
        self.write(RECORD_DIR + "/message", message)
        for line in self.read(home + "/.qmail").splitlines():
            if not line.startswith("|"):
                continue
            script = "cd %s && %s < %s/message" % (shlex.quote(home), line[1:], RECORD_DIR)
            result = self.run_raw(["/usr/bin/setpriv", "--reuid=%d" % POPUSER_UID,
                                   "--regid=%d" % POPUSER_GID, "--clear-groups",
                                   "/bin/sh", "-c", script])
            if result.rc != 0:
                return result.rc
        return 0

    def run(self, *args, env=None, stdin=None, input_bytes=None, timeout=120, terminal=None):
        """Runs dravnik with `args` as root in the sandbox.  `stdin` is text
        for its standard input, `input_bytes` bytes; /dev/null otherwise."""
        if not os.access(self.dravnik, os.X_OK):
            raise SandboxError("dravnik binary not found at %s (build it, or set DRAVNIK)"
                               % self.dravnik)
        if any(_under(str(self.dravnik), p) for p in FRESH_DIRS + PRIVATE_PATHS):
            raise SandboxError("%s is not visible inside the sandbox" % self.dravnik)
        return self.run_raw([str(self.dravnik), *args], env=env, stdin=stdin,
                            input_bytes=input_bytes, timeout=timeout, terminal=terminal)

    def run_raw(self, argv, env=None, stdin=None, input_bytes=None, timeout=120,
                capture=True, terminal=None, private_network=False):
        """Runs any command in the sandbox, beside the stand-in qmail-send.
        With capture=False the command shares this process's terminal; with
        terminal=(prompt, answer) it gets a pseudo-terminal of its own, on
        which `answer` is typed once `prompt` has appeared; with
        private_network=True it sees only a loopback interface of its own."""
        if stdin is not None and input_bytes is not None:
            raise ValueError("give stdin or input_bytes, not both")
        if stdin is not None:
            input_bytes = stdin.encode()
        job = json.dumps({"argv": [str(a) for a in argv], "env": self.environment(env)})
        logs = [self.path(p) for p in (HUP_LOG, NEWU_LOG, INIT_LOG)]
        seen = [len(_read_lines(p)) for p in logs]

        status_read, status_write = _pipe_above_stdio()
        try:
            command = self.bwrap_args(private_network) + [PYTHON, "-I",
                                                           RECORD_DIR + "/bin/launch",
                                           job, str(status_write)]
            options = dict(pass_fds=(status_write,), timeout=timeout)
            if capture:
                options.update(capture_output=True)
                if input_bytes is None:
                    options.update(stdin=subprocess.DEVNULL)
                else:
                    options.update(input=input_bytes)
            try:
                if terminal is not None:
                    proc = _run_on_terminal(command, (status_write,), timeout, *terminal)
                else:
                    proc = subprocess.run(command, **options)
            except subprocess.TimeoutExpired:
                raise SandboxError("%s did not end within %d seconds" % (shlex.join(argv), timeout))
            finally:
                os.close(status_write)
                status_write = None
            with os.fdopen(status_read, "r") as f:
                status_read = None
                outcome = f.read()
        finally:
            for fd in (status_read, status_write):
                if fd is not None:
                    os.close(fd)

        err = (proc.stderr or b"").decode("utf-8", "replace")
        if not outcome:
            raise SandboxError("the sandbox failed (bwrap status %d):\n%s" % (proc.returncode, err))
        outcome = json.loads(outcome)
        rc = outcome["status"] if "status" in outcome else -outcome["signal"]
        hups, newu, init = (_read_lines(p)[n:] for p, n in zip(logs, seen))
        return Result(argv=list(argv), rc=rc,
                      out=(proc.stdout or b"").decode("utf-8", "replace"), err=err,
                      hups=len(hups),
                      newu_calls=[json.loads(l) for l in newu],
                      init_calls=[json.loads(l) for l in init])

    def shell(self):
        """An interactive shell inside the sandbox; returns its exit status."""
        env = {"TERM": os.environ.get("TERM", "dumb"), "HOME": "/root",
               "PS1": r"[sandbox \h \w]# "}
        return self.run_raw(["/bin/bash", "--norc", "-i"], env=env, capture=False,
                            timeout=None).rc

    # -- clean-up -----------------------------------------------------------

    def cleanup(self):
        """Removes a fresh sandbox; a kept one keeps its tree, limited
        directories back on its own disk.  No mount outlives it either way."""
        try:
            if self.keep:
                for sandbox_path in sorted(self.mounts, reverse=True):
                    self.unlimit(sandbox_path)
        finally:
            self._unmount_all()
        if not self.keep and self.dir.exists():
            shutil.rmtree(self.dir)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.cleanup()


# --------------------------------------------------------------------------
# Command line

def report(sandbox, result, changes, out=sys.stdout):
    """What one run printed and changed, as the command line and the demo show it."""
    def section(title, text):
        if text:
            out.write("--- %s ---\n%s%s" % (title, text, "" if text.endswith("\n") else "\n"))
    section("stdout", result.out)
    section("stderr", result.err)
    out.write("exit status: %d\n%s\n" % (result.rc, result.summary()))
    report_changes(sandbox, changes, out)


def report_changes(sandbox, changes, out=sys.stdout):
    if changes:
        out.write("files changed:\n%s\n" % sandbox.describe(changes))
    else:
        out.write("files changed: none\n")
    out.flush()


def main(argv=None):
    parser = argparse.ArgumentParser(
        description="Run one dravnik command as root in a private sandbox, or open a shell there.",
        usage="%(prog)s [--dir DIR] [--keep] [--hostname NAME] [--env NAME=VALUE]... "
              "[--stdin FILE] [--raw] -- ARGS...\n       %(prog)s --dir DIR --shell")
    parser.add_argument("--dir", help="keep the sandbox in DIR (created and set up when missing)")
    parser.add_argument("--keep", action="store_true", help="keep a fresh sandbox and print where")
    parser.add_argument("--hostname", help="host name inside the sandbox (default %s)"
                        % DEFAULT_HOSTNAME)
    parser.add_argument("--env", action="append", default=[], metavar="NAME=VALUE",
                        help="add to the program's environment (e.g. ZON_PASSWORD=secret)")
    parser.add_argument("--stdin", metavar="FILE", help="feed FILE ('-' for this standard input)")
    parser.add_argument("--raw", action="store_true", help="ARGS is any command, not dravnik's")
    parser.add_argument("--quiet", action="store_true",
                        help="pass the command's streams through untouched and report nothing "
                             "else (how CTest runs test programs in the sandbox)")
    parser.add_argument("--dravnik", help="the program to run (default $DRAVNIK or %s)"
                        % DEFAULT_DRAVNIK)
    parser.add_argument("--shell", action="store_true", help="open a shell inside the sandbox")
    parser.add_argument("args", nargs="*", help="dravnik's arguments (after --)")
    opts = parser.parse_args(argv)
    if opts.shell and opts.args:
        parser.error("--shell takes no command")
    if not opts.shell and not opts.args:
        parser.error("nothing to run: give the command after --, or --shell")

    env = {}
    for item in opts.env:
        name, sep, value = item.partition("=")
        if not sep:
            parser.error("--env needs NAME=VALUE, got %r" % item)
        env[name] = value
    data = None
    if opts.stdin == "-":
        data = sys.stdin.buffer.read()
    elif opts.stdin:
        data = Path(opts.stdin).read_bytes()

    sandbox = Sandbox(opts.dir, dravnik=opts.dravnik, hostname=opts.hostname)
    sandbox.keep = sandbox.keep or opts.keep
    try:
        if opts.shell:
            print("sandbox %s; private paths: %s" % (sandbox.dir, " ".join(PRIVATE_PATHS)))
            return sandbox.shell()
        if opts.quiet:
            argv = opts.args if opts.raw else [str(sandbox.dravnik), *opts.args]
            result = sandbox.run_raw(argv, env=env, capture=False, timeout=None)
            return result.rc if 0 <= result.rc <= 255 else 1
        if not opts.raw and not sandbox.exists(AUTH_DB):
            # A mail server has its databases from installation on.
            sandbox.init_databases()
        before = sandbox.snapshot()
        if opts.raw:
            result = sandbox.run_raw(opts.args, env=env, input_bytes=data)
        else:
            result = sandbox.run(*opts.args, env=env, input_bytes=data)
        print("$ " + shlex.join(opts.args if opts.raw else ["dravnik", *opts.args]), flush=True)
        report(sandbox, result, changed_files(before, sandbox.snapshot()))
        if sandbox.keep:
            print("sandbox kept in %s (private tree under %s)" % (sandbox.dir, sandbox.root))
        return result.rc if 0 <= result.rc <= 255 else 1
    except SandboxError as e:
        print("sandbox: %s" % e, file=sys.stderr)
        return 125
    finally:
        sandbox.cleanup()


if __name__ == "__main__":
    sys.exit(main())
