"""Names given in the mail data options ("--domain-aliases",
"--mail-addresses") become lines of qmail's files and paths in the mail
tree: each must pass the check the commands apply to their own names, or
the command stops with status 1 before it changes anything."""

import pytest

from conftest import sandbox_copy
from sandbox import Sandbox
from test_domain_commands import (DOMAIN, add_domain, add_domain_alias, add_mailbox, lines,
                                  mail_state, ok, session)

BAD_DOMAINS = [
    "x.example\nevil.example", "x.example\revil.example", "evil.example:" + DOMAIN,
    "x.example|/bin/sh", "x.example/evil", "..", "../other.example", "a..example",
    ".x.example", "-x.example", "a.example,,b.example", "a" * 64 + ".example",
    "\ue000.example",
]
BAD_MAILNAMES = [
    "olga\nevil", "olga\r", "ol:ga", "ol|ga", "../other.example/olga", "ol/ga", "..",
    ".olga", "a" * 246, "j\u00f6rg",
]

# Every command that takes the mail data options, with its other options.
COMMANDS = {
    "--remove-mailname": ("--mailname=john",),
    "--rename-mailname": ("--old-mailname=john", "--new-mailname=jack"),
    "--add-mailbox": ("--mailname=john",),
    "--remove-mailbox": ("--mailname=john",),
    "--set-password": ("--mailname=john",),
    "--set-domain-disk-quota": ("--disk-quota=1",),
    "--add-alias": ("--mailname=john", "--alias=info"),
    "--remove-alias": ("--mailname=john", "--alias=info"),
    "--add-domain-alias": ("--domain-alias-name=new.example", "--set-reject"),
    "--del-domain-alias": ("--domain-alias-name=alias.example",),
    "--rename-domain-alias": ("--old-domain-alias-name=alias.example",
                              "--new-domain-alias-name=new.example", "--set-reject"),
    "--remove-domain": (),
    "--turn-on-domain": ("--set-reject",),
    "--turn-off-domain": (),
}


@pytest.fixture(scope="module")
def prepared():
    """example.com with its alias domain alias.example, and the mailboxes
    john and olga; other.example with its own olga."""
    with Sandbox() as sb:
        sb.init_databases()
        add_domain(sb)
        add_domain(sb, "other.example")
        for name in ("john", "olga"):
            add_mailbox(sb, name)
        add_mailbox(sb, "olga", "other.example")
        add_domain_alias(sb, "alias.example")
        yield sb.root


@pytest.fixture
def sb(prepared):
    yield from sandbox_copy(prepared)


def refused(sb, *args, stdin=None):
    before = mail_state(sb)
    r = sb.run(*args, env={"ZON_PASSWORD": "secret"}, stdin=stdin)
    assert r.rc == 1, r
    assert sb.changed_files(before, mail_state(sb)) == []
    return r


@pytest.mark.parametrize("value", BAD_DOMAINS)
@pytest.mark.parametrize("command", ["--turn-on-domain", "--turn-off-domain"])
def test_a_domain_alias_that_is_no_domain_name_is_refused(sb, command, value):
    r = refused(sb, command, "--domain-name=" + DOMAIN, *COMMANDS[command],
                "--domain-aliases=" + value)
    assert "--domain-aliases: " in r.err and "- domain has incorrect format." in r.err, r
    # The document on standard input refuses the same names.
    if "," not in value:
        refused(sb, command, "--domain-name=" + DOMAIN, *COMMANDS[command], "--wait-stdin",
                stdin=session(aliases=[value]))


@pytest.mark.parametrize("value", BAD_MAILNAMES)
@pytest.mark.parametrize("where", ["{}", "john,{}", "john;{},info"])
def test_a_mail_name_or_alias_that_is_no_mail_name_is_refused(sb, where, value):
    r = refused(sb, "--set-domain-disk-quota", "--domain-name=" + DOMAIN, "--disk-quota=1",
                "--mail-addresses=" + where.format(value))
    assert "--mail-addresses: " in r.err, r
    assert "- local part of mailname has incorrect format." in r.err, r


@pytest.mark.parametrize("command", COMMANDS)
@pytest.mark.parametrize("option,value", [("--domain-aliases", "x.example\nevil.example"),
                                          ("--mail-addresses", "john,../other.example/olga")])
def test_every_command_checks_the_mail_data_names(sb, command, option, value):
    refused(sb, command, "--domain-name=" + DOMAIN, *COMMANDS[command], option + "=" + value)


def test_the_quota_commands_without_mail_addresses_do_not_take_them(sb):
    for command in ("--add-mailname --mailname=jack", "--set-mailbox-disk-quota "
                    "--mailname=john --disk-quota=1"):
        r = refused(sb, *command.split(), "--domain-name=" + DOMAIN, "--default-domain-quota=1",
                    "--mail-addresses=../other.example/olga")
        assert "unrecognised option '--mail-addresses" in r.err, r


def test_names_are_taken_as_the_commands_take_their_own(sb):
    """Lower-cased, a domain alias in its ASCII form; blanks, tabs and
    commas separate names, and an empty value is an empty list."""
    ok(sb, "--turn-off-domain", "--domain-name=" + DOMAIN, "--domain-aliases", "")
    ok(sb, "--turn-on-domain", "--domain-name=" + DOMAIN, "--set-reject",
       "--domain-aliases", "Alias.Example\tb\u00fccher.example")
    assert {"alias.example", "xn--bcher-kva.example"} <= set(lines(sb, "control/rcpthosts"))
    assert "xn--bcher-kva.example:" + DOMAIN in lines(sb, "control/virtualdomains")

    maildirsize = "/var/qmail/mailnames/%s/%%s/Maildir/maildirsize" % DOMAIN
    before = {name: sb.read(maildirsize % name) for name in ("john", "olga")}
    ok(sb, "--set-domain-disk-quota", "--domain-name=" + DOMAIN, "--disk-quota=1048576",
       "--mail-addresses", "JOHN")
    assert sb.read(maildirsize % "john") != before["john"]
    assert sb.read(maildirsize % "olga") == before["olga"]
