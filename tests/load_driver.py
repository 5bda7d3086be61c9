#!/usr/bin/python3
"""Runs dravnik hundreds of times inside one sandbox, for test_under_load.py.

    load_driver.py kill DRAVNIK REPORT SEED RUNS
    load_driver.py concurrent DRAVNIK REPORT WIDTH PAUSE
    load_driver.py burst-fail DRAVNIK REPORT PAUSE FAIL_AT
    load_driver.py burst-kill DRAVNIK REPORT SEED KILLS SIZE PAUSE

Starting a container per run would cost more than the runs themselves, so
test_under_load.py starts this script once in a sandbox (where /var/qmail and
the databases are private) and reads back the JSON report it writes.

kill: random adds, removals and renames of mail names, aliases and domains,
each killed with SIGKILL at a random instant.  After every kill the qmail
files must be whole and hold the old or the new state; then the same command
is run again to its end, and the files, the mailbox tree and the
authentication database must then agree with a model of what the commands
made.  A divergence stops the loop: what follows it would only repeat it.

concurrent: sets up a few domains, then runs a batch of mixed commands,
WIDTH at a time, with the qmail-newu stand-in pausing PAUSE seconds in each
compile so that compiles would overlap if nothing kept them apart; the test
judges the outcome.

burst-fail: a burst of mixed commands, all released at one instant, in
which one compile (the FAIL_AT-th of the burst) fails; the report tells,
for each run, which compile first read its whole change and whether that
compile failed.

burst-kill: bursts of runs released at one instant, half of them killed
at random instants within the burst; the driver judges that every run that
ended with 0 has its change in users/cdb.

Only the standard library: the sandbox runs this with python3 -I.
"""

import json
import os
import random
import re
import runpy
import signal
import struct
import sqlite3
import subprocess
import sys
import time
from collections import namedtuple

ENV = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
ROOT = "/var/qmail/mailnames"
AUTH_DB = "/var/lib/tavix/mail/auth/passwd.db"
FILES = {"assign": "/var/qmail/users/assign",
         "rcpthosts": "/var/qmail/control/rcpthosts",
         "virtualdomains": "/var/qmail/control/virtualdomains",
         "locals": "/var/qmail/control/locals"}
MAILBOX = [".qmail", "Maildir/maildirsize", "Maildir/tmp", "Maildir/new", "Maildir/cur",
           "Maildir/.Spam/tmp", "Maildir/.Spam/new", "Maildir/.Spam/cur", "@attachments"]
# Every file of the qmail tree that a command means to leave; anything else
# is a temporary file that a killed run left behind.
KEPT = re.compile(r"(users/assign|control/(rcpthosts|virtualdomains|locals|rejectnonexist)"
                  r"|bin/qmail-newu|users/cdb|mailnames/[^/]+/\.qmail-default"
                  r"|mailnames/[^/]+/[^/]+/(\.qmail|Maildir/maildirsize))$")
DOMAIN = r"[a-z0-9][a-z0-9.-]*"
LINE_FORMS = {"rcpthosts": re.compile(DOMAIN + "$"), "locals": re.compile(DOMAIN + "$"),
              "virtualdomains": re.compile("%s:%s$" % (DOMAIN, DOMAIN))}


def assign_line(key, home):
    """`key` is "+prefix" or "=domain-local"; popuser is 110:110 in the sandbox."""
    return "%s:popuser:110:110:%s/%s:::" % (key, ROOT, home)


def session(domain):
    return json.dumps({"domain": {"name": domain, "dom_aliases": [], "maillists": [],
                                  "mails": []}}).encode()


def read_files():
    """Name -> text of each file of FILES, None when it is missing."""
    return {name: open(path).read() if os.path.exists(path) else None
            for name, path in FILES.items()}


def auth_addresses():
    db = sqlite3.connect(AUTH_DB)
    try:
        return {"%s@%s" % row for row in db.execute(
            "SELECT u.name, d.name FROM users u JOIN domains d ON u.dom_id = d.id")}
    finally:
        db.close()


def leftovers():
    """Files of the qmail tree that no command means to keep."""
    found = []
    for top, _, files in os.walk("/var/qmail"):
        for name in files:
            path = os.path.join(top, name)
            if not KEPT.search(path):
                found.append(path)
    return sorted(found)


class Dravnik:
    def __init__(self, binary):
        self.binary = binary
        self.took = {}      # command -> seconds of its last uncut run

    def command(self, args, stdin=None, password=None, wrap=(), **popen):
        env = dict(ENV, **({"ZON_PASSWORD": password} if password else {}))
        proc = subprocess.Popen([*wrap, self.binary, *args], env=env, stdin=subprocess.PIPE,
                                **popen)
        try:
            proc.stdin.write(stdin or b"")
            proc.stdin.close()
        except BrokenPipeError:
            pass
        return proc

    def run(self, args, stdin=None, password=None):
        """Runs to the end: (exit status, standard error)."""
        start = time.monotonic()
        proc = self.command(args, stdin, password, stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE)
        err = proc.stderr.read().decode("utf-8", "replace")
        rc = proc.wait(timeout=120)
        self.took[args[0]] = time.monotonic() - start
        return rc, err

    def killed(self, args, rnd, stdin=None, password=None):
        """Runs and kills with SIGKILL after a random part of the command's
        usual time: -9, or the exit status when it ended first."""
        delay = rnd.uniform(0, self.took.get(args[0], 0.15))
        proc = self.command(args, stdin, password, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
        time.sleep(delay)
        proc.send_signal(signal.SIGKILL)
        return proc.wait(timeout=120)


# --------------------------------------------------------------------------
# The model of the kill test

class Domain:
    def __init__(self, prefix):
        self.prefix = prefix    # the wildcard line's prefix, which a rename keeps
        self.mails = set()
        self.aliases = {}       # alias -> mail name


class Model:
    """What the qmail files, the mailbox tree and the authentication
    database hold when every command so far has run to its end."""

    def __init__(self, locals_):
        self.domains = {}
        self.boxes = set()      # addresses with an authentication record
        self.stale = set()      # wildcard lines that outlive a renamed, removed domain
        self.locals = set(locals_)
        self.counter = 0

    def fresh(self, stem):
        self.counter += 1
        return "%s%d" % (stem, self.counter)

    def lines(self):
        assign = set(self.stale)
        for d, dom in self.domains.items():
            assign.add(assign_line("+" + dom.prefix, d))
            assign |= {assign_line("=%s-%s" % (d, m), "%s/%s" % (d, m)) for m in dom.mails}
            assign |= {assign_line("=%s-%s" % (d, a), "%s/%s" % (d, m))
                       for a, m in dom.aliases.items()}
        return {"assign": assign, "rcpthosts": set(self.domains),
                "virtualdomains": {"%s:%s" % (d, d) for d in self.domains},
                "locals": set(self.locals)}

    def tree_problems(self):
        problems = []
        if set(os.listdir(ROOT)) != set(self.domains):
            problems.append("domain directories %s, expected %s"
                            % (sorted(os.listdir(ROOT)), sorted(self.domains)))
        for d, dom in self.domains.items():
            names = {n for n in os.listdir(os.path.join(ROOT, d)) if not n.startswith(".")} \
                if os.path.isdir(os.path.join(ROOT, d)) else set()
            if names != dom.mails:
                problems.append("%s holds %s, expected %s" % (d, sorted(names), sorted(dom.mails)))
            problems += ["%s/%s/%s is missing" % (d, m, p) for m in dom.mails & names
                         for p in MAILBOX if not os.path.exists(os.path.join(ROOT, d, m, p))]
        return problems


# Op: the command's arguments and standard input; the substrings that mark
# the lines it may touch; `norm` maps a line half-way through a rename to
# its final form; `loose` names the files it edits in several steps, which
# a kill may leave in between (each step is whole); apply() moves the model.
Op = namedtuple("Op", "args stdin password tokens norm loose apply")


def op(args, tokens, apply, stdin=None, password=None, norm=None, loose=()):
    return Op(args, stdin, password, tokens, norm or (lambda line: line), set(loose), apply)


def add_mailname(m, rnd):
    d, name = rnd.choice(sorted(m.domains)), m.fresh("m")
    return op(["--add-mailname", "--domain-name=" + d, "--mailname=" + name,
               "--disk-quota=%d" % rnd.randrange(1, 10 ** 8)],
              ["=%s-%s:" % (d, name)], lambda: m.domains[d].mails.add(name))


def some_mailname(m, rnd):
    """A mail name, its domain, and the session's list of it and its aliases."""
    d, name = rnd.choice([(d, n) for d, dom in sorted(m.domains.items())
                          for n in sorted(dom.mails)])
    aliases = sorted(a for a, n in m.domains[d].aliases.items() if n == name)
    return d, name, aliases, ",".join([name] + aliases)


def remove_mailname(m, rnd):
    d, name, aliases, addresses = some_mailname(m, rnd)

    def apply():
        m.domains[d].mails.discard(name)
        m.boxes -= {"%s@%s" % (n, d) for n in [name] + aliases}
    return op(["--remove-mailname", "--domain-name=" + d, "--mailname=" + name,
               "--mail-addresses", addresses],
              ["=%s-%s:" % (d, name), "/%s/%s:::" % (d, name)], apply)


def rename_mailname(m, rnd):
    d, old, aliases, addresses = some_mailname(m, rnd)
    new = m.fresh("m")

    def apply():
        dom = m.domains[d]
        dom.mails = dom.mails - {old} | {new}
        dom.aliases.update({a: new for a in aliases})
        if "%s@%s" % (old, d) in m.boxes:
            m.boxes = m.boxes - {"%s@%s" % (old, d)} | {"%s@%s" % (new, d)}
    return op(["--rename-mailname", "--domain-name=" + d, "--old-mailname=" + old,
               "--new-mailname=" + new, "--mail-addresses", addresses],
              ["=%s-%s:" % (d, n) for n in (old, new)] + ["/%s/%s:::" % (d, n) for n in (old, new)],
              # The panel sends a password for a mail name that has a mailbox.
              apply, password="secret" if "%s@%s" % (old, d) in m.boxes else None,
              loose=["assign"])


def add_alias(m, rnd):
    d, name, _, addresses = some_mailname(m, rnd)
    alias = m.fresh("a")

    def apply():
        m.domains[d].aliases[alias] = name
        if "%s@%s" % (name, d) in m.boxes:
            m.boxes.add("%s@%s" % (alias, d))
    return op(["--add-alias", "--domain-name=" + d, "--mailname=" + name, "--alias=" + alias,
               "--mail-addresses", addresses], ["=%s-%s:" % (d, alias)], apply)


def add_domain(m, rnd):
    d = m.fresh("k") + ".test"

    def apply():
        m.domains[d] = Domain(d)
        m.locals.discard(d)
    return op(["--add-domain", "--domain-name=" + d, "--wait-stdin"], [d], apply,
              stdin=session(d))


def remove_domain(m, rnd):
    d = rnd.choice(sorted(m.domains))

    def apply():
        dom = m.domains.pop(d)
        if dom.prefix != d:  # a renamed domain's wildcard line escapes both removals
            m.stale.add(assign_line("+" + dom.prefix, d))
        m.boxes = {b for b in m.boxes if not b.endswith("@" + d)}
    return op(["--remove-domain", "--domain-name=" + d, "--mail-addresses", ""], [d], apply,
              loose=["assign"])


def rename_domain(m, rnd):
    old, new = rnd.choice(sorted(m.domains)), m.fresh("k") + ".test"

    def apply():
        m.domains[new] = m.domains.pop(old)
        m.boxes = {b[:-len(old)] + new if b.endswith("@" + old) else b for b in m.boxes}
    return op(["--rename-domain", "--old-domain-name=" + old, "--new-domain-name=" + new],
              [old, new], apply, norm=lambda line: line.replace(old, new))


def has_mails(m):
    return any(dom.mails for dom in m.domains.values())


# Each command with the condition under which it makes sense.
COMMANDS = {
    "add-mailname": (lambda m: True, add_mailname),
    "remove-mailname": (has_mails, remove_mailname),
    "rename-mailname": (has_mails, rename_mailname),
    "add-alias": (has_mails, add_alias),
    "add-domain": (lambda m: len(m.domains) < 6, add_domain),
    "remove-domain": (lambda m: len(m.domains) > 2, remove_domain),
    "rename-domain": (lambda m: True, rename_domain),
}


def file_problems(name, text, check_assign):
    """Why a qmail file is not whole, or []."""
    if text is None:
        return ["%s is missing" % name]
    problems = []
    if text and not text.endswith("\n"):
        problems.append("%s ends in a cut line %r" % (name, text.splitlines()[-1]))
    if name == "assign":
        why = check_assign(text)
        problems += ["assign: " + why] if why else []
    else:
        problems += ["%s: malformed line %r" % (name, l) for l in text.splitlines()
                     if not LINE_FORMS[name].match(l)]
    lines = text.splitlines()
    problems += ["%s: line %r more than once" % (name, l) for l in sorted(set(lines))
                 if lines.count(l) > 1]
    return problems


def kill_problems(o, before, after, texts, check_assign):
    """What is wrong with the files a killed run left. Lines the command
    does not touch must be exactly as before, in order; the lines it
    touches must be those of before or of after, never a mixture, unless
    the command edits that file in several steps (then each step is whole)."""
    problems = []
    for name, text in texts.items():
        whole = file_problems(name, text, check_assign)
        if whole:
            problems += whole
            continue
        touched = lambda line: any(t in line for t in o.tokens)
        lines, old = text.splitlines(), before[name].splitlines()
        if [l for l in lines if not touched(l)] != [l for l in old if not touched(l)]:
            problems.append("%s: lines the command does not touch changed" % name)
        now, then, later = (sorted(o.norm(l) for l in x if touched(l))
                            for x in (lines, old, after[name]))
        if name in o.loose:
            if not set(now) <= set(then) | set(later):
                problems.append("%s: lines of neither state: %s"
                                % (name, sorted(set(now) - set(then) - set(later))))
        elif now not in (then, later):
            problems.append("%s is neither the old nor the new content: %s" % (name, now))
    return problems


def state_problems(m, texts, check_assign):
    """What differs between the files, tree and database and the model."""
    expected = m.lines()
    problems = []
    for name, text in texts.items():
        problems += file_problems(name, text, check_assign)
        lines = set((text or "").splitlines()) - {"."}
        if lines != expected[name]:
            problems.append("%s lacks %s, has extra %s" % (
                name, sorted(expected[name] - lines), sorted(lines - expected[name])))
    problems += m.tree_problems()
    records = auth_addresses()
    if records != m.boxes:
        problems.append("authentication records lack %s, have extra %s"
                        % (sorted(m.boxes - records), sorted(records - m.boxes)))
    return problems


def domain_with_mailboxes(domain, boxes, password_of):
    """The runs that set up a domain with mailboxes."""
    runs = [(["--add-domain", "--domain-name=" + domain, "--wait-stdin"], session(domain), None)]
    for box in boxes:
        runs += [(["--add-mailname", "--domain-name=" + domain, "--mailname=" + box,
                   "--disk-quota=-1"], None, None),
                 (["--add-mailbox", "--domain-name=" + domain, "--mailname=" + box,
                   "--mail-addresses", box], None, password_of(box))]
    return runs


def set_up(prog, runs):
    """Runs each to its end; a failure ends the driver."""
    for args, stdin, password in runs:
        rc, err = prog.run(args, stdin, password)
        if rc != 0:
            sys.exit("set-up failed: %s: %s" % (" ".join(args), err))


def kill_test(prog, seed, runs):
    rnd = random.Random(seed)
    # The stand-in qmail-newu's own judgement of users/assign.
    check_assign = runpy.run_path("/var/qmail/bin/qmail-newu")["check"]
    # Many names that the runs will give domains are local host names
    # first: adding a domain must take its name out of control/locals.
    m = Model(["localhost"] + ["k%d.test" % n for n in range(1, 200)])
    with open(FILES["locals"], "w") as f:
        f.write("".join(n + "\n" for n in sorted(m.locals)))
    for _ in range(3):
        domain, boxes = m.fresh("k") + ".test", [m.fresh("m") for _ in range(3)]
        set_up(prog, domain_with_mailboxes(domain, boxes, lambda box: "secret"))
        m.domains[domain] = Domain(domain)
        m.domains[domain].mails.update(boxes)
        m.locals.discard(domain)
        m.boxes |= {"%s@%s" % (box, domain) for box in boxes}

    report = {"seed": seed, "runs": 0, "killed": 0, "violations": [], "by_command": {}}
    before = read_files()
    for run in range(runs):
        name = rnd.choice([n for n, (allowed, _) in COMMANDS.items() if allowed(m)])
        o = COMMANDS[name][1](m, rnd)
        report["runs"] += 1
        report["by_command"][name] = report["by_command"].get(name, 0) + 1

        def violation(what, problems):
            report["violations"].append({"run": run, "command": " ".join(o.args),
                                         "what": what, "problems": problems})

        status = prog.killed(o.args, rnd, o.stdin, o.password)
        report["killed"] += status == -signal.SIGKILL
        o.apply()
        after = m.lines()
        if status not in (0, -signal.SIGKILL):
            violation("an uncut run failed with status %d" % status, [])
            break
        texts = read_files()
        problems = kill_problems(o, before, after, texts, check_assign)
        if problems:
            violation("the kill left broken files", problems)
        rc, err = prog.run(o.args, o.stdin, o.password)
        if rc != 0:
            violation("the run after the kill failed with status %d" % rc, [err])
            break
        before = read_files()
        problems = state_problems(m, before, check_assign)
        if problems:
            violation("the run after the kill did not restore a whole state", problems)
            break
    report["leftovers"] = leftovers()
    report["seconds"] = {k: round(v, 3) for k, v in sorted(prog.took.items())}
    return report


# --------------------------------------------------------------------------
# The concurrency test: its plan is shared with test_under_load.py

DOMAINS = ["c%d.test" % i for i in range(5)]          # set up beforehand
NEW_DOMAINS = ["c%d.test" % i for i in range(5, 10)]  # added by the batch
NEW_NAMES = tuple("n%02d" % i for i in range(8))    # added to each domain by the batch
# Mailboxes set up beforehand in each domain, two for each command of the
# batch that changes one (DROP_ALIAS's get the alias "a" + name first), and
# mail names without a mailbox, to which the batch gives one.
NEW_PASSWORD, ADD_ALIAS, DROP_ALIAS = ("e0", "e1"), ("f0", "f1"), ("g0", "g1")
QUOTA, RENAME, REMOVE = ("q0", "q1"), ("r0", "r1"), ("x0", "x1")
BOXES = NEW_PASSWORD + ADD_ALIAS + DROP_ALIAS + QUOTA + RENAME + REMOVE
BARE = ("b0", "b1")
NEWU_PAUSE = "/run/sandbox/newu-pause"     # read by the qmail-newu stand-in
NEWU_CALLS = "/run/sandbox/log/qmail-newu.calls"


def password(address, new=False):
    return ("new-" if new else "old-") + address


def renamed(name):
    return name + "x"


def quota(d, name):
    return 1000000 + 1000 * DOMAINS.index(d) + int(name[1:])


def domain_alias(d):
    return "al-" + d


def batch():
    """(arguments, standard input, password) of every run of the batch.  No
    two touch the same mail name, so their order cannot change the outcome."""
    runs = [(["--add-domain", "--domain-name=" + d, "--wait-stdin"], session(d), None)
            for d in NEW_DOMAINS]
    for d in DOMAINS:
        runs.append((["--add-domain-alias", "--domain-name=" + d, "--domain-alias-name="
                      + domain_alias(d), "--mail-addresses", "", "--set-reject"], None, None))
        pw = lambda n, new=False: password("%s@%s" % (n, d), new)
        own = lambda n: ["--mailname=" + n, "--mail-addresses", n]
        alias = lambda n: ["--alias=a" + n] + own(n)
        sized = lambda n: ["--mailname=" + n, "--disk-quota=%d" % quota(d, n)]
        # (verb, names, arguments, password) of the runs on one mail name each;
        # a rename is given the password again, as the panel does
        for verb, names, args, secret in (
                ("--add-mailname", NEW_NAMES, sized, None),
                ("--set-mailbox-disk-quota", QUOTA,
                 lambda n: sized(n) + ["--default-domain-quota=-1"], None),
                ("--set-password", NEW_PASSWORD, own, lambda n: pw(n, new=True)),
                ("--add-alias", ADD_ALIAS, alias, None),
                ("--remove-alias", DROP_ALIAS, alias, None),
                ("--remove-mailname", REMOVE, own, None),
                ("--add-mailbox", BARE, own, pw),
                ("--rename-mailname", RENAME, lambda n: ["--old-mailname=" + n, "--new-mailname="
                                                         + renamed(n), "--mail-addresses", n],
                 pw)):
            runs += [([verb, "--domain-name=" + d, *args(n)], None, secret and secret(n))
                     for n in names]
    return runs


def compiles():
    with open(NEWU_CALLS) as f:
        return len(f.readlines())


def concurrent_set_up(prog):
    for dom in DOMAINS:
        set_up(prog, domain_with_mailboxes(dom, BOXES, lambda box: password(box + "@" + dom)))
        set_up(prog, [(["--add-alias", "--domain-name=" + dom, "--mailname=" + n, "--alias=a" + n,
                     "--mail-addresses", n], None, None) for n in DROP_ALIAS])
        set_up(prog, [(["--add-mailname", "--domain-name=" + dom, "--mailname=" + n,
                        "--disk-quota=-1"], None, None) for n in BARE])


def concurrent_test(prog, width, pause):
    """Runs the batch `width` at a time (the first `width` released at one
    instant, then a new one as soon as one ends), with qmail-newu pausing
    `pause` seconds between writing users/cdb.tmp and renaming it."""
    concurrent_set_up(prog)
    if pause:
        with open(NEWU_PAUSE, "w") as f:
            f.write("%g\n" % pause)
    compiles_before = compiles()
    # Each run waits in a shell at a pipe until the pipe is closed.
    gate, gate_write = os.pipe()
    wait = ["/bin/sh", "-c", 'read _ <&%d; exec "$@"' % gate, "sh"]
    os.makedirs("/run/sandbox/err", exist_ok=True)
    pending, running, runs = list(enumerate(batch()))[::-1], [], []
    start = None
    while pending or running:
        while pending and len(running) < width:
            i, (args, stdin, pw) = pending.pop()
            with open("/run/sandbox/err/%d" % i, "w+b") as err:
                running.append((args, err.name, prog.command(
                    args, stdin, pw, stdout=subprocess.DEVNULL, stderr=err, pass_fds=(gate,),
                    wrap=wait)))
        if start is None:
            start = time.monotonic()
            os.close(gate_write)
        for item in [r for r in running if r[2].poll() is not None]:
            running.remove(item)
            args, err, proc = item
            with open(err) as f:
                runs.append({"args": args, "rc": proc.returncode, "err": f.read()})
        time.sleep(0.002)
    seconds = time.monotonic() - start
    if pause:
        os.unlink(NEWU_PAUSE)
    return {"runs": runs, "seconds": round(seconds, 2),
            "compiles": compiles() - compiles_before}


# --------------------------------------------------------------------------
# Bursts: many runs released at one instant, each with changes to
# users/assign that no other run touches, so that what each compile read
# tells whose change it saw.

NEWU_FAIL = "/run/sandbox/newu-fail"
NEWU_INPUTS = "/run/sandbox/log/qmail-newu.inputs"
BURST_DOMAINS = ["b%d.test" % i for i in range(4)]
BURST_NAMES = ["o%d" % i for i in range(7)]    # set up in each domain
BURST_ALIASES = ["ao%d" % i for i in range(3)]  # of o0, o1, o2, set up
FAIL_MESSAGE = "planned failure of this compile"

# A run of a burst: its arguments and standard input, and the assign lines
# that its change makes present and absent.
Change = namedtuple("Change", "args stdin present absent")


def mailname_line(d, name, home=None):
    return assign_line("=%s-%s" % (d, name), "%s/%s" % (d, home or name))


def burst_set_up(prog):
    for d in BURST_DOMAINS:
        set_up(prog, [(["--add-domain", "--domain-name=" + d, "--wait-stdin"], session(d), None)])
        set_up(prog, [(["--add-mailname", "--domain-name=" + d, "--mailname=" + n,
                        "--disk-quota=-1"], None, None) for n in BURST_NAMES])
        set_up(prog, [(["--add-alias", "--domain-name=" + d, "--mailname=" + n,
                        "--alias=" + a, "--mail-addresses", n], None, None)
                      for a, n in zip(BURST_ALIASES, BURST_NAMES)])


def mixed_burst():
    """Each kind of change of users/assign, in every set-up domain, and new
    domains: runs whose changes are all apart."""
    changes = []
    for i, d in enumerate(BURST_DOMAINS):
        new = "nd%d.test" % i
        changes.append(Change(["--add-domain", "--domain-name=" + new, "--wait-stdin"],
                              session(new), [assign_line("+" + new, new)], []))
        for k in range(4):
            n = "new%d" % k
            changes.append(Change(["--add-mailname", "--domain-name=" + d, "--mailname=" + n,
                                   "--disk-quota=-1"], None, [mailname_line(d, n)], []))
        # o3 is renamed and o6 removed by runs of their own.
        for k, owner in enumerate(["o4", "o5", "o4"]):
            a = "na%d" % k
            changes.append(Change(["--add-alias", "--domain-name=" + d, "--mailname=" + owner,
                                   "--alias=" + a, "--mail-addresses", owner], None,
                                  [mailname_line(d, a, owner)], []))
        for a, owner in zip(BURST_ALIASES, BURST_NAMES):
            changes.append(Change(["--remove-alias", "--domain-name=" + d, "--mailname=" + owner,
                                   "--alias=" + a, "--mail-addresses", "%s,%s" % (owner, a)],
                                  None, [], [mailname_line(d, a, owner)]))
        changes.append(Change(["--remove-mailname", "--domain-name=" + d, "--mailname=o6",
                               "--mail-addresses", "o6"], None, [], [mailname_line(d, "o6")]))
        changes.append(Change(["--rename-mailname", "--domain-name=" + d, "--old-mailname=o3",
                               "--new-mailname=o3x", "--mail-addresses", "o3"], None,
                              [mailname_line(d, "o3x")], [mailname_line(d, "o3")]))
    return changes


def added_burst(tag, count):
    """`count` runs that each add a line of their own."""
    changes = []
    for k in range(count):
        d = BURST_DOMAINS[k % len(BURST_DOMAINS)]
        if k % 3 == 2:
            a = "%sa%d" % (tag, k)
            changes.append(Change(["--add-alias", "--domain-name=" + d, "--mailname=o0",
                                   "--alias=" + a, "--mail-addresses", "o0"], None,
                                  [mailname_line(d, a, "o0")], []))
        else:
            n = "%sn%d" % (tag, k)
            changes.append(Change(["--add-mailname", "--domain-name=" + d, "--mailname=" + n,
                                   "--disk-quota=-1"], None, [mailname_line(d, n)], []))
    return changes


def reflects(text, change):
    lines = set(text.splitlines())
    return set(change.present) <= lines and not set(change.absent) & lines


def burst(prog, changes, kill_after=None, later=(), release_later=None, on_success=None):
    """Starts every run at one instant; with `kill_after` (run index ->
    seconds), kills those runs that long after the start. The runs whose
    indexes are in `later` start only once `release_later()` says so.
    `on_success(change)` is called as soon as a run is seen to have ended
    with 0. [{args, rc, err}], and the burst's seconds."""
    gates = [os.pipe(), os.pipe()]
    os.makedirs("/run/sandbox/err", exist_ok=True)
    procs = []
    for i, c in enumerate(changes):
        gate = gates[i in later][0]
        wait = ["/bin/sh", "-c", 'read _ <&%d; exec "$@"' % gate, "sh"]
        err = open("/run/sandbox/err/burst-%d" % i, "w+b")
        procs.append((err, prog.command(c.args, c.stdin, None, stdout=subprocess.DEVNULL,
                                        stderr=err, pass_fds=(gate,), wrap=wait)))
    start = time.monotonic()
    for n, (gate, gate_write) in enumerate(gates):
        while n and later and not release_later():
            time.sleep(0.005)
        os.close(gate_write)
        os.close(gate)
    kills = sorted((t, i) for i, t in (kill_after or {}).items())
    ended = {}
    while len(ended) < len(procs):
        while kills and time.monotonic() >= start + kills[0][0]:
            procs[kills.pop(0)[1]][1].send_signal(signal.SIGKILL)
        for i, (_, proc) in enumerate(procs):
            if i not in ended and proc.poll() is not None:
                ended[i] = proc.returncode
                if proc.returncode == 0 and on_success:
                    on_success(changes[i])
        time.sleep(0.001)
    runs = []
    for i, (c, (err, proc)) in enumerate(zip(changes, procs)):
        rc = ended[i]
        err.seek(0)
        runs.append({"args": c.args, "rc": rc, "err": err.read().decode("utf-8", "replace")})
        err.close()
    return runs, time.monotonic() - start


def set_pause(pause):
    if pause:
        with open(NEWU_PAUSE, "w") as f:
            f.write("%g\n" % pause)
    elif os.path.exists(NEWU_PAUSE):
        os.unlink(NEWU_PAUSE)


def burst_fail_test(prog, pause, fail_at):
    """A mixed burst in which the `fail_at`-th compile (counted from the
    burst's first) fails, held open `pause` seconds: each run's fate is that
    of the first compile that read its whole change."""
    burst_set_up(prog)
    set_pause(pause)
    with open(NEWU_FAIL, "w") as f:
        f.write("%d %s\n" % (compiles() + fail_at, FAIL_MESSAGE))
    changes = mixed_burst()
    # Half the runs start once the failing compile has read users/assign,
    # so that later compiles serve them.
    def failing():
        return os.path.exists(NEWU_INPUTS) and any(
            json.loads(l)["status"] for l in open(NEWU_INPUTS))
    runs, seconds = burst(prog, changes, later=set(range(1, len(changes), 2)),
                          release_later=failing)
    os.unlink(NEWU_FAIL)
    set_pause(0)
    inputs = [json.loads(l) for l in open(NEWU_INPUTS)]
    for run, c in zip(runs, changes):
        first = next((i for i in inputs if reflects(i["assign"], c)), None)
        run["served_by"] = first and first["call"]
        run["served_failed"] = bool(first and first["status"])
    return {"runs": runs, "seconds": round(seconds, 2),
            "failed_calls": [i["call"] for i in inputs if i["status"]],
            "calls": [i["call"] for i in inputs]}


def burst_kill_test(prog, seed, kills_wanted, size, pause):
    """Bursts of `size` added lines, half of each burst's runs killed at
    random instants within the burst (some end before), until
    `kills_wanted` runs were killed; every run seen to end with 0 must have
    its line in users/cdb, which must be a whole compile."""
    rnd = random.Random(seed)
    newu = runpy.run_path("/var/qmail/bin/qmail-newu")
    compile_of, decompile = newu["compiled"], newu["decompiled"]
    burst_set_up(prog)
    set_pause(pause)
    report = {"seed": seed, "rounds": [], "problems": []}
    runs, seconds = burst(prog, added_burst("u", size))   # how long a burst takes

    def compiled_body():
        cdb = open("/var/qmail/users/cdb", "rb").read()
        try:
            text = decompile(cdb)
        except struct.error:
            return None
        return text[:-len(".\n")] if compile_of(text) == cdb else None

    # Lines are only added, so users/cdb read just after a run ended holds
    # its line if the compile it returned on did.
    def check(r, change):
        body = compiled_body()
        if body is None:
            report["problems"].append("round %d: users/cdb is not a whole compile" % r)
        elif not reflects(body, change):
            report["problems"].append("round %d: ended with 0 but not in users/cdb: %s"
                                      % (r, " ".join(change.args)))

    for r in range(40):
        if sum(done["killed"] for done in report["rounds"]) >= kills_wanted:
            break
        changes = added_burst("k%d" % r, size)
        kills = {i: rnd.uniform(0, seconds) for i in rnd.sample(range(size), size // 2)}
        runs, _ = burst(prog, changes, kills, on_success=lambda c, r=r: check(r, c))
        report["problems"] += ["round %d: %s ended with status %d: %s" % (
            r, " ".join(run["args"]), run["rc"], run["err"]) for run in runs
            if run["rc"] not in (0, -signal.SIGKILL)]
        report["rounds"].append({"killed": sum(run["rc"] == -signal.SIGKILL for run in runs),
                                 "ok": sum(run["rc"] == 0 for run in runs)})
    set_pause(0)
    # One more run after the kills: its compile reads the last edit.
    last = added_burst("z", 1)[0]
    rc, err = prog.run(last.args)
    if rc != 0:
        report["problems"].append("the run after the bursts failed: " + err)
    with open(FILES["assign"]) as f:
        text = f.read()
    if open("/var/qmail/users/cdb", "rb").read() != compile_of(text):
        report["problems"].append("users/cdb is not compiled from the final users/assign")
    report["lock_dir"] = sorted(os.listdir("/run/lock/files"))
    return report


def main(argv):
    mode, binary, report_path = argv[1:4]
    prog = Dravnik(binary)
    if mode == "kill":
        report = kill_test(prog, int(argv[4]), int(argv[5]))
    elif mode == "burst-fail":
        report = burst_fail_test(prog, float(argv[4]), int(argv[5]))
    elif mode == "burst-kill":
        report = burst_kill_test(prog, int(argv[4]), int(argv[5]), int(argv[6]),
                                 float(argv[7]))
    else:
        report = concurrent_test(prog, int(argv[4]), float(argv[5]))
    with open(report_path, "w") as f:
        json.dump(report, f, indent=1)


if __name__ == "__main__":
    main(sys.argv)
