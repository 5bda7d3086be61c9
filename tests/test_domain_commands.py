"""The domain commands, run for real in the sandbox: what they do to qmail's
files, the authentication and handlers databases, and to qmail itself
(qmail-newu runs and SIGHUPs to qmail-send).

The helpers at the top are shared by the other command tests."""

import json
import sqlite3

import pytest

from sandbox import changed_files

DOMAIN = "example.com"
AUTH_DB = "/var/lib/tavix/mail/auth/passwd.db"
HANDLERS_DB = "/var/lib/tavix/mail/handlers/handlers.db"
NOT_SPECIFIED = ('mandatory option "--set-bounce" or "--set-catchall" or "--set-reject" '
                 'is not specified')
NO_ACTION_LOG = ("Action for notexisting mail names is not specified "
                 "(--set-bounce/--set-catchall/--set-reject)")


# ---------------------------------------------------------------------------
# Helpers

def session(domain=DOMAIN, aliases=(), mails=None, quota=None):
    """The JSON session mail data of `domain`; `mails` maps a mail name to
    its aliases."""
    body = {"name": domain, "dom_aliases": list(aliases), "maillists": [],
            "mails": [{"name": n, "aliases": list(a)} for n, a in (mails or {}).items()]}
    if quota is not None:
        body["mbox_quota"] = quota
    return json.dumps({"domain": body})


def ok(sb, *args, **kwargs):
    r = sb.run(*args, **kwargs)
    assert r.rc == 0, r
    return r


def lines(sb, name):
    """The lines of a file under /var/qmail, [] when it does not exist."""
    path = "/var/qmail/" + name
    return sb.read(path).splitlines() if sb.exists(path) else []


def query(sb, db, sql, params=()):
    conn = sqlite3.connect(sb.path(db))
    try:
        with conn:  # commits
            return conn.execute(sql, params).fetchall()
    finally:
        conn.close()


def auth_domains(sb):
    """Domain name -> status (1 = disabled) of the authentication database."""
    return dict(query(sb, AUTH_DB, "SELECT name, status FROM domains"))


def auth_users(sb):
    """"name@domain" -> stored password of every authentication record."""
    return dict(query(sb, AUTH_DB, "SELECT u.name || '@' || d.name, COALESCE(u.userPassword, "
                      "u.cmusaslsecretPLAIN) FROM users u JOIN domains d ON u.dom_id = d.id"))


def add_auth_user(sb, mailname, domain=DOMAIN, password="secret"):
    """A record with a plain-text password, as a raw password is stored."""
    query(sb, AUTH_DB, "INSERT OR IGNORE INTO domains (name, status) VALUES (?, 0)", (domain,))
    query(sb, AUTH_DB, "INSERT INTO users (name, cmusaslsecretPLAIN, dom_id) "
          "SELECT ?, ?, id FROM domains WHERE name = ?", (mailname, password, domain))


def handlers(sb):
    """(handler name, address) -> enabled."""
    rows = query(sb, HANDLERS_DB, "SELECT name, address, enabled FROM handlers")
    return {(n, a): e for n, a, e in rows}


def add_handler(sb, address, name="spam"):
    query(sb, HANDLERS_DB, "INSERT INTO handlers (queue, type, enabled, priority, name, "
          "address, executable, context) VALUES (5, 5, 1, 0, ?, ?, '/bin/true', 'none')",
          (name, address))


def break_db(sb, path):
    """Replaces a database by a file SQLite refuses."""
    sb.write(path, "not a database\n", mode=0o640)


def add_domain(sb, domain=DOMAIN):
    return ok(sb, "--add-domain", "--domain-name=" + domain, "--wait-stdin",
              stdin=session(domain))


def add_mailname(sb, mailname, domain=DOMAIN):
    return ok(sb, "--add-mailname", "--domain-name=" + domain, "--mailname=" + mailname,
              "--disk-quota=-1")


def add_mailbox(sb, name, domain=DOMAIN, mails=None, password="secret"):
    add_mailname(sb, name, domain)
    ok(sb, "--add-mailbox", "--domain-name=" + domain, "--mailname=" + name,
       "--mail-addresses", mails or name, env={"ZON_PASSWORD": password})


def add_domain_alias(sb, alias, domain=DOMAIN, mails="john"):
    return ok(sb, "--add-domain-alias", "--domain-name=" + domain,
              "--domain-alias-name=" + alias, "--mail-addresses", mails, "--set-reject")


def qmail_effects(result):
    return len(result.newu_calls), result.hups


def mail_state(sb):
    """Everything but the lock files, which a run may leave behind."""
    return {p: e for p, e in sb.snapshot().items() if not p.startswith("/run/lock/")}


# ---------------------------------------------------------------------------
# Adding and removing

WILDCARD = "+example.com:popuser:110:110:/var/qmail/mailnames/example.com:::"
DEFAULT_BOUNCE = r"|bouncesaying This\ address\ no\ longer\ accepts\ mail."


# The quota is accepted and has no effect: both runs must give the same.
@pytest.mark.parametrize("quota", [(), ("--disk-quota=100",)], ids=["plain", "disk-quota"])
def test_add_domain(mail_sandbox, quota):
    sb = mail_sandbox
    sb.write("/var/qmail/control/locals", "localhost\nexample.com\n")
    sb.write("/var/qmail/control/rejectnonexist", "example.com\n")
    # An add killed while writing .qmail-default left its temporary file.
    stale = "/var/qmail/mailnames/example.com/.qmail-default.Xy12ab"
    sb.write(stale, "| stale\n")
    r = ok(sb, "--add-domain", "--domain-name=Example.COM", *quota, "--wait-stdin",
           stdin=session())
    assert not sb.path(stale).exists()
    assert qmail_effects(r) == (1, 1)
    assert lines(sb, "control/rcpthosts") == ["example.com"]
    assert lines(sb, "control/virtualdomains") == ["example.com:example.com"]
    assert lines(sb, "users/assign") == [WILDCARD, "."]
    # Bounced by default, so neither local nor rejected.
    assert lines(sb, "mailnames/example.com/.qmail-default") == [DEFAULT_BOUNCE]
    # The mail user's own, and nobody else's to read.
    for path, mode in (("", 0o700), ("/.qmail-default", 0o600)):
        st = sb.path("/var/qmail/mailnames/example.com" + path).stat()
        assert (st.st_uid, st.st_gid, st.st_mode & 0o7777) == (110, 110, mode), path
    assert lines(sb, "control/locals") == ["localhost"]
    assert lines(sb, "control/rejectnonexist") == []


# A fatal failure of an add names its own cause, not a step of the clean-up
# that follows it (which fails too, for the same reason), and leaves no
# half-added domain behind.
CLEANUP_MESSAGES = ("error while deleting from file assign",
                    "Unable to remove domain from virtualdomains file",
                    "Unable to remove domain mailbox record from assign file")


@pytest.mark.parametrize("broken, message", [
    ("users/assign", "Unable to add default string to assign file for mail domain"),
    ("control/rcpthosts", "Unable to add domain record to rcpthosts."),
    ("control/virtualdomains", "Unable to add record to virtualdomains."),
])
def test_failed_add_domain_names_the_first_cause(mail_sandbox, broken, message):
    sb = mail_sandbox
    path = sb.path("/var/qmail/" + broken)
    if broken == "users/assign":
        path.unlink()
    else:  # a directory in its place: neither readable as lines nor replaceable
        path.unlink(missing_ok=True)
        path.mkdir()
    r = sb.run("--add-domain", "--domain-name=example.com", "--wait-stdin", stdin=session())
    assert r.rc == 1, r
    last = [l for l in r.out.splitlines() if l and not l.startswith("System error")][-1]
    assert last == message, r.out
    assert not [m for m in CLEANUP_MESSAGES if m in r.out], r.out
    assert not sb.exists("/var/qmail/mailnames/example.com")
    for name, line in (("users/assign", WILDCARD), ("control/rcpthosts", "example.com")):
        assert name == broken or line not in lines(sb, name)


def test_remove_domain_with_its_alias_records_and_handlers(mail_sandbox):
    sb = mail_sandbox
    add_domain(sb)
    add_domain(sb, "other.example")
    add_mailname(sb, "john")
    add_auth_user(sb, "john")
    add_auth_user(sb, "mary", "other.example")
    add_domain_alias(sb, "a.example")
    for address in ("john@example.com", "mary@other.example"):
        add_handler(sb, address)
    add_handler(sb, "example.com", "wide")
    assert "john@a.example" in auth_users(sb)

    r = ok(sb, "--remove-domain", "--domain-name=example.com", "--domain-aliases=a.example",
           "--mail-addresses=john")
    assert qmail_effects(r) == (1, 1)
    assert "example.com" not in lines(sb, "control/rcpthosts")
    assert not any("example.com-" in l or l.startswith("+example.com:")
                   for l in lines(sb, "users/assign"))
    assert not sb.exists("/var/qmail/mailnames/example.com")
    assert lines(sb, "control/rejectnonexist") == []
    assert auth_users(sb) == {"mary@other.example": "secret"}
    assert list(handlers(sb)) == [("spam", "mary@other.example")]


# ---------------------------------------------------------------------------
# Turning a domain off and on again

def test_turn_domain_off_and_on(mail_sandbox):
    sb = mail_sandbox
    add_domain(sb)
    add_mailname(sb, "john")
    add_auth_user(sb, "john")
    add_handler(sb, "john@example.com")
    add_domain_alias(sb, "a.example")
    add_domain_alias(sb, "b.example")
    assigned = lines(sb, "users/assign")

    # One qmail refresh for the domain and all its aliases.
    r = ok(sb, "--turn-off-domain", "--domain-name=example.com", "--wait-stdin",
           stdin=session(aliases=["a.example", "b.example"], mails={"john": []}))
    assert qmail_effects(r) == (1, 1)
    assert lines(sb, "control/rcpthosts") == []
    assert lines(sb, "control/virtualdomains") == []
    assert lines(sb, "users/assign") == assigned
    assert auth_domains(sb) == {"example.com": 1}
    assert auth_users(sb) == {"john@example.com": "secret"}
    assert handlers(sb)[("spam", "john@example.com")] == 0

    r = ok(sb, "--turn-on-domain", "--domain-name=example.com",
           "--domain-aliases=a.example,b.example", "--mail-addresses=john", "--set-reject")
    assert qmail_effects(r) == (1, 1)
    assert sorted(lines(sb, "control/rcpthosts")) == ["a.example", "b.example", "example.com"]
    assert sorted(lines(sb, "control/virtualdomains")) == [
        "a.example:example.com", "b.example:example.com", "example.com:example.com"]
    assert auth_domains(sb) == {"example.com": 0, "a.example": 0, "b.example": 0}
    assert sorted(auth_users(sb)) == ["john@a.example", "john@b.example", "john@example.com"]
    assert handlers(sb)[("spam", "john@example.com")] == 1


@pytest.mark.parametrize("action, rejected", [
    (("--set-reject",), True),
    (("--set-bounce", "--phrase=No such user", "--set-reject"), False),
    (("--set-catchall", "--email=all@example.org", "--set-reject"), False),
    (("--set-catchall", "--email=all@example.org"), False),
], ids=["reject", "bounce-wins", "catchall-wins", "catchall"])
def test_turn_on_action_decides_whether_aliases_are_rejected(mail_sandbox, action, rejected):
    sb = mail_sandbox
    add_domain(sb)
    ok(sb, "--turn-on-domain", "--domain-name=example.com", "--domain-aliases=a.example",
       "--mail-addresses", "", *action)
    assert "a.example:example.com" in lines(sb, "control/virtualdomains")
    assert ("a.example" in lines(sb, "control/rejectnonexist")) == rejected


# ---------------------------------------------------------------------------
# Failures

# Without a usable action for names that do not exist, nothing is changed.
@pytest.mark.parametrize("args, message", [
    (("--turn-on-domain",), NOT_SPECIFIED),
    (("--turn-on-domain", "--phrase=gone", "--email=all@example.org"), NOT_SPECIFIED),
    (("--turn-on-domain", "--set-catchall", "--email", ""),
     'mandatory option "--email" is not specified'),
    (("--add-domain-alias", "--domain-alias-name=b.example"), NOT_SPECIFIED),
    (("--rename-domain-alias", "--old-domain-alias-name=a.example",
      "--new-domain-alias-name=b.example"), NOT_SPECIFIED),
], ids=["none", "values-without-switch", "empty-email", "add-alias", "rename-alias"])
def test_without_usable_action_nothing_changes(mail_sandbox, args, message):
    sb = mail_sandbox
    add_domain(sb)
    add_domain_alias(sb, "a.example", mails="")
    before = mail_state(sb)
    r = sb.run(args[0], "--domain-name=example.com", *args[1:], "--domain-aliases=a.example",
               "--mail-addresses", "")
    assert r.rc == 1, r
    assert message in r.out and message in r.err
    assert (NO_ACTION_LOG in r.err) == (message == NOT_SPECIFIED)
    assert qmail_effects(r) == (0, 0)
    assert changed_files(before, mail_state(sb)) == []


# The databases are changed after qmail's files: a database that cannot be
# used fails the command, but qmail has already been told about the change.
@pytest.mark.parametrize("args, message, gone", [
    (("--turn-off-domain",), "Unable to disable auth records for domain example.com",
     "example.com"),
    (("--remove-domain",), "Unable to remove auth record for domain example.com", "example.com"),
    (("--del-domain-alias", "--domain-alias-name=a.example"), "Unable to remove domain aliases",
     "a.example"),
    (("--rename-domain-alias", "--old-domain-alias-name=a.example",
      "--new-domain-alias-name=b.example", "--set-bounce"), "Unable to remove domain aliases",
     "a.example"),
], ids=["turn-off", "remove-domain", "del-alias", "rename-alias"])
def test_auth_failure_after_qmail_changes(mail_sandbox, args, message, gone):
    sb = mail_sandbox
    add_domain(sb)
    add_domain_alias(sb, "a.example", mails="")
    break_db(sb, AUTH_DB)
    r = sb.run(args[0], "--domain-name=example.com", *args[1:], "--mail-addresses", "")
    assert r.rc == 1, r
    assert message in r.err
    assert qmail_effects(r) == (1, 1)
    assert gone + ":example.com" not in lines(sb, "control/virtualdomains")


def test_turn_on_enables_auth_records_even_when_handlers_fail(mail_sandbox):
    sb = mail_sandbox
    add_domain(sb)
    add_auth_user(sb, "john")
    ok(sb, "--turn-off-domain", "--domain-name=example.com", "--mail-addresses", "")
    break_db(sb, HANDLERS_DB)
    r = sb.run("--turn-on-domain", "--domain-name=example.com", "--domain-aliases=a.example",
               "--mail-addresses=john", "--set-reject")
    assert r.rc == 1, r
    assert qmail_effects(r) == (1, 1)
    # The alias's records were copied from the still disabled domain.
    assert auth_domains(sb) == {"example.com": 0, "a.example": 0}
