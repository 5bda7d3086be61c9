#!/usr/bin/env python3
"""A short session with dravnik as a control panel would drive it, in a
private sandbox: each step prints the command, what it printed, its exit
status, what qmail was asked to do and the files it changed, and, when it
changed a mailbox's quota, every mailbox's quota line.

The session is the table STEPS: each step is one run of the program, and
later steps see what earlier ones did.  A step whose exit status differs
from the expected one is reported, and makes the demo fail at the end."""

import argparse
import json
import shlex
import sys
from dataclasses import dataclass, field
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from sandbox import (Sandbox, SandboxError, changed_files, report,  # noqa: E402
                     report_changes)


@dataclass
class Step:
    title: str
    args: list
    expect: int = 0                             # exit status
    env: dict = field(default_factory=dict)     # e.g. {"ZON_PASSWORD": "..."}
    stdin: str = None                           # JSON mail data, when the step reads it
    deliver: str = None                         # a mailbox directory: deliver MESSAGE there


def mail_data(domain, aliases=(), mails=(), quota_mb=None):
    """The session mail data document that the panel writes on standard
    input: the domain, its aliases and its mail names with their aliases."""
    data = {"name": domain, "dom_aliases": list(aliases), "maillists": [],
            "mails": [{"name": name, "aliases": list(al)} for name, al in mails]}
    if quota_mb is not None:
        data.update(mbox_quota=quota_mb, mbox_quota_unit="MB")
    return json.dumps({"domain": data}, indent=1) + "\n"


D, A, NEW = "example.com", "example.net", "example.org"
DEFAULT_MB = 5      # the domain's mailboxes get this quota unless given their own
MAILS = [("john", ["info"]), ("mary", [])]
MESSAGE = ("From: alice@example.org\nTo: info@example.com\nSubject: Hello\n\n"
           "A first message through the mailbox that dravnik made.\n")
JOHN_HOME = "/var/qmail/mailnames/%s/john" % D
MAILNAMES = "/var/qmail/mailnames"


def data(domain, aliases=(), mails=()):
    """The panel's session data for the domain, which always carries the
    domain's default mailbox quota."""
    return mail_data(domain, aliases, mails, quota_mb=DEFAULT_MB)


STEPS = [
    Step("The list of commands", ["--help-commands"]),
    Step("Add a mail domain whose mailboxes get %d MB unless given their own quota"
         % DEFAULT_MB, ["--add-domain", "--domain-name=" + D, "--wait-stdin"], stdin=data(D)),
    Step("Give it a domain alias; mail to unknown names there is rejected",
         ["--add-domain-alias", "--domain-name=" + D, "--domain-alias-name=" + A,
          "--set-reject", "--wait-stdin"], stdin=data(D, [A])),
    Step("Add the mail name john: the domain's default quota",
         ["--add-mailname", "--domain-name=" + D, "--mailname=john", "--wait-stdin"],
         stdin=data(D, [A], [("john", [])])),
    Step("Give john a mailbox and a password (encrypted in the database); a new "
         "mailbox starts from the domain's default quota",
         ["--add-mailbox", "--domain-name=" + D, "--mailname=john", "--wait-stdin"],
         env={"ZON_PASSWORD": "correct horse"}, stdin=data(D, [A], [("john", [])])),
    Step("Now that the mailbox exists (adding it set the default), john gets a quota of "
         "his own: 10 MB",
         ["--set-mailbox-disk-quota", "--domain-name=" + D, "--mailname=john",
          "--disk-quota=10485760", "--default-domain-quota=%d" % (DEFAULT_MB << 20)]),
    Step("Add mary, who takes the domain's default quota",
         ["--add-mailname", "--domain-name=" + D, "--mailname=mary", "--wait-stdin"],
         stdin=data(D, [A], MAILS)),
    Step("Give mary a mailbox with a password that is already a crypt hash",
         ["--add-mailbox", "--domain-name=" + D, "--mailname=mary", "--wait-stdin"],
         env={"ZON_CRYPTED_PASSWORD": "$6$salt$8Vb0TpN7/hashed"}, stdin=data(D, [A], MAILS)),
    Step("john also receives mail as info@",
         ["--add-alias", "--domain-name=" + D, "--mailname=john", "--alias=info",
          "--wait-stdin"], stdin=data(D, [A], MAILS)),
    Step("qmail delivers a message through john's .qmail (Courier deliverquota)",
         [], deliver=JOHN_HOME),
    Step("The size of john's mailbox, in bytes",
         ["--get-mailbox-size", "--domain-name=" + D, "--mailname=john"]),
    Step("A new password for john",
         ["--set-password", "--domain-name=" + D, "--mailname=john", "--wait-stdin"],
         env={"ZON_PASSWORD": "battery staple"}, stdin=data(D, [A], MAILS)),
    Step("mary's mailbox gets 20 MB",
         ["--set-mailbox-disk-quota", "--domain-name=" + D, "--mailname=mary",
          "--disk-quota=20971520", "--default-domain-quota=%d" % (DEFAULT_MB << 20)]),
    Step("Rename john to jon (the password is given again)",
         ["--rename-mailname", "--domain-name=" + D, "--old-mailname=john",
          "--new-mailname=jon", "--wait-stdin"],
         env={"ZON_PASSWORD": "battery staple"}, stdin=data(D, [A], MAILS)),
    Step("A mail name for a domain that is not there is refused",
         ["--add-mailname", "--domain-name=example.invalid", "--mailname=john",
          "--disk-quota=-1"], expect=1),
    Step("Rename the domain",
         ["--rename-domain", "--old-domain-name=" + D, "--new-domain-name=" + NEW]),
    Step("Turn the domain off (its alias with it)",
         ["--turn-off-domain", "--domain-name=" + NEW, "--wait-stdin"],
         stdin=data(NEW, [A], [("jon", ["info"]), ("mary", [])])),
    Step("Turn it on again; unknown names now bounce",
         ["--turn-on-domain", "--domain-name=" + NEW, "--set-bounce",
          "--phrase", "No such mailbox here.", "--wait-stdin"],
         stdin=data(NEW, [A], [("jon", ["info"]), ("mary", [])])),
    Step("Remove the alias info@",
         ["--remove-alias", "--domain-name=" + NEW, "--mailname=jon", "--alias=info",
          "--wait-stdin"], stdin=data(NEW, [A], [("jon", ["info"]), ("mary", [])])),
    Step("Remove mary altogether",
         ["--remove-mailname", "--domain-name=" + NEW, "--mailname=mary", "--wait-stdin"],
         stdin=data(NEW, [A], [("jon", []), ("mary", [])])),
    Step("Remove the domain alias",
         ["--del-domain-alias", "--domain-name=" + NEW, "--domain-alias-name=" + A,
          "--wait-stdin"], stdin=data(NEW, [A], [("jon", [])])),
    Step("Remove the domain",
         ["--remove-domain", "--domain-name=" + NEW, "--wait-stdin"],
         stdin=data(NEW, [], [("jon", [])])),
]


def quota_lines(box):
    """Each mailbox's quota line (the first line of its Maildir/maildirsize),
    by address."""
    lines = {}
    top = box.path(MAILNAMES)
    for path in sorted(top.glob("*/*/Maildir/maildirsize")):
        name, domain = path.parts[-3], path.parts[-4]
        lines["%s@%s" % (name, domain)] = path.read_text().split("\n")[0]
    return lines


def show_quotas(before, after):
    """The quota lines after a step that changed one: what a mailbox may
    hold ("<bytes>S"; 0 for no limit)."""
    if before == after:
        return
    print("mailbox quotas (first line of Maildir/maildirsize):")
    for address in sorted(set(before) | set(after)):
        line = after.get(address)
        if line is None:
            print("  %-20s (gone)" % address)
            continue
        limit = line.split("S")[0]
        meaning = ("no limit" if limit == "0" else "%.1f MB, the @attachments directory "
                   "taken off" % (int(limit) / 1048576) if limit.isdigit() else "?")
        mark = "" if before.get(address) == line else \
            "   (was %s)" % before[address] if address in before else "   (new)"
        print("  %-20s %-14s %s%s" % (address, line, meaning, mark))


def shown_command(step):
    if step.deliver is not None:
        return ("$ (as qmail-local) cd %s && each '|' line of .qmail < message\n%s"
                % (step.deliver, MESSAGE.rstrip("\n")))
    words = ["%s=%s" % (k, shlex.quote(v)) for k, v in step.env.items()]
    words += ["dravnik"] + [shlex.quote(a) for a in step.args]
    line = "$ " + " ".join(words)
    if step.stdin is not None:
        line += " <<'EOF'\n" + step.stdin + ("" if step.stdin.endswith("\n") else "\n") + "EOF"
    return line


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--dir", help="keep the sandbox in DIR for inspection afterwards")
    opts = parser.parse_args()

    box = Sandbox(opts.dir)
    unexpected = []
    try:
        box.init_databases()  # as installing the product on a server does
        print("dravnik demo: sandbox in %s, host name %s\n" % (box.dir, box.hostname()))
        for number, step in enumerate(STEPS, start=1):
            print("=== %d. %s ===" % (number, step.title))
            print(shown_command(step), flush=True)
            before, quotas = box.snapshot(), quota_lines(box)
            if step.deliver is not None:
                rc = box.deliver(step.deliver, MESSAGE)
                print("exit status: %d" % rc)
                report_changes(box, changed_files(before, box.snapshot()))
            else:
                result = box.run(*step.args, env=step.env, stdin=step.stdin)
                rc = result.rc
                report(box, result, changed_files(before, box.snapshot()))
            show_quotas(quotas, quota_lines(box))
            if rc != step.expect:
                print("!!! expected exit status %d" % step.expect)
                unexpected.append(number)
            print()
    except SandboxError as e:
        print("demo: %s" % e, file=sys.stderr)
        return 1
    finally:
        box.cleanup()

    if unexpected:
        print("demo: unexpected exit status in step(s) %s" % ", ".join(map(str, unexpected)))
        return 1
    print("demo: all %d steps ended as expected" % len(STEPS))
    return 0


if __name__ == "__main__":
    sys.exit(main())
