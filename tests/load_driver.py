#!/usr/bin/python3
"""Runs dravnik hundreds of times inside one sandbox, for test_under_load.py.

    load_driver.py kill DRAVNIK REPORT SEED RUNS
    load_driver.py concurrent DRAVNIK REPORT WIDTH PAUSE

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

Only the standard library: the sandbox runs this with python3 -I.
"""

import json
import os
import random
import re
import runpy
import signal
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


def main(argv):
    mode, binary, report_path = argv[1:4]
    prog = Dravnik(binary)
    if mode == "kill":
        report = kill_test(prog, int(argv[4]), int(argv[5]))
    else:
        report = concurrent_test(prog, int(argv[4]), float(argv[5]))
    with open(report_path, "w") as f:
        json.dump(report, f, indent=1)


if __name__ == "__main__":
    main(sys.argv)
