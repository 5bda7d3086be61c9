#!/usr/bin/env python3
"""How long dravnik's edits of users/assign take on a large mail server,
next to the least any rewrite of that file costs.

For each size N the script builds a private mail server (scripts/sandbox.py)
with N mail names over N/10 domains, each with a mailbox, an authentication
record and the full mailbox tree, and then times, inside the sandbox, each
command that edits users/assign side by side with:

  - the floor: one plain copy-and-rename of the same users/assign
    (cat assign > tmp && mv tmp assign, through /bin/sh);
  - the same floor made durable (fsync of the copy and of the directory,
    as dravnik's own rewrites are), for reference;
  - sed -i inserting one line.

It also times --get-mailbox-size on a Maildir of 50,000 messages against
du -sb of the same mailbox.  One table of medians and ratios comes out.

The server is generated directly (files, tree and database rows written by
this script), not by running the program N times.  What the generator writes
is first checked against what the program itself writes for one domain of
ten mailboxes, so a change of format stops the benchmark instead of timing a
state the program would never produce.

The mail names tree (over a million directories at 100,000 names) lives on
a memory file system by default: on a disk mounted with online discard,
deleting it afterwards takes half an hour.  users/assign, the control files
and the databases stay on disk, so their rewrites and fsyncs are timed as a
server does them.  --tree-dir '' keeps everything on disk.

The timings exclude bubblewrap's start-up: a small driver runs every command
inside one sandbox session, in interleaved rounds (one run of each operation
per round, the first round discarded as warm-up), and reports wall times.

qmail-newu: the sandbox's stand-in parses the whole users/assign and compiles
it into users/cdb (users/cdb.tmp, then a rename) as the real one does, in
hundreds of milliseconds at 100,000 names, and would swamp the timings of
single edits; their cost is qmail's, not dravnik's.  For those it is replaced
by a copy of /bin/true, its own time is shown as a separate line, and it
still validates the final users/assign once every run is done.

The burst: with the compiling stand-in in place, a number of runs (default
100) that each edit users/assign are started at once; the table gives the
burst's wall time, how many compiles it took and the longest any one run
took.  A compile serves every run whose edit it reads, so the compiles are
far fewer than the runs.

Run as root:  /usr/bin/python3 bench/run.py [--sizes 1000,10000,100000] [--runs 15]
                  [--messages 50000] [--burst 100] [--build-dir build] [--tree-dir /dev/shm]
"""

import argparse
import json
import os
import random
import runpy
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

BENCH_DIR = Path(__file__).resolve().parent
REPO = BENCH_DIR.parent
sys.dont_write_bytecode = True   # nothing may be written into the work tree
sys.path.insert(0, str(REPO / "scripts"))
import sandbox as sandbox_module  # noqa: E402
from sandbox import (AUTH_DB, POPUSER_GID, POPUSER_UID, RECORD_DIR,  # noqa: E402
                     STANDINS, Sandbox, SandboxError)

DEFAULT_SIZES = (1000, 10000, 100000)
NAMES_PER_DOMAIN = 10
MAILNAMES_ROOT = "/var/qmail/mailnames"
ASSIGN = "/var/qmail/users/assign"
RCPTHOSTS = "/var/qmail/control/rcpthosts"
VIRTUALDOMAINS = "/var/qmail/control/virtualdomains"
REJECTNONEXIST = "/var/qmail/control/rejectnonexist"
QMAIL_NEWU = "/var/qmail/bin/qmail-newu"
LOCK_DIR = "/run/lock/files"
WORK = RECORD_DIR + "/bench"             # the driver, its plans and results
CHECKER = WORK + "/qmail-newu-checker"   # the stand-in, kept to time and to check
PASSWORD = "bench-password-1"

# What the program writes for a domain and a mail name with a mailbox (checked
# against the real thing by calibrate()).
DOT_QMAIL_DEFAULT = "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n"
DOT_QMAIL = "| true\n| /usr/bin/deliverquota ./Maildir\n"
MAILDIRSIZE = "0S,0C\n%12d%12d\n" % (0, 0)
MAILBOX_DIRS = ("Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur", "Maildir/.Spam",
                "Maildir/.Spam/tmp", "Maildir/.Spam/new", "Maildir/.Spam/cur", "@attachments")


def domain_name(i):
    return "domain%05d.example.com" % i


def mail_name(j):
    return "mailbox%02d" % j


def domain_assign_line(domain):
    return "+%s:popuser:%d:%d:%s/%s:::" % (domain, POPUSER_UID, POPUSER_GID, MAILNAMES_ROOT, domain)


def mail_assign_line(domain, name, home=None):
    return "=%s-%s:popuser:%d:%d:%s/%s/%s:::" % (domain, name, POPUSER_UID, POPUSER_GID,
                                               MAILNAMES_ROOT, domain, home or name)


def session_json(domain, names=()):
    return json.dumps({"domain": {"name": domain, "dom_aliases": [], "maillists": [],
                                  "mails": [{"name": n, "aliases": []} for n in names]}})


class BenchError(Exception):
    pass


# --------------------------------------------------------------------------
# The generated server

def domain_assign_lines(domain):
    """The domain's users/assign lines, newest first, as adding the domain and
    then its mail names one by one leaves them (each line is prepended)."""
    lines = [domain_assign_line(domain)]
    lines += [mail_assign_line(domain, mail_name(j)) for j in range(NAMES_PER_DOMAIN)]
    return lines[::-1]


def domain_tree(domain):
    """The mailbox tree of a domain: (sandbox path, kind, mode, content) in
    creation order; everything is owned by popuser."""
    top = "%s/%s" % (MAILNAMES_ROOT, domain)
    entries = [(top, "dir", 0o700, None),
               (top + "/.qmail-default", "file", 0o600, DOT_QMAIL_DEFAULT)]
    for j in range(NAMES_PER_DOMAIN):
        home = "%s/%s" % (top, mail_name(j))
        entries.append((home, "dir", 0o700, None))
        entries.append((home + "/.qmail", "file", 0o600, DOT_QMAIL))
        entries += [(home + "/" + d, "dir", 0o700, None) for d in MAILBOX_DIRS]
        entries.append((home + "/Maildir/maildirsize", "file", 0o644, MAILDIRSIZE))
    return entries


def write_tree(sb, entries):
    for path, kind, mode, content in entries:
        host = str(sb.path(path))
        if kind == "dir":
            os.mkdir(host, mode)   # 0700: no umask takes owner bits away
        else:
            fd = os.open(host, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)
            try:
                os.write(fd, content.encode())
                os.fchmod(fd, mode)
            finally:
                os.close(fd)
        os.chown(host, POPUSER_UID, POPUSER_GID)


def insert_auth_rows(sb, domains, password):
    """The records that --add-mailbox leaves: one per domain, one per mail
    name, all with the same stored password."""
    db = sqlite3.connect(str(sb.path(AUTH_DB)))
    try:
        with db:
            db.executemany("INSERT INTO domains (name) VALUES (?)", [(d,) for d in domains])
            db.executemany("INSERT INTO users (dom_id, name, userPassword) "
                           "SELECT id, ?, ? FROM domains WHERE name = ?",
                           [(mail_name(j), password, d)
                            for d in domains for j in range(NAMES_PER_DOMAIN)])
    finally:
        db.close()


def auth_dump(sb):
    """(domains, users) of the authentication database, users as
    (domain, name, password, plain secret, status)."""
    db = sqlite3.connect("file:%s?mode=ro" % sb.path(AUTH_DB), uri=True)
    try:
        domains = db.execute("SELECT name, status FROM domains ORDER BY id").fetchall()
        users = db.execute("SELECT d.name, u.name, u.userPassword, u.cmusaslsecretPLAIN, "
                           "u.status FROM users u JOIN domains d ON d.id = u.dom_id "
                           "ORDER BY u.id").fetchall()
        return domains, users
    finally:
        db.close()


def calibrate(sb):
    """Has the program itself make domain 0 with its ten mailboxes, checks
    that the generator would have written exactly the same, and returns the
    stored password (encrypted under this sandbox's key) for the generated
    records."""
    domain = domain_name(0)
    before = sb.snapshot()
    steps = [(["--add-domain", "--domain-name=" + domain, "--wait-stdin"], session_json(domain))]
    for j in range(NAMES_PER_DOMAIN):
        common = ["--domain-name=" + domain, "--mailname=" + mail_name(j)]
        steps.append((["--add-mailname", *common, "--default-domain-quota=-1"], None))
        steps.append((["--add-mailbox", *common, "--mail-addresses", mail_name(j)], None))
    for args, stdin in steps:
        r = sb.run(*args, stdin=stdin, env={"ZON_PASSWORD": PASSWORD})
        if r.rc != 0:
            raise BenchError("calibration run failed:\n%s" % r)
    after = sb.snapshot()

    problems = []
    expected = {ASSIGN: "\n".join(domain_assign_lines(domain)) + "\n" + before[ASSIGN].text,
                RCPTHOSTS: before[RCPTHOSTS].text + domain + "\n",
                VIRTUALDOMAINS: before[VIRTUALDOMAINS].text + "%s:%s\n" % (domain, domain)}
    for path, text in expected.items():
        if after[path].text != text:
            problems.append("%s: the program wrote %r, the generator would write %r"
                            % (path, after[path].text, text))
    if REJECTNONEXIST not in after:
        problems.append("%s: expected the program to create it" % REJECTNONEXIST)
    tree = {path: (kind, mode, content) for path, kind, mode, content in domain_tree(domain)}
    made = {p: e for p, e in after.items()
            if p.startswith(MAILNAMES_ROOT + "/") and before.get(p) != e}
    for path in sorted(set(tree) | set(made)):
        want, got = tree.get(path), made.get(path)
        if want is None or got is None:
            problems.append("%s: %s" % (path, "not generated" if want is None else "not made"))
            continue
        kind, mode, content = want
        if (got.kind, got.mode, got.uid, got.gid) != (kind, mode, POPUSER_UID, POPUSER_GID) or \
                (content is not None and got.text != content):
            problems.append("%s: the program made %s %04o %d:%d %r, the generator %s %04o %r"
                            % (path, got.kind, got.mode, got.uid, got.gid, got.text,
                               kind, mode, content))
    domains, users = auth_dump(sb)
    password = users[0][2] if users else None
    want_users = [(domain, mail_name(j), password, None, 0) for j in range(NAMES_PER_DOMAIN)]
    if domains != [(domain, 0)] or [u[:2] + (password,) + u[3:] for u in users] != want_users \
            or not (password or "").startswith("$AES-256-CBC:PKCS$"):
        problems.append("authentication database: domains %r, users %r" % (domains, users))
    if problems:
        raise BenchError("the generated server would not match what the program writes:\n  "
                         + "\n  ".join(problems))
    return password


def generate(sb, n, password):
    """Domains 1 .. N/10-1 with their mailboxes, after calibrate() made
    domain 0 with the program: users/assign, rcpthosts, virtualdomains, the
    mailbox tree and the authentication records."""
    domains = [domain_name(i) for i in range(1, n // NAMES_PER_DOMAIN)]
    assign = []
    for d in reversed(domains):
        assign += domain_assign_lines(d)
    sb.write(ASSIGN, "\n".join(assign) + "\n" + sb.read(ASSIGN))
    sb.write(RCPTHOSTS, sb.read(RCPTHOSTS) + "".join(d + "\n" for d in domains))
    sb.write(VIRTUALDOMAINS, sb.read(VIRTUALDOMAINS)
             + "".join("%s:%s\n" % (d, d) for d in domains))
    for d in domains:
        write_tree(sb, domain_tree(d))
    insert_auth_rows(sb, domains, password)


# --------------------------------------------------------------------------
# The mailbox of many messages

def fill_maildir(sb, home, count, seed, with_maildirsize):
    """`count` messages in the mailbox at sandbox path `home`, named as the
    delivery agent names them (",S=<size>" in the name), 80% in cur, 10% in
    new and 10% in the .Spam folder.  Returns the size that
    --get-mailbox-size must report: the messages plus @attachments."""
    rnd = random.Random(seed)
    host = str(sb.path(home))
    folders = (("Maildir/cur", 0.8, ":2,S"), ("Maildir/new", 0.1, ""),
               ("Maildir/.Spam/cur", 0.1, ":2,"))
    total = made = 0
    for folder, share, suffix in folders:
        number = count - made if folder == folders[-1][0] else int(count * share)
        for k in range(number):
            size = rnd.randint(300, 6000)
            name = "%d.M%dP%d.mail.sandbox.test,S=%d%s" % (
                1700000000 + made + k, rnd.randrange(1000000), 1000 + k, size, suffix)
            path = os.path.join(host, folder, name)
            fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
            try:
                os.write(fd, b"x" * size)
                os.fchown(fd, POPUSER_UID, POPUSER_GID)
            finally:
                os.close(fd)
            total += size
        made += number
    maildirsize = os.path.join(host, "Maildir", "maildirsize")
    if with_maildirsize:
        with open(maildirsize, "w") as f:
            f.write("0S,0C\n%12d%12d\n" % (total, count))
    elif os.path.exists(maildirsize):
        os.unlink(maildirsize)
    return total + os.stat(os.path.join(host, "@attachments")).st_size


# --------------------------------------------------------------------------
# Timing inside the sandbox

DRIVER = r'''
import json, os, subprocess, sys, time
plan = json.load(open(sys.argv[1]))
times, outputs = {}, {}
for number, round_ in enumerate(plan["rounds"]):
    for op in round_:
        stdin = op.get("stdin")
        start = time.perf_counter()
        p = subprocess.run(op["argv"], input=None if stdin is None else stdin.encode(),
                           stdin=subprocess.DEVNULL if stdin is None else None,
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           env=op["env"], cwd=op.get("cwd", "/"))
        elapsed = time.perf_counter() - start
        if p.returncode != 0:
            sys.stderr.write("round %d, %s: exit status %d\n$ %s\n%s%s" % (
                number, op["label"], p.returncode, " ".join(op["argv"]),
                p.stdout.decode(errors="replace"), p.stderr.decode(errors="replace")))
            sys.exit(1)
        if number > 0:       # round 0 warms the caches
            times.setdefault(op["label"], []).append(elapsed)
        outputs[op["label"]] = p.stdout.decode(errors="replace")
json.dump({"times": times, "outputs": outputs}, open(sys.argv[2], "w"))
'''

ENV = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}


def op(label, argv, stdin=None, env=None, cwd="/"):
    return {"label": label, "argv": [str(a) for a in argv], "stdin": stdin,
            "env": dict(ENV, **(env or {})), "cwd": cwd}


def run_plan(sb, name, rounds, timeout):
    sb.write(WORK + "/driver.py", DRIVER)
    sb.write(WORK + "/%s.plan.json" % name, json.dumps({"rounds": rounds}))
    result_path = WORK + "/%s.result.json" % name
    r = sb.run_raw(["/usr/bin/python3", "-I", WORK + "/driver.py",
                    WORK + "/%s.plan.json" % name, result_path], timeout=timeout)
    if r.rc != 0:
        raise BenchError("timing driver failed (%s):\n%s%s" % (name, r.out, r.err))
    return json.loads(sb.read(result_path))


def edit_rounds(sb, n, runs):
    """One round per run (plus the warm-up round): each operation once, with
    names no earlier round used."""
    dravnik = str(sb.dravnik)
    mid = n // NAMES_PER_DOMAIN // 2
    users_dir = os.path.dirname(ASSIGN)
    rounds = []
    for k in range(runs + 1):
        add_dom = domain_name(mid)
        alias_dom, alias_owner = domain_name(mid - 1), mail_name(0)
        alias = "bench-alias%02d" % k
        # Each round renames a generated mail name of a domain of its own.
        ren_dom, ren_old = domain_name(1 + k), mail_name(NAMES_PER_DOMAIN - 1)
        ren_new = "renamed%02d" % k
        new_domain = "bench-new%02d.example.net" % k
        sed_line = mail_assign_line(alias_dom, "bench-sed%02d" % k, alias_owner)
        rounds.append([
            op("floor", ["/bin/sh", "-c", "cat assign > assign.bench && mv assign.bench assign"],
               cwd=users_dir),
            op("floor+fsync", ["/bin/sh", "-c", "cat assign > assign.bench && sync assign.bench "
                               "&& mv assign.bench assign && sync ."], cwd=users_dir),
            op("sed -i", ["/bin/sed", "-i", "1i " + sed_line, ASSIGN]),
            op("--add-mailname --disk-quota",
               [dravnik, "--add-mailname", "--domain-name=" + add_dom,
                "--mailname=bench-add%02d" % k, "--disk-quota=10485760"]),
            op("--add-alias",
               [dravnik, "--add-alias", "--domain-name=" + alias_dom, "--mailname=" + alias_owner,
                "--alias=" + alias, "--mail-addresses", alias_owner]),
            op("--remove-alias",
               [dravnik, "--remove-alias", "--domain-name=" + alias_dom,
                "--mailname=" + alias_owner, "--alias=" + alias,
                "--mail-addresses", "%s,%s" % (alias_owner, alias)]),
            op("--rename-mailname",
               [dravnik, "--rename-mailname", "--domain-name=" + ren_dom,
                "--old-mailname=" + ren_old, "--new-mailname=" + ren_new,
                "--mail-addresses", ren_old], env={"ZON_PASSWORD": PASSWORD}),
            op("--add-domain",
               [dravnik, "--add-domain", "--domain-name=" + new_domain, "--wait-stdin"],
               stdin=session_json(new_domain)),
            op("start-up", [dravnik, "--help-commands"]),
            op("qmail-newu checker", [CHECKER]),
        ])
    return rounds


def mailbox_rounds(sb, homes, runs):
    dravnik = str(sb.dravnik)
    rounds = []
    for _ in range(runs + 1):
        ops = [op("du -sb", ["/usr/bin/du", "-sb", homes["scan"]])]
        for variant, home in homes.items():
            domain, name = home.split("/")[-2:]
            ops.append(op("--get-mailbox-size (%s)" % variant,
                          [dravnik, "--get-mailbox-size", "--domain-name=" + domain,
                           "--mailname=" + name]))
        rounds.append(ops)
    return rounds


BURST_DRIVER = r"""
import json, subprocess, sys, threading, time
plan = json.load(open(sys.argv[1]))
runs = [None] * len(plan)
def wait(i, p, started):
    err = p.communicate()[1].decode(errors="replace")
    runs[i] = {"argv": plan[i]["argv"], "err": err, "rc": p.returncode,
               "seconds": time.perf_counter() - started}
start = time.perf_counter()
threads = []
for i, op in enumerate(plan):
    started = time.perf_counter()
    p = subprocess.Popen(op["argv"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, env=op["env"])
    threads.append(threading.Thread(target=wait, args=(i, p, started)))
    threads[-1].start()
for t in threads:
    t.join()
json.dump({"seconds": time.perf_counter() - start, "runs": runs}, open(sys.argv[2], "w"))
"""


def burst_plan(sb, n, count):
    """`count` runs that each edit users/assign and compile it: new mail
    names and new aliases, each in a domain of its own, alternating."""
    dravnik = str(sb.dravnik)
    first = n // NAMES_PER_DOMAIN // 2 + 1     # past the domains the edit rounds used
    plan, lines = [], []
    for k in range(count):
        domain = domain_name(first + k)
        if k % 2:
            args = ["--add-alias", "--domain-name=" + domain, "--mailname=" + mail_name(0),
                    "--alias=burst%03d" % k, "--mail-addresses", mail_name(0)]
            lines.append(mail_assign_line(domain, "burst%03d" % k, mail_name(0)))
        else:
            args = ["--add-mailname", "--domain-name=" + domain, "--mailname=burst%03d" % k,
                    "--disk-quota=-1"]
            lines.append(mail_assign_line(domain, "burst%03d" % k))
        plan.append(op("burst", [dravnik, *args]))
    return plan, lines


def bench_burst(sb, n, count):
    """`count` runs started at once with a qmail-newu that really compiles
    (the sandbox's stand-in: it parses users/assign, writes users/cdb.tmp and
    renames it over users/cdb): the burst's wall time, and how many compiles
    it took.  Each run must succeed, its line must be there, and users/cdb
    must be what a compile of the final users/assign gives."""
    sb._install(STANDINS / "qmail-newu", QMAIL_NEWU)
    plan, lines = burst_plan(sb, n, count)
    sb.write(WORK + "/burst.py", BURST_DRIVER)
    sb.write(WORK + "/burst.plan.json", json.dumps(plan))
    calls = sb.path(sandbox_module.NEWU_LOG)
    before = len(calls.read_text().splitlines()) if calls.exists() else 0
    r = sb.run_raw(["/usr/bin/python3", "-I", WORK + "/burst.py", WORK + "/burst.plan.json",
                    WORK + "/burst.result.json"], timeout=3600)
    if r.rc != 0:
        raise BenchError("burst driver failed:\n%s%s" % (r.out, r.err))
    result = json.loads(sb.read(WORK + "/burst.result.json"))
    failed = ["%s: status %d: %s" % (" ".join(run["argv"][1:]), run["rc"], run["err"])
              for run in result["runs"] if run["rc"] != 0]
    if failed:
        raise BenchError("%d of %d runs of the burst failed:\n%s"
                         % (len(failed), count, "\n".join(failed[:5])))
    text = sb.read(ASSIGN)
    missing = set(lines) - set(text.splitlines())
    if missing:
        raise BenchError("after the burst users/assign lacks %d lines, e.g. %s"
                         % (len(missing), sorted(missing)[0]))
    compiled = runpy.run_path(str(STANDINS / "qmail-newu"))["compiled"]
    if sb.path("/var/qmail/users/cdb").read_bytes() != compiled(text):
        raise BenchError("after the burst users/cdb is not compiled from the final users/assign")
    return {"seconds": result["seconds"],
            "compiles": len(calls.read_text().splitlines()) - before,
            "longest": max(run["seconds"] for run in result["runs"])}


# --------------------------------------------------------------------------
# One sandbox per size

class BenchSandbox(Sandbox):
    """A sandbox whose mail names tree can live on a memory file system:
    a million directories on a disk mounted with online discard take half an
    hour to delete.  users/assign, the control files and the databases stay
    on disk, so the rewrites and their fsyncs are timed as they are.  The
    lock directory goes on the memory file system too, as /run is one on
    every server the package installs on."""

    def __init__(self, dravnik, tree_dir=None):
        self.tree_dir = Path(tree_dir) if tree_dir else None
        self.lock_dir = Path(str(tree_dir) + "-locks") if tree_dir else None
        super().__init__(dravnik=dravnik)
        if self.tree_dir:
            # Both start as the sandbox's own would: root's, 0755.
            super().path(MAILNAMES_ROOT).mkdir(mode=0o755, parents=True, exist_ok=True)
            self.lock_dir.mkdir(mode=0o755)
            for top in (self.tree_dir, self.lock_dir):
                os.chown(top, 0, 0)
                os.chmod(top, 0o755)

    def path(self, sandbox_path):
        normal = os.path.normpath(sandbox_path)
        if self.tree_dir and (normal + "/").startswith(MAILNAMES_ROOT + "/"):
            return self.tree_dir / os.path.relpath(normal, MAILNAMES_ROOT)
        return super().path(sandbox_path)

    def snapshot(self):
        entries = super().snapshot()
        if self.tree_dir:
            entries[MAILNAMES_ROOT] = sandbox_module._entry(self.tree_dir)
            for dirpath, dirnames, filenames in os.walk(self.tree_dir):
                for name in dirnames + filenames:
                    host = os.path.join(dirpath, name)
                    path = os.path.join(MAILNAMES_ROOT, os.path.relpath(host, self.tree_dir))
                    entries[path] = sandbox_module._entry(host)
        return entries

    def bwrap_args(self, private_network=False):
        args = super().bwrap_args(private_network)
        if self.tree_dir:
            at = args.index("--chdir")
            args[at:at] = ["--bind", str(self.tree_dir), MAILNAMES_ROOT,
                           "--bind", str(self.lock_dir), LOCK_DIR]
        return args

    def cleanup(self):
        # rm is several times faster than shutil.rmtree on a million entries.
        for top in (self.tree_dir, self.lock_dir, self.dir):
            if top and top.exists():
                subprocess.run(["rm", "-rf", "--", str(top)], check=False)
        super().cleanup()


def new_sandbox(opts):
    tree_dir = None
    if opts.tree_dir:
        tree_dir = tempfile.mkdtemp(prefix="dravnik-bench-tree-", dir=opts.tree_dir)
    try:
        sb = BenchSandbox(opts.dravnik, tree_dir)
    except BaseException:
        if tree_dir:
            subprocess.run(["rm", "-rf", "--", tree_dir, tree_dir + "-locks"], check=False)
        raise
    try:
        sb.init_databases()
        sb._install(STANDINS / "qmail-newu", CHECKER)
        # The benchmark times dravnik, not the stand-in (see the docstring).
        sb._install(Path("/bin/true"), QMAIL_NEWU)
    except BaseException:
        sb.cleanup()
        raise
    return sb


def check_final_state(sb, n, runs):
    """The timed runs did their work (a command that did nothing would time
    well), and left a users/assign that qmail-newu accepts."""
    r = sb.run_raw([CHECKER])
    if r.rc != 0:
        raise BenchError("users/assign is malformed after the runs: %s" % r.err)
    lines = set(sb.read(ASSIGN).splitlines())
    mid = n // NAMES_PER_DOMAIN // 2
    for k in range(runs + 1):
        renamed = domain_name(1 + k)
        wanted = {mail_assign_line(domain_name(mid), "bench-add%02d" % k): True,
                  mail_assign_line(domain_name(mid - 1), "bench-alias%02d" % k, mail_name(0)): False,
                  mail_assign_line(renamed, "renamed%02d" % k): True,
                  mail_assign_line(renamed, mail_name(NAMES_PER_DOMAIN - 1)): False,
                  domain_assign_line("bench-new%02d.example.net" % k): True}
        for line, present in wanted.items():
            if (line in lines) != present:
                raise BenchError("after the runs users/assign %s %s"
                                 % ("lacks" if present else "still has", line))
    r = sb.run("--get-mailbox-size", "--domain-name=" + domain_name(0), "--mailname=" + mail_name(0))
    if r.rc != 0:
        raise BenchError("the program refuses the generated server:\n%s" % r)


def bench_size(opts, n):
    sb = new_sandbox(opts)
    try:
        start = time.monotonic()
        password = calibrate(sb)
        generate(sb, n, password)
        made = time.monotonic() - start
        assign = sb.path(ASSIGN)
        info = {"assign_bytes": assign.stat().st_size,
                "assign_lines": assign.read_text().count("\n"),
                "generated_seconds": made}
        r = sb.run_raw([CHECKER])
        if r.rc != 0:
            raise BenchError("the generated users/assign is malformed: %s" % r.err)
        result = run_plan(sb, "edits-%d" % n, edit_rounds(sb, n, opts.runs), timeout=3600)
        check_final_state(sb, n, opts.runs)
        if opts.burst:
            info["burst"] = bench_burst(sb, n, opts.burst)
        info["load"] = os.getloadavg()
        return result["times"], info
    finally:
        sb.cleanup()


def bench_mailbox_size(opts):
    """--get-mailbox-size against du -sb on mailboxes of `opts.messages`
    messages: one with an up-to-date maildirsize (the usual state, the size
    is read from it), one without (the program counts the messages)."""
    sb = new_sandbox(opts)
    try:
        calibrate(sb)
        top = "%s/%s/" % (MAILNAMES_ROOT, domain_name(0))
        homes = {"maildirsize": top + mail_name(1), "scan": top + mail_name(2)}
        expected = {"maildirsize": fill_maildir(sb, homes["maildirsize"], opts.messages, 1, True),
                    "scan": fill_maildir(sb, homes["scan"], opts.messages, 1, False)}
        result = run_plan(sb, "mailbox", mailbox_rounds(sb, homes, opts.runs), timeout=3600)
        for variant, size in expected.items():
            got = result["outputs"]["--get-mailbox-size (%s)" % variant]
            if got != str(size):
                raise BenchError("--get-mailbox-size (%s) printed %r, the messages make %d"
                                 % (variant, got, size))
        du = int(result["outputs"]["du -sb"].split()[0])
        return result["times"], {"du_bytes": du, "mailbox_bytes": expected["scan"],
                                 "load": os.getloadavg()}
    finally:
        sb.cleanup()


# --------------------------------------------------------------------------
# The table

EDIT_COMMANDS = ("--add-mailname --disk-quota", "--add-alias", "--remove-alias",
                 "--rename-mailname", "--add-domain")
EDIT_TARGET = 3.0
SIZE_TARGET = 0.5
BURST_RUNS = 100            # the burst the targets below are for
BURST_WALL_TARGET = 5.0
BURST_COMPILE_TARGET = 25


def median_ms(times):
    return statistics.median(times) * 1000


def build_description(build_dir):
    """The build type and sanitizer setting of the build tree, from its cache."""
    settings = {}
    try:
        with open(build_dir / "CMakeCache.txt") as f:
            for line in f:
                name, sep, value = line.strip().partition("=")
                if sep and not line.startswith(("#", "//")):
                    settings[name.split(":")[0]] = value
    except OSError:
        return "%s (no CMakeCache.txt)" % build_dir
    return "%s (build type %s, sanitizers %s)" % (
        build_dir, settings.get("CMAKE_BUILD_TYPE") or "RelWithDebInfo (default)",
        "ON: timings are not representative" if settings.get("DRAVNIK_SANITIZE") == "ON"
        else "off")


def verdict(met, judged):
    if not judged:
        return "not judged at this size"
    return "met" if met else "MISSED"


def cell(ms, ratio):
    return "%9.1f %5.2f" % (ms, ratio)


def table(sizes, results, mailbox, opts):
    label_width, cell_width = 38, 16
    out = ["dravnik benchmark: median wall time of %d runs per cell in ms, and its ratio "
           "to the floor (or to du -sb)" % opts.runs,
           "Program: %s" % build_description(opts.build_dir),
           "Mail names tree: %s; users/assign, control files and databases: on disk."
           % ("on a memory file system (%s)" % opts.tree_dir if opts.tree_dir else "on disk"),
           "qmail-newu: replaced by a copy of /bin/true for the timed edits; the compiling "
           "stand-in's own time is the row 'qmail-newu stand-in', and the burst runs with it.",
           ""]
    verdicts = []
    if sizes:
        def row(title, cells):
            out.append("%-*s" % (label_width, title)
                       + "".join("%*s" % (cell_width, c) for c in cells))
        row("", ["N=%d" % n for n in sizes])
        row("users/assign size", ["%.1f MB" % (results[n][1]["assign_bytes"] / 1e6)
                                  for n in sizes])
        row("users/assign lines", [str(results[n][1]["assign_lines"]) for n in sizes])
        row("operation", ["ms     x" for _ in sizes])
        rows = [("floor: cat > tmp && mv tmp assign", "floor"),
                ("floor + fsync of file and directory", "floor+fsync"),
                ("sed -i inserting one line", "sed -i")]
        rows += [(c, c) for c in EDIT_COMMANDS]
        rows += [("dravnik start-up (--help-commands)", "start-up"),
                 ("qmail-newu stand-in (burst only)", "qmail-newu checker")]
        for title, label in rows:
            row(title, [cell(median_ms(results[n][0][label]),
                             median_ms(results[n][0][label]) / median_ms(results[n][0]["floor"]))
                        for n in sizes])
        if opts.burst:
            row("burst of %d runs at once: wall s" % opts.burst,
                ["%.2f" % results[n][1]["burst"]["seconds"] for n in sizes])
            row("  qmail-newu runs in the burst",
                [str(results[n][1]["burst"]["compiles"]) for n in sizes])
            row("  longest run in the burst: s",
                ["%.2f" % results[n][1]["burst"]["longest"] for n in sizes])
        out.append("")
        largest = max(sizes)
        times = results[largest][0]
        if opts.burst:
            b = results[largest][1]["burst"]
            scaled = opts.burst == BURST_RUNS and largest >= 100000
            verdicts.append("  burst of %d runs: %.2f s wall (target <= %.0f s for %d runs at "
                            "N=100000): %s" % (opts.burst, b["seconds"], BURST_WALL_TARGET,
                                               BURST_RUNS,
                                               verdict(b["seconds"] <= BURST_WALL_TARGET, scaled)))
            verdicts.append("  burst of %d runs: %d qmail-newu runs (target <= %d): %s"
                            % (opts.burst, b["compiles"], BURST_COMPILE_TARGET,
                               verdict(b["compiles"] <= BURST_COMPILE_TARGET, scaled)))
        for c in EDIT_COMMANDS:
            ratio = median_ms(times[c]) / median_ms(times["floor"])
            verdicts.append("  %-30s %5.2f x floor at N=%d (target <= %.1f at N=100000): %s"
                            % (c, ratio, largest, EDIT_TARGET,
                               verdict(ratio <= EDIT_TARGET, largest >= 100000)))
    if mailbox:
        mtimes, minfo = mailbox
        du = median_ms(mtimes["du -sb"])
        out.append("Mailbox of %d messages, %.1f MB (du -sb counts %d bytes with the directories):"
                   % (opts.messages, minfo["mailbox_bytes"] / 1e6, minfo["du_bytes"]))
        out.append("%-*s%*s" % (label_width + 16, "  du -sb of the mailbox", cell_width,
                                cell(du, 1.0)))
        for variant, what in (("maildirsize", "maildirsize up to date"),
                              ("scan", "no maildirsize, counts messages")):
            m = median_ms(mtimes["--get-mailbox-size (%s)" % variant])
            out.append("%-*s%*s" % (label_width + 16, "  --get-mailbox-size, " + what,
                                    cell_width, cell(m, m / du)))
            verdicts.append("  %-30s %5.2f x du -sb, %s (target <= %.1f at 50000 messages): %s"
                            % ("--get-mailbox-size", m / du, what, SIZE_TARGET,
                               verdict(m / du <= SIZE_TARGET, opts.messages >= 50000)))
        out.append("")
    out.append("Targets:")
    out += verdicts
    out.append("")
    out.append("Load average (1 min) after each part: " + ", ".join(
        ["N=%d: %.2f" % (n, results[n][1]["load"][0]) for n in sizes]
        + (["mailbox: %.2f" % mailbox[1]["load"][0]] if mailbox else [])))
    if sizes:
        out.append("Server generated in: " + ", ".join(
            "%.0f s (N=%d)" % (results[n][1]["generated_seconds"], n) for n in sizes))
    return "\n".join(out)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--sizes", default=",".join(map(str, DEFAULT_SIZES)),
                        help="comma-separated numbers of mail names (default %(default)s)")
    parser.add_argument("--runs", type=int, default=15,
                        help="timed runs of each operation per size (default %(default)s)")
    parser.add_argument("--messages", type=int, default=50000,
                        help="messages in the mailbox for --get-mailbox-size "
                             "(default %(default)s; 0 skips that part)")
    parser.add_argument("--burst", type=int, default=100,
                        help="runs started at once with a compiling qmail-newu, per size "
                             "(default %(default)s; 0 skips the burst)")
    parser.add_argument("--build-dir", type=Path, default=REPO / "build",
                        help="the build tree with the program and the database set-up driver "
                             "(default %(default)s)")
    parser.add_argument("--tree-dir", default="/dev/shm",
                        help="where the mail names tree lives: a directory on a memory file "
                             "system (default %(default)s); '' keeps it on disk with the rest "
                             "of the sandbox")
    opts = parser.parse_args(argv)
    opts.dravnik = opts.build_dir / "src" / "main" / "dravnik"
    if not os.access(opts.dravnik, os.X_OK):
        parser.error("%s is missing: build it (ninja -C %s)" % (opts.dravnik, opts.build_dir))
    # The sandbox prepares its databases with the build tree's set-up program.
    os.environ["DRAVNIK_SETUP"] = str(opts.build_dir / "src" / "setup" / "dravnik-setup")
    if opts.tree_dir and not os.path.isdir(opts.tree_dir):
        parser.error("--tree-dir %s is not a directory" % opts.tree_dir)
    try:
        sizes = sorted({int(s) for s in opts.sizes.split(",") if s})
    except ValueError:
        parser.error("--sizes takes numbers separated by commas ('' for none)")
    if not 1 <= opts.runs <= 99:
        parser.error("--runs must be between 1 and 99")
    # Each round renames a generated mail name of its own domain.
    if any(n // NAMES_PER_DOMAIN - 1 < opts.runs + 1 for n in sizes):
        parser.error("with --runs %d each size must be at least %d"
                     % (opts.runs, NAMES_PER_DOMAIN * (opts.runs + 2)))
    # Each run of the burst edits a domain of its own in the upper half.
    if opts.burst < 0 or any(n // NAMES_PER_DOMAIN // 2 - 1 < opts.burst for n in sizes):
        parser.error("with --burst %d each size must be at least %d"
                     % (opts.burst, NAMES_PER_DOMAIN * 2 * (opts.burst + 1)))
    if os.geteuid() != 0:
        parser.error("run as root: the sandbox runs dravnik as root")

    try:
        results = {}
        for n in sizes:
            print("N=%d: generating and timing ..." % n, file=sys.stderr, flush=True)
            results[n] = bench_size(opts, n)
        mailbox = None
        if opts.messages > 0:
            print("mailbox of %d messages: generating and timing ..." % opts.messages,
                  file=sys.stderr, flush=True)
            mailbox = bench_mailbox_size(opts)
    except (BenchError, SandboxError) as e:
        print("bench: %s" % e, file=sys.stderr)
        return 1
    print(table(sizes, results, mailbox, opts))
    return 0


if __name__ == "__main__":
    sys.exit(main())
