"""The mail name, mailbox and quota commands, run for real in the sandbox.

Each test starts from a served domain example.com and checks what qmail,
the delivery agent and the mail server would see: users/assign, the
mailbox tree, .qmail, maildirsize, the authentication and handlers
databases and the runs of qmail-newu.
"""

import os
import stat

import pytest

from test_cipher import python_decrypt
from test_domain_commands import (AUTH_DB, DOMAIN, HANDLERS_DB, add_domain, add_handler,
                                  add_mailbox, add_mailname, break_db, handlers, ok, query,
                                  session)

ROOT = "/var/qmail/mailnames/" + DOMAIN
AUTH_KEY = "/var/lib/tavix/mail/auth/passwd_db_key"
POPUSER = 110
TREE = ["", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur", "/Maildir/.Spam",
        "/Maildir/.Spam/tmp", "/Maildir/.Spam/new", "/Maildir/.Spam/cur", "/@attachments"]
TRUE_ONLY = "| true\n"
DELIVERY = "| true\n| /usr/bin/deliverquota ./Maildir\n"
CRYPT_HASH = "$1$saltsalt$7R0lsUdcYyGMuDbzsO2Ow/"


def assign_line(name, home=None):
    return "=%s-%s:popuser:%d:%d:%s/%s:::" % (DOMAIN, name, POPUSER, POPUSER, ROOT, home or name)


def set_password(sb, name, mails, password="secret"):
    ok(sb, "--set-password", "--domain-name=" + DOMAIN, "--mailname=" + name,
       "--mail-addresses", mails, env={"ZON_PASSWORD": password})


def auth_rows(sb):
    """{address: (decrypted userPassword, cmusaslsecretPLAIN, user status)}."""
    key = sb.path(AUTH_KEY).read_bytes()[:32]
    rows = query(sb, AUTH_DB, "SELECT u.name || '@' || d.name, u.userPassword, "
                              "u.cmusaslsecretPLAIN, u.status FROM users u, domains d "
                              "WHERE u.dom_id = d.id")
    return {a: (enc and python_decrypt(key, enc), raw, st) for a, enc, raw, st in rows}


def quota_header(sb, name):
    return sb.read(ROOT + "/%s/Maildir/maildirsize" % name).split("\n")[0]


def limit_less_attachments(sb, name, quota):
    """The stored limit for `quota`: the empty @attachments directory counts."""
    return "%dS,0C" % (quota - sb.path(ROOT + "/%s/@attachments" % name).stat().st_size)


@pytest.fixture
def sb(mail_sandbox):
    add_domain(mail_sandbox)
    return mail_sandbox


# ---------------------------------------------------------------------------
# Mail names

@pytest.mark.parametrize("options, stdin, limit", [
    (["--default-domain-quota=-1"], None, lambda sb: "0S,0C"),
    (["--wait-stdin"], session(mails={"john": []}, quota=2097152),
     lambda sb: limit_less_attachments(sb, "john", 2097152)),
    (["--disk-quota=1048576"], None, lambda sb: limit_less_attachments(sb, "john", 1048576)),
    (["--disk-quota=0"], None, lambda sb: "1S,0C"),
    (["--disk-quota=-1"], None, lambda sb: "0S,0C"),
], ids=["no-quota", "session-default", "own-quota", "zero-blocks", "negative-unlimited"])
def test_add_mailname(sb, options, stdin, limit):
    r = ok(sb, "--add-mailname", "--domain-name=Example.COM", "--mailname=John", *options,
           stdin=stdin)
    assert r.newu_calls == [[]]
    assign = sb.read("/var/qmail/users/assign").splitlines()
    assert assign[0] == assign_line("john") and assign[-1] == "."
    for sub in TREE:
        st = sb.path(ROOT + "/john" + sub).stat()
        assert (stat.S_ISDIR(st.st_mode), stat.S_IMODE(st.st_mode), st.st_uid, st.st_gid) == \
            (True, 0o700, POPUSER, POPUSER), sub
    for name, text, mode in ((".qmail", TRUE_ONLY, 0o600),
                             ("Maildir/maildirsize", limit(sb) + "\n%12d%12d\n" % (0, 0), 0o644)):
        path = sb.path(ROOT + "/john/" + name)
        assert path.read_text() == text
        assert (stat.S_IMODE(path.stat().st_mode), path.stat().st_uid) == (mode, POPUSER)


def test_add_mailname_to_a_domain_without_directory_fails_and_undoes(mail_sandbox):
    before = mail_sandbox.read("/var/qmail/users/assign")
    r = mail_sandbox.run("--add-mailname", "--domain-name=nowhere.test", "--mailname=john",
                         "--disk-quota=100")
    assert r.rc == 1
    assert "Unable to make /var/qmail/mailnames/nowhere.test/john dir: " in r.err
    assert mail_sandbox.read("/var/qmail/users/assign") == before


def test_remove_mailname_takes_everything_of_the_name(sb):
    add_mailbox(sb, "john", mails="john,jd")
    set_password(sb, "john", "john,jd")
    add_mailbox(sb, "mary")
    add_handler(sb, "john@" + DOMAIN)
    add_handler(sb, "mary@" + DOMAIN)
    r = ok(sb, "--remove-mailname", "--domain-name=" + DOMAIN, "--mailname=john",
           "--mail-addresses", "john,jd")
    assert r.newu_calls == [[]]
    assert assign_line("john") not in sb.read("/var/qmail/users/assign")
    assert not sb.exists(ROOT + "/john") and sb.exists(ROOT + "/mary")
    assert list(auth_rows(sb)) == ["mary@" + DOMAIN]
    assert list(handlers(sb)) == [("spam", "mary@" + DOMAIN)]


def test_remove_mailname_keeps_alias_records_when_handlers_cannot_be_removed(sb):
    add_mailbox(sb, "john", mails="john,jd")
    set_password(sb, "john", "john,jd")
    break_db(sb, HANDLERS_DB)
    r = sb.run("--remove-mailname", "--domain-name=" + DOMAIN, "--mailname=john",
               "--mail-addresses", "john,jd")
    assert r.rc == 1
    assert "Unable to delete some handlers for this mailname: john@example.com" in r.err
    # The mail name's own record goes with the mail name; the walk over its
    # aliases does not run.
    assert assign_line("john") not in sb.read("/var/qmail/users/assign")
    assert auth_rows(sb) == {"jd@" + DOMAIN: ("secret", None, 0)}


@pytest.mark.parametrize("env, expected", [
    ({"ZON_PASSWORD": "new secret"}, ("secret", None, 0)),
    ({}, None),
], ids=["with-password", "without-password"])
def test_rename_mailname_moves_lines_tree_records_and_handlers(sb, env, expected):
    add_mailbox(sb, "john")
    add_handler(sb, "john@" + DOMAIN)
    # An alias: a second line into the mail name's directory.
    sb.write("/var/qmail/users/assign",
             assign_line("jd", "john") + "\n" + sb.read("/var/qmail/users/assign"))
    # The copies a killed rename left; the next one tidies them away.
    sb.write("/var/qmail/users/assign.mail.K1lled", "stale copy\n")
    sb.write(ROOT + "/john/.qmail.mail.K1lled", "stale copy\n")
    # Forwards naming the mail name follow it; a last line keeps its lack of newline.
    sb.write(ROOT + "/john/.qmail", DELIVERY + "&john@%s\n&john@a,john@b" % DOMAIN)
    r = ok(sb, "--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
           "--new-mailname=jane", "-D", "--mail-addresses", "john", env=env)
    assert r.newu_calls == [[]]
    assign = sb.read("/var/qmail/users/assign").splitlines()
    assert assign_line("jane") in assign and assign_line("jd", "jane") in assign
    assert not any("/john:" in line for line in assign)
    assert not sb.exists("/var/qmail/users/assign.mail.K1lled")
    assert not sb.exists(ROOT + "/jane/.qmail.mail.K1lled")
    assert not sb.exists(ROOT + "/john")
    assert sb.read(ROOT + "/jane/.qmail") == DELIVERY + "&jane@%s\n&jane@a,jane@b" % DOMAIN
    assert sb.path(ROOT + "/jane/Maildir/new").is_dir()
    # A rename keeps the stored password; without one the records go.
    assert auth_rows(sb) == ({"jane@" + DOMAIN: expected} if expected else {})
    assert list(handlers(sb)) == [("spam", "jane@" + DOMAIN)]


def test_rename_mailname_reports_handlers_left_behind(sb):
    add_mailbox(sb, "john")
    break_db(sb, HANDLERS_DB)
    r = sb.run("--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
               "--new-mailname=jane", "--mail-addresses", "john", env={"ZON_PASSWORD": "x"})
    assert (r.rc, r.newu_calls) == (1, [[]])
    assert "Unable to move mail handlers from john@example.com to jane@example.com" in r.err
    assert sb.exists(ROOT + "/jane")


# ---------------------------------------------------------------------------
# Mailboxes and passwords

@pytest.mark.parametrize("env, options, record, domain_status", [
    ({"ZON_PASSWORD": "s3cret pass"}, [], ("s3cret pass", None, 0), 0),
    ({"ZON_CRYPTED_PASSWORD": CRYPT_HASH}, [], (None, CRYPT_HASH, 0), 0),
    ({"ZON_PASSWORD": "plain", "ZON_CRYPTED_PASSWORD": CRYPT_HASH}, [], ("plain", None, 0), 0),
    ({"ZON_PASSWORD": "secret"}, ["-D"], ("secret", None, 0), 1),
], ids=["plain", "crypted", "plain-wins", "domain-disabled"])
def test_add_mailbox_stores_password_and_delivery(sb, env, options, record, domain_status):
    add_mailname(sb, "john")
    r = ok(sb, "--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=john", *options,
           "--mail-addresses", "john", env=env)
    assert r.newu_calls == []
    assert sb.read(ROOT + "/john/.qmail") == DELIVERY
    assert quota_header(sb, "john") == "0S,0C"
    assert auth_rows(sb) == {"john@" + DOMAIN: record}
    # The first record of a domain registers it, disabled with "-D".
    assert query(sb, AUTH_DB, "SELECT name, status FROM domains") == [(DOMAIN, domain_status)]


def test_add_mailbox_without_mail_name_leaves_no_record(sb):
    r = sb.run("--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=ghost",
               "--mail-addresses", "ghost", env={"ZON_PASSWORD": "secret"})
    assert r.rc == 1
    assert auth_rows(sb) == {}


def test_remove_mailbox_keeps_the_mail_name(sb):
    add_mailbox(sb, "john", mails="john,jd")
    set_password(sb, "john", "john,jd")
    assert len(auth_rows(sb)) == 2
    ok(sb, "--remove-mailbox", "--domain-name=" + DOMAIN, "--mailname=john",
       "--mail-addresses", "john,jd")
    assert sb.read(ROOT + "/john/.qmail") == TRUE_ONLY
    assert auth_rows(sb) == {}
    assert assign_line("john") in sb.read("/var/qmail/users/assign")


def test_set_password_reaches_aliases_and_domain_aliases(sb):
    add_mailbox(sb, "john")
    doc = session(mails={"john": ["jd"]}, aliases=["example.net"])
    ok(sb, "--set-password", "--domain-name=" + DOMAIN, "--mailname=john", "--wait-stdin",
       stdin=doc, env={"ZON_CRYPTED_PASSWORD": CRYPT_HASH})
    record = (None, CRYPT_HASH, 0)
    assert auth_rows(sb) == {a: record for a in ("john@example.com", "jd@example.com",
                                                 "john@example.net", "jd@example.net")}
    # Without a password the records are removed.
    ok(sb, "--set-password", "--domain-name=" + DOMAIN, "--mailname=john", "--wait-stdin",
       stdin=doc)
    assert auth_rows(sb) == {}


# ---------------------------------------------------------------------------
# Quotas and sizes

@pytest.mark.parametrize("quota, default, limit", [
    (1048576, "-1", lambda sb: limit_less_attachments(sb, "john", 1048576)),
    (-1, "2097152", lambda sb: limit_less_attachments(sb, "john", 2097152)),
    (-1, "-1", lambda sb: "0S,0C"),
], ids=["own", "reset-to-default", "reset-to-unlimited"])
def test_set_mailbox_disk_quota(sb, quota, default, limit):
    ok(sb, "--add-mailname", "--domain-name=" + DOMAIN, "--mailname=john", "--disk-quota=10")
    ok(sb, "--set-mailbox-disk-quota", "--domain-name=" + DOMAIN, "--mailname=john",
       "--disk-quota=%d" % quota, "--default-domain-quota=" + default)
    assert quota_header(sb, "john") == limit(sb)


def test_set_mailbox_disk_quota_of_missing_mailbox_fails(sb):
    r = sb.run("--set-mailbox-disk-quota", "--domain-name=" + DOMAIN, "--mailname=ghost",
               "--disk-quota=100", "--default-domain-quota=-1")
    assert r.rc == 1
    assert "unable to change to mbox folder /var/qmail/mailnames/example.com/ghost" in r.err


@pytest.mark.parametrize("quota", [1048576, -1])
def test_set_domain_disk_quota_applies_to_the_session_names(sb, quota):
    for name in ("john", "mary"):
        ok(sb, "--add-mailname", "--domain-name=" + DOMAIN, "--mailname=" + name,
           "--disk-quota=10")
    ok(sb, "--set-domain-disk-quota", "--domain-name=" + DOMAIN, "--disk-quota=%d" % quota,
       "--mail-addresses", "john")
    expected = limit_less_attachments(sb, "john", quota) if quota >= 0 else "0S,0C"
    assert quota_header(sb, "john") == expected
    assert quota_header(sb, "mary") == "1S,0C"  # 10 bytes less @attachments: blocked


def test_set_domain_disk_quota_refuses_data_of_another_domain(sb):
    r = sb.run("--set-domain-disk-quota", "--domain-name=" + DOMAIN, "--disk-quota=100",
               "--wait-stdin", stdin=session("example.org", mails={"john": []}))
    assert r.rc == 1
    assert ("Session mail DB info is invalid, expected one for domain 'example.com', "
            "got 'example.org'") in r.err


def mailbox_size(sb, *options):
    return sb.run("--get-mailbox-size", "--domain-name=" + DOMAIN, "--mailname=john", *options)


def test_delivered_mail_counts_in_the_mailbox_size(sb):
    add_mailbox(sb, "john")
    sb.write(ROOT + "/john/@attachments/part", "x" * 100)
    message = "Subject: hello\n\n" + "y" * 984  # 1000 bytes
    assert sb.deliver(ROOT + "/john", message) == 0
    assert len(os.listdir(sb.path(ROOT + "/john/Maildir/new"))) == 1

    attachments = [sb.path(ROOT + "/john/@attachments"),
                   sb.path(ROOT + "/john/@attachments/part")]
    r = mailbox_size(sb)
    assert (r.rc, r.out) == (0, str(1000 + sum(p.stat().st_size for p in attachments)))
    r = mailbox_size(sb, "--in-blocks")
    assert (r.rc, r.out) == (0, str(1000 + sum(p.stat().st_blocks * 512 for p in attachments)))


def test_delivery_over_the_stored_quota_is_refused(sb):
    add_mailbox(sb, "john")
    ok(sb, "--set-mailbox-disk-quota", "--domain-name=" + DOMAIN, "--mailname=john",
       "--disk-quota=0", "--default-domain-quota=-1")
    assert sb.deliver(ROOT + "/john", "Subject: hello\n\nbody\n") == 77
    assert os.listdir(sb.path(ROOT + "/john/Maildir/new")) == []


def test_size_of_a_missing_mailbox_is_reported_as_zero(sb):
    r = mailbox_size(sb)
    assert r.rc == 0 and r.out.endswith("Unable to calculate Maildir++ size: No such file or "
                                        "directory\nSystem error 2: No such file or directory\n0")
