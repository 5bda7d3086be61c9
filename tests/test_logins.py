"""Mailbox logins: dravnik-auth behind the real Dovecot, with the shipped
checkpassword and Lua configurations, and the program alone.

Dovecot runs inside the sandbox, in a network namespace of its own that
holds only a loopback interface; the IMAP and POP3 clients (Python's imaplib
and poplib, tests/login_driver.py) run beside it in the same sandbox run."""

import json
import subprocess

import pytest

from conftest import STRACE
from sandbox import NEWU_LOG, REPO, RECORD_DIR
from test_domain_commands import add_domain, add_mailname, ok, session

AUTH = REPO / "build" / "src" / "auth" / "dravnik-auth"
DIST = REPO / "dist" / "dovecot"
DRIVER = REPO / "tests" / "login_driver.py"
DOMAIN = "example.com"
ROOT = "/var/qmail/mailnames/" + DOMAIN
DOVECOT_DIR = RECORD_DIR + "/dovecot"
MESSAGE = "Subject: for john\n\nthe body of john's message\n"

BASE_CONFIG = """\
protocols = imap pop3
listen = 127.0.0.1
base_dir = {dir}/run
state_dir = {dir}/state
log_path = {dir}/dovecot.log
ssl = no
disable_plaintext_auth = no
auth_mechanisms = plain login
auth_cache_size = 0
auth_failure_delay = 0
first_valid_uid = 100
default_internal_user = dovecot
default_login_user = dovenull
service imap-login {{
  inet_listener imap {{
    port = 10143
  }}
  inet_listener imaps {{
    port = 0
  }}
}}
service pop3-login {{
  inet_listener pop3 {{
    port = 10110
  }}
  inet_listener pop3s {{
    port = 0
  }}
}}
!include {dir}/auth.conf.ext
"""


def shipped(name):
    """A shipped Dovecot file, pointed at this build instead of the
    installed paths."""
    text = (DIST / name).read_text()
    return (text.replace("/usr/sbin/dravnik-auth", str(AUTH))
            .replace("/etc/dovecot/conf.d/", DOVECOT_DIR + "/"))


def install_dovecot(sb, kind):
    passwd = sb.read("/etc/passwd")
    if "dovecot:" not in passwd:
        sb.write("/etc/passwd", passwd + "dovecot:x:120:120::/nonexistent:/usr/sbin/nologin\n"
                 "dovenull:x:121:121::/nonexistent:/usr/sbin/nologin\n")
        sb.write("/etc/group", sb.read("/etc/group") + "dovecot:x:120:\ndovenull:x:121:\n")
    sb.write(DOVECOT_DIR + "/dovecot.conf", BASE_CONFIG.format(dir=DOVECOT_DIR))
    sb.write(DOVECOT_DIR + "/auth.conf.ext", shipped("auth-dravnik-%s.conf.ext" % kind))
    sb.write(DOVECOT_DIR + "/dravnik-auth.lua", shipped("dravnik-auth.lua"))


def logins(sb, checks):
    """For each (address, password): the IMAP and POP3 outcomes, through a
    Dovecot started for this run alone."""
    r = sb.run_raw([sb_python(), str(DRIVER), DOVECOT_DIR + "/dovecot.conf",
                    json.dumps(checks)], private_network=True, timeout=120)
    log = sb.read(DOVECOT_DIR + "/dovecot.log") if sb.exists(DOVECOT_DIR + "/dovecot.log") else ""
    assert r.rc == 0, (r, log)
    return json.loads(r.out), log


def sb_python():
    return "/usr/bin/python3"


def data(domain=DOMAIN, name="john", aliases=("alias.org",)):
    """The session mail data of the domain: one mail name with the alias
    info, and the domain's aliases."""
    return session(domain, aliases=aliases, mails={name: ["info"]})


def opened(outcome, body=MESSAGE.splitlines()[-1]):
    """Both protocols logged in and read the message."""
    return all(o["ok"] and body in o["body"] for o in outcome.values())


def refused(outcome):
    return not any(o["ok"] for o in outcome.values())


@pytest.fixture(params=["checkpassword", "lua"])
def server(request, mail_sandbox):
    """A domain with a domain alias, a mailbox with an alias and a message
    in it, and Dovecot set up with one of the shipped configurations."""
    sb = mail_sandbox
    add_domain(sb)
    add_mailname(sb, "john")
    ok(sb, "--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=john", "--wait-stdin",
       stdin=data(), env={"ZON_PASSWORD": "s3cret pass"})
    ok(sb, "--add-alias", "--domain-name=" + DOMAIN, "--mailname=john", "--alias=info",
       "--wait-stdin", stdin=data())
    ok(sb, "--add-domain-alias", "--domain-name=" + DOMAIN, "--domain-alias-name=alias.org",
       "--set-reject", "--wait-stdin", stdin=data(aliases=()))
    assert sb.deliver(ROOT + "/john", MESSAGE) == 0
    install_dovecot(sb, request.param)
    return sb


def test_mailbox_opens_with_its_password_and_nothing_else(server):
    sb = server
    idn = "xn--bcher-kva.example"
    add_domain(sb, idn)
    add_mailname(sb, "anna", idn)
    ok(sb, "--add-mailbox", "--domain-name=" + idn, "--mailname=anna", "--mail-addresses",
       "anna", env={"ZON_PASSWORD": "idn pass"})
    assert sb.deliver("/var/qmail/mailnames/%s/anna" % idn, MESSAGE) == 0
    results, log = logins(sb, [
        ("anna@b\u00fccher.example", "idn pass"),
        ("john@example.com", "s3cret pass"),
        ("JOHN@Example.COM", "s3cret pass"),
        ("info@example.com", "s3cret pass"),      # alias
        ("john@alias.org", "s3cret pass"),        # domain alias
        ("john@example.com", "s3cret pasS"),
        ("john@example.com", "s3cret pass "),
        ("nobody@example.com", "s3cret pass"),
        ("john@unknown.org", "s3cret pass"),
        ("john@example.com", ""),
    ])
    assert [opened(r) for r in results[:5]] == [True] * 5, (results, log)
    assert [refused(r) for r in results[5:]] == [True] * 5, (results, log)
    assert "s3cret" not in log


def test_changes_by_the_commands_take_effect(server):
    sb = server
    ok(sb, "--set-password", "--domain-name=" + DOMAIN, "--mailname=john", "--wait-stdin",
       stdin=data(), env={"ZON_PASSWORD": "n3w"})
    results, log = logins(sb, [("john@example.com", "s3cret pass"),
                               ("john@example.com", "n3w"),
                               ("john@alias.org", "n3w")])
    assert [refused(results[0]), opened(results[1]), opened(results[2])] == [True] * 3, \
        (results, log)

    ok(sb, "--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
       "--new-mailname=jane", "--wait-stdin", stdin=data(), env={"ZON_PASSWORD": "n3w"})
    ok(sb, "--rename-domain", "--old-domain-name=" + DOMAIN, "--new-domain-name=new.org")
    results, log = logins(sb, [("jane@new.org", "n3w"), ("john@example.com", "n3w"),
                               ("jane@example.com", "n3w")])
    assert [opened(results[0]), refused(results[1]), refused(results[2])] == [True] * 3, \
        (results, log)

    hash_ = subprocess.run(["openssl", "passwd", "-6", "-salt", "saltsalt", "cr4pt"],
                           capture_output=True, text=True, check=True).stdout.strip()
    renamed = data("new.org", "jane")
    ok(sb, "--set-password", "--domain-name=new.org", "--mailname=jane", "--wait-stdin",
       stdin=renamed, env={"ZON_CRYPTED_PASSWORD": hash_})
    ok(sb, "--turn-off-domain", "--domain-name=new.org", "--wait-stdin", stdin=renamed)
    results, log = logins(sb, [("jane@new.org", "cr4pt")])
    assert refused(results[0]), (results, log)
    ok(sb, "--turn-on-domain", "--domain-name=new.org", "--set-reject", "--wait-stdin",
       stdin=renamed)
    results, log = logins(sb, [("jane@new.org", "cr4pt"), ("jane@new.org", hash_)])
    assert opened(results[0]) and refused(results[1]), (results, log)

    ok(sb, "--remove-mailbox", "--domain-name=new.org", "--mailname=jane", "--wait-stdin",
       stdin=renamed)
    results, log = logins(sb, [("jane@new.org", "cr4pt")])
    assert refused(results[0]), (results, log)


# -- the program alone ---------------------------------------------------------

KEY = "/var/lib/tavix/mail/auth/passwd_db_key"
DB = "/var/lib/tavix/mail/auth/passwd.db"
# Prints what the program run after a successful check sees.
REPORT = ["/bin/sh", "-c", 'echo "cwd=$(pwd) uid=$(id -u) gid=$(id -g)"; env']


def run_auth(sb, request, env=None, program=REPORT, wrap=None):
    """Runs dravnik-auth with `request` (bytes) on descriptor 3, None for
    no descriptor 3; gives the sandbox's result."""
    argv = [str(AUTH), *program]
    if request is not None:
        sb.write(RECORD_DIR + "/request", "")
        sb.path(RECORD_DIR + "/request").write_bytes(request)
        argv = ["/bin/sh", "-c", 'exec "$@" 3<%s/request' % RECORD_DIR, "sh", *argv]
    if wrap:
        argv = wrap + argv
    return sb.run_raw(argv, env=env)


@pytest.fixture
def mailbox(mail_sandbox):
    sb = mail_sandbox
    add_domain(sb)
    add_mailname(sb, "john")
    ok(sb, "--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=john", "--wait-stdin",
       stdin=data(aliases=()), env={"ZON_PASSWORD": "s3cret"})
    return sb


@pytest.mark.parametrize("request_bytes, status", [
    (None, 2),                                       # no descriptor 3
    (b"", 2),
    (b"john@example.com", 2),                        # no NUL at all
    (b"john@example.com\0s3cret", 2),                # the password's NUL missing
    (b"john@example.com\0s3cret\0" + b"x" * 489, 2),  # 513 bytes
    (b"john@example.com\0s3cret\0" + b"x" * 488, 0),  # 512 bytes
    (b"john@example.com\0s3cret\0\0", 0),
    (b"john@example.com\0wrong\0\0", 1),
    (b"john@example.com\0\0\0", 1),
    (b"nobody@example.com\0s3cret\0\0", 1),
    (b"john@example.com\0s3cret\0\0" + b"\0" * 100, 0),
    (b"\xff\xfe@\x01\0s3cret\0\0", 1),
])
def test_interface_statuses(mailbox, request_bytes, status):
    r = run_auth(mailbox, request_bytes)
    assert r.rc == status, r
    assert "s3cret" not in r.err
    assert ("USER=john@example.com" in r.out) == (status == 0), r


def test_qmail_mode_runs_the_program_in_the_mailbox_as_popuser(mailbox):
    r = run_auth(mailbox, b"John@Example.com\0s3cret\0<1.2@host>\0")
    assert r.rc == 0, r
    env = dict(line.split("=", 1) for line in r.out.splitlines()[1:] if "=" in line)
    assert r.out.splitlines()[0] == "cwd=%s/john uid=110 gid=110" % ROOT
    assert (env["USER"], env["HOME"]) == ("john@example.com", ROOT + "/john")
    assert "s3cret" not in r.out and "EXTRA" not in env


@pytest.mark.parametrize("env, request_bytes, authorized", [
    ({"SERVICE": "imap", "ORIG_UID": "0"}, b"john@example.com\0s3cret\0\0", None),
    ({"AUTHORIZED": "1", "ORIG_UID": "0"}, b"john@example.com\0\0\0", "2"),
])
def test_dovecot_mode_hands_back_user_fields(mailbox, env, request_bytes, authorized):
    r = run_auth(mailbox, request_bytes, env=env)
    assert r.rc == 0, r
    fields = dict(line.split("=", 1) for line in r.out.splitlines()[1:] if "=" in line)
    assert r.out.splitlines()[0] == "cwd=/ uid=0 gid=0"
    assert fields["EXTRA"] == "userdb_uid userdb_gid userdb_mail"
    assert (fields["userdb_uid"], fields["userdb_gid"]) == ("110", "110")
    assert fields["userdb_mail"] == "maildir:%s/john/Maildir" % ROOT
    assert fields.get("AUTHORIZED") == authorized
    assert "s3cret" not in r.out


def test_user_lookup_refuses_what_a_login_would(mailbox):
    ok(mailbox, "--turn-off-domain", "--domain-name=" + DOMAIN, "--wait-stdin",
       stdin=data(aliases=()))
    for name in (b"john", b"nobody"):
        r = run_auth(mailbox, name + b"@example.com\0\0\0", env={"AUTHORIZED": "1"})
        assert r.rc == 1, r


def test_unreadable_key_and_database_are_temporary(mailbox):
    sb = mailbox
    key = sb.path(KEY).read_bytes()
    request = b"john@example.com\0s3cret\0\0"
    sb.path(KEY).unlink()
    assert run_auth(sb, request).rc == 111
    sb.path(KEY).mkdir()
    assert run_auth(sb, request).rc == 111
    sb.path(KEY).rmdir()
    sb.path(KEY).write_bytes(key)
    assert run_auth(sb, request).rc == 0
    # Another run holding the database's write lock beyond the wait.
    holder = ("import sqlite3, subprocess, sys\n"
              "c = sqlite3.connect(%r, isolation_level=None)\n"
              "c.execute('BEGIN EXCLUSIVE')\n"
              "sys.exit(subprocess.run(sys.argv[1:]).returncode)\n" % DB)
    assert run_auth(sb, request, wrap=["/usr/bin/python3", "-c", holder]).rc == 111
    assert run_auth(sb, request).rc == 0
    sb.write(DB, "not a database\n", mode=0o640)
    assert run_auth(sb, request).rc == 111


def test_home_comes_from_users_cdb_only_while_every_edit_is_compiled(mailbox):
    """An alias moved to another mail name while the compiles failed: the
    users/cdb of before still gives it the old mail name's home, so the
    home then comes from users/assign; once a compile succeeds again it
    comes from users/cdb, without reading users/assign."""
    sb = mailbox
    add_mailname(sb, "mary")
    ok(sb, "--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=mary", "--wait-stdin",
       stdin=data(name="mary", aliases=()), env={"ZON_PASSWORD": "m4ry"})

    def alias(word, owner):
        return ["--%s-alias" % word, "--domain-name=" + DOMAIN, "--mailname=" + owner,
                "--alias=sales", "--mail-addresses", owner + ("" if word == "add" else ",sales")]

    def login(password):
        r = run_auth(sb, b"sales@example.com\0" + password + b"\0\0",
                     wrap=[STRACE, "-f", "-o", "/dev/stderr", "-e", "trace=openat,openat2"],
                     env={"ASAN_OPTIONS": "detect_leaks=0"})
        assert r.rc == 0, r
        home = [line for line in r.out.splitlines() if line.startswith("HOME=")]
        # Files are opened by name in their directory, opened first.
        return home, '"assign"' in r.err, '"cdb"' in r.err

    ok(sb, *alias("add", "john"))
    assert login(b"s3cret") == (["HOME=%s/john" % ROOT], False, True)

    for args in (alias("remove", "john"), alias("add", "mary")):
        calls = len(sb.path(NEWU_LOG).read_text().splitlines())
        sb.set_newu_fail(calls + 1, "unable to write users/cdb.tmp")
        assert sb.run(*args).rc == 1
    sb.set_newu_fail(None, None)
    assert login(b"m4ry") == (["HOME=%s/mary" % ROOT], True, False)

    ok(sb, "--add-alias", "--domain-name=" + DOMAIN, "--mailname=mary", "--alias=info",
       "--mail-addresses", "mary")
    assert login(b"m4ry") == (["HOME=%s/mary" % ROOT], False, True)


def test_a_compiled_line_is_judged_as_the_line_in_users_assign(mailbox):
    """A home that breaks qmail's format (not an absolute path) is no
    mailbox, whether it comes from users/cdb or from users/assign."""
    sb = mailbox
    assign = "/var/qmail/users/assign"
    sb.write(assign, sb.read(assign).replace(":%s/john:" % ROOT, ":relative/john:"))
    # A counted edit and its compile: users/cdb holds the line and is current.
    ok(sb, "--add-alias", "--domain-name=" + DOMAIN, "--mailname=john", "--alias=info",
       "--mail-addresses", "john")
    r = run_auth(sb, b"john@example.com\0s3cret\0\0", env={"SERVICE": "imap"})
    assert r.rc == 1, r
    assert "HOME=" not in r.out
