"""Input that tries to reach further than it should, through the real program
in the sandbox: names that are sed metacharacters, delivery lines smuggled
into a catch-all address or bounce text, and passwords that must reach no
child process and no log line."""

import json
import os

import pytest

from sandbox import LOG_DIR, changed_files
from test_domain_commands import (DOMAIN, add_domain, add_mailbox, mail_state, ok,
                                  qmail_effects, session)
from test_domain_rename import HOST, install_plugin

ROOT = "/var/qmail/mailnames/" + DOMAIN
ASSIGN = "/var/qmail/users/assign"
POPUSER = 110
DELIVERY = "| true\n| /usr/bin/deliverquota ./Maildir\n"


def assign_line(domain, name, home):
    return "=%s-%s:popuser:%d:%d:/var/qmail/mailnames/%s/%s:::" % (
        domain, name, POPUSER, POPUSER, domain, home)


def lines_with(sb, path, text):
    return [line for line in sb.read(path).splitlines() if text in line]


# ---------------------------------------------------------------------------
# Names in sed expressions are plain text

def test_rename_mailname_takes_both_names_literally(mail_sandbox):
    """"." in the old name matches only a dot (jxn stays as it is), "&" in
    the new one is written as "&" (not as what the pattern matched)."""
    sb = mail_sandbox
    add_domain(sb)
    for name in ("j.n", "jxn"):
        add_mailbox(sb, name)
    # An alias of each: lines that end with the mail name's home.
    sb.write(ASSIGN, "%s\n%s\n%s" % (assign_line(DOMAIN, "jnalias", "j.n"),
                                     assign_line(DOMAIN, "jxalias", "jxn"), sb.read(ASSIGN)))
    # Forwarding lines in the renamed name's .qmail, one to each name.
    dotqmail = ROOT + "/j.n/.qmail"
    sb.write(dotqmail, "&j.n@%s\n&jxn@%s\n%s" % (DOMAIN, DOMAIN, DELIVERY), mode=0o600)
    os.chown(sb.path(dotqmail), POPUSER, POPUSER)
    jxn_before = lines_with(sb, ASSIGN, "jx")

    ok(sb, "--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=j.n",
       "--new-mailname=a&b", "--mail-addresses", "j.n", env={"ZON_PASSWORD": "pw"})

    assert lines_with(sb, ASSIGN, "jx") == jxn_before
    assign = sb.read(ASSIGN).splitlines()
    assert assign_line(DOMAIN, "a&b", "a&b") in assign
    assert assign_line(DOMAIN, "jnalias", "a&b") in assign
    assert not any("j.n" in line for line in assign)
    assert sb.read(ROOT + "/a&b/.qmail") == "&a&b@%s\n&jxn@%s\n%s" % (DOMAIN, DOMAIN, DELIVERY)
    assert sb.exists(ROOT + "/jxn/Maildir") and not sb.exists(ROOT + "/j.n")


# The new name is the host's own in the second case: its separate lines are
# deleted from rcpthosts and locals first, which must spare a look-alike.
@pytest.mark.parametrize("new", ["new.example", HOST], ids=["other", "host-name"])
def test_rename_domain_takes_names_literally(mail_sandbox, new):
    sb = mail_sandbox
    old, decoy = "e.example", "exexample"          # "." would match the "x"
    new_decoy = new.replace(".", "-")
    for domain in (old, decoy):
        add_domain(sb, domain)
        add_mailbox(sb, "john", domain)
    for path in ("/var/qmail/control/rcpthosts", "/var/qmail/control/locals",
                 "/var/qmail/control/rejectnonexist"):
        text = sb.read(path) if sb.exists(path) else ""
        sb.write(path, text + "%s\n%s\n%s\n" % (old, decoy, new_decoy))
    files = [ASSIGN, "/var/qmail/control/virtualdomains", "/var/qmail/control/rcpthosts",
             "/var/qmail/control/locals", "/var/qmail/control/rejectnonexist"]
    decoys_before = {p: lines_with(sb, p, decoy) + lines_with(sb, p, new_decoy) for p in files}

    ok(sb, "--rename-domain", "--old-domain-name=" + old, "--new-domain-name=" + new)

    assert {p: lines_with(sb, p, decoy) + lines_with(sb, p, new_decoy)
            for p in files} == decoys_before
    assert assign_line(new, "john", "john") in sb.read(ASSIGN).splitlines()
    # locals keeps the old name, and so does the prefix of the wildcard line.
    assert [line for p in files if p != "/var/qmail/control/locals"
            for line in lines_with(sb, p, old)] == ["+%s:popuser:%d:%d:/var/qmail/mailnames/%s:::"
                                                    % (old, POPUSER, POPUSER, new)]


# ---------------------------------------------------------------------------
# A catch-all address or bounce text cannot add a delivery line

ADDRESS_REFUSED = ("The catch-all address must not contain a newline or another "
                   "control character.")
TEXT_REFUSED = "The bounce text must not contain a control character other than a newline."

COMMANDS = {
    "turn-on": ("--turn-on-domain", "--domain-name=" + DOMAIN),
    "add-alias": ("--add-domain-alias", "--domain-name=" + DOMAIN,
                  "--domain-alias-name=alias.example"),
    "rename-alias": ("--rename-domain-alias", "--domain-name=" + DOMAIN,
                     "--old-domain-alias-name=old.example",
                     "--new-domain-alias-name=alias.example"),
}
BAD_ACTIONS = [
    (("--set-catchall", "--email=all@example.org\n|/bin/sh -c evil"), ADDRESS_REFUSED),
    (("--set-catchall", "--email=all@example.org\t"), ADDRESS_REFUSED),
    (("--set-bounce", "--phrase=gone\r\n|/bin/sh -c evil"), TEXT_REFUSED),
    (("--set-bounce", "--phrase=\x1b[2Jgone"), TEXT_REFUSED),
]


@pytest.mark.parametrize("command", COMMANDS.values(), ids=COMMANDS.keys())
@pytest.mark.parametrize("action, message", BAD_ACTIONS,
                         ids=["newline", "tab", "bounce-crlf", "bounce-esc"])
def test_control_characters_are_refused_before_any_change(mail_sandbox, command, action,
                                                          message):
    sb = mail_sandbox
    add_domain(sb)
    before = mail_state(sb)
    r = sb.run(*command, "--mail-addresses", "", *action)
    assert r.rc == 1, r
    assert r.err.splitlines() == [message] and r.out.splitlines() == [message], r
    assert qmail_effects(r) == (0, 0)
    assert changed_files(before, mail_state(sb)) == []


# The bounce writes a newline as a blank and quotes the rest for the shell.
@pytest.mark.parametrize("command", ["turn-on", "add-alias"])
def test_honest_bounce_text_is_still_accepted(mail_sandbox, command):
    sb = mail_sandbox
    add_domain(sb)
    ok(sb, *COMMANDS[command], "--mail-addresses", "", "--set-bounce",
       "--phrase=No such user.\n\tTry 'postmaster' $HOME `id` \\")


# ---------------------------------------------------------------------------
# Passwords reach no child and no log line

PLAIN = "plain-Secret-4711"
CRYPTED = "$1$saltsalt$7R0lsUdcYyGMuDbzsO2Ow/"
NEWU_ENV = LOG_DIR + "/qmail-newu.env"
PLUGIN_ENV = LOG_DIR + "/plugin.env"

# Runs inside the program's process (in a forked child): what it finds in
# `environ` is what any child started at that moment would inherit.
SPY_PLUGIN = r"""
#include <stdio.h>
extern char** environ;
int rename_domain(const char* old_domain, const char* new_domain) {
  FILE* out = fopen("/run/sandbox/log/plugin.env", "w");
  if (!out)
    return 1;
  for (char** e = environ; *e; ++e)
    fprintf(out, "%s\n", *e);
  fclose(out);
  return 0;
}
"""

MAILBOX = ("--domain-name=" + DOMAIN, "--mailname=john", "--mail-addresses", "john")
# Command line, standard input, exit status. Most of these take no password,
# and the failing one logs why.
PASSWORD_COMMANDS = {
    "add-domain": (("--add-domain", "--domain-name=other.example", "--wait-stdin"),
                   session("other.example"), 0),
    "add-mailbox": (("--add-mailbox",) + MAILBOX, None, 0),
    "add-mailbox-fails": (("--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=ghost",
                           "--mail-addresses", "ghost"), None, 1),
    "rename-mailname": (("--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
                         "--new-mailname=jane", "--mail-addresses", "john"), None, 0),
    "add-alias": (("--add-alias",) + MAILBOX[:2] + ("--alias=jd", "--mail-addresses=john"),
                  None, 0),
    "rename-domain": (("--rename-domain", "--old-domain-name=" + DOMAIN,
                       "--new-domain-name=renamed.example"), None, 0),
}
ENVIRONMENTS = {
    "both": {"ZON_PASSWORD": PLAIN, "ZON_CRYPTED_PASSWORD": CRYPTED},
    "crypted-only": {"ZON_CRYPTED_PASSWORD": CRYPTED},
}


def records(sb, path):
    return sb.read(path).splitlines() if sb.exists(path) else []


@pytest.mark.parametrize("env", ENVIRONMENTS.values(), ids=ENVIRONMENTS.keys())
@pytest.mark.parametrize("args, stdin, rc", PASSWORD_COMMANDS.values(),
                         ids=PASSWORD_COMMANDS.keys())
def test_passwords_reach_no_child_and_no_log(mail_sandbox, args, stdin, rc, env):
    sb = mail_sandbox
    add_domain(sb)
    add_mailbox(sb, "john")
    install_plugin(sb, "spy.so", SPY_PLUGIN)
    newu_seen = len(records(sb, NEWU_ENV))

    r = sb.run(*args, env=env, stdin=stdin)
    assert r.rc == rc, r

    secrets = list(env.values())
    printed = r.out + r.err
    assert not [s for s in secrets if s in printed], r
    newu_envs = [json.loads(line) for line in records(sb, NEWU_ENV)[newu_seen:]]
    assert len(newu_envs) == len(r.newu_calls)
    for child_env in newu_envs:
        assert not [k for k in child_env if k.startswith("ZON_")], child_env
        assert not [s for s in secrets for v in child_env.values() if s in v]
    assert not [s for s in secrets for call in r.newu_calls + r.init_calls
                for a in call if s in a]
    if args[0] == "--rename-domain":
        plugin_env = sb.read(PLUGIN_ENV)
        assert "ZON_" not in plugin_env and not [s for s in secrets if s in plugin_env]
