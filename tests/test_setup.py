"""dravnik-setup run as root in a sandbox: an empty host prepared, a second
run that changes nothing, --check on broken hosts, --force, and the system
accounts."""

import os
import re
import shutil
from pathlib import Path

import pytest

from sandbox import GROUP, PASSWD, RECORD_DIR, REPO, changed_files
from test_domain_commands import query

SETUP = str(Path(os.environ.get("DRAVNIK_SETUP")
                 or REPO / "build" / "src" / "setup" / "dravnik-setup").absolute())

LOCKS = "/run/lock/files"
CONTROL = ["/var/qmail/control/" + n for n in ("rcpthosts", "virtualdomains", "locals")]
ASSIGN = "/var/qmail/users/assign"
MAILNAMES = "/var/qmail/mailnames"
AUTH = "/var/lib/tavix/mail/auth"
DB = AUTH + "/passwd.db"
KEY = AUTH + "/passwd_db_key"
HANDLERS = "/var/lib/tavix/mail/handlers/handlers.db"
POPUSER, NOFILES = 110, 111  # the sandbox's ids

# A ready host: path -> (kind, uid, gid, mode).
READY = {
    LOCKS: ("dir", 0, 0, 0o755),
    **{path: ("file", 0, 0, 0o644) for path in CONTROL + [ASSIGN]},
    MAILNAMES: ("dir", POPUSER, POPUSER, 0o755),
    AUTH: ("dir", 0, NOFILES, 0o750),
    DB: ("file", 0, NOFILES, 0o640),
    KEY: ("file", 0, NOFILES, 0o440),
    HANDLERS: ("file", 0, POPUSER, 0o640),
}


def run_setup(sb, *args):
    return sb.run_raw([SETUP, *args])


def attributes(sb, paths=READY):
    snap = sb.snapshot()
    return {p: (snap[p].kind, snap[p].uid, snap[p].gid, snap[p].mode) for p in paths if p in snap}


def add_rows(sb):
    query(sb, DB, "INSERT INTO domains (name) VALUES ('example.com')")
    query(sb, HANDLERS, "INSERT INTO handlers VALUES (5, 5, 1, 0, 'spam', 'a@example.com', "
                      "'/bin/true', 'none', 0)")


def without(text, *names):
    return "".join(l + "\n" for l in text.splitlines() if l.split(":")[0] not in names)


def test_prepares_an_empty_host_and_a_second_run_changes_nothing(sandbox):
    sb = sandbox
    for path in CONTROL + [ASSIGN]:
        os.unlink(sb.path(path))
    shutil.rmtree(sb.path(MAILNAMES))
    # A mount point of the sandbox, so it cannot go; it is given a wrong owner instead.
    os.chown(sb.path(LOCKS), POPUSER, POPUSER)

    r = run_setup(sb)
    assert (r.rc, r.err) == (0, ""), r
    assert attributes(sb) == READY
    assert all(path in r.out for path in READY), r.out
    assert [sb.read(p) for p in CONTROL + [ASSIGN]] == ["", "", "", ".\n"]
    assert len(sb.path(KEY).read_bytes()) == 32

    add_rows(sb)
    before = sb.snapshot()
    for args in ([], ["--check"]):
        r = run_setup(sb, *args)
        assert (r.rc, r.out, r.err) == (0, "", ""), r
        assert changed_files(before, sb.snapshot()) == []
    assert query(sb, DB, "SELECT name FROM domains") == [("example.com",)]
    assert query(sb, HANDLERS, "SELECT name FROM handlers") == [("spam",)]


BREAKAGES = [
    (lambda sb: os.chmod(sb.path(LOCKS), 0o700), LOCKS + ": mode 0700, expected 0755"),
    (lambda sb: os.unlink(sb.path(CONTROL[0])), CONTROL[0] + ": missing file"),
    (lambda sb: os.chown(sb.path(MAILNAMES), 0, POPUSER),
     MAILNAMES + ": owner root, expected popuser"),
    (lambda sb: os.chown(sb.path(AUTH), 0, 0), AUTH + ": group root, expected nofiles"),
    (lambda sb: os.chown(sb.path(KEY), POPUSER, NOFILES), KEY + ": owner popuser, expected root"),
]


@pytest.mark.parametrize("breakage, report", BREAKAGES, ids=[b[1] for b in BREAKAGES])
def test_check_reports_a_problem_that_a_run_repairs(mail_sandbox, breakage, report):
    sb = mail_sandbox
    breakage(sb)
    before = sb.snapshot()
    r = run_setup(sb, "--check")
    assert (r.rc, r.out) == (1, report + "\n"), r
    assert changed_files(before, sb.snapshot()) == []

    r = run_setup(sb)
    assert r.rc == 0 and report.split(":")[0] in r.out, r
    assert run_setup(sb, "--check").rc == 0
    assert attributes(sb) == READY


def test_force_makes_new_databases_and_key_and_keeps_the_old_files(mail_sandbox):
    sb = mail_sandbox
    add_rows(sb)
    old = {p: sb.path(p).read_bytes() for p in (DB, KEY, HANDLERS)}

    r = run_setup(sb, "--force")
    assert r.rc == 0, r
    assert "a new key makes every stored password unreadable" in r.err, r.err
    assert "dravnik --set-password" in r.err
    for path, content in old.items():
        kept = [n for n in os.listdir(sb.path(os.path.dirname(path)))
                if n.startswith(os.path.basename(path) + ".old-")]
        assert len(kept) == 1 and re.fullmatch(r".*\.old-\d{14}", kept[0]), kept
        kept_path = os.path.dirname(path) + "/" + kept[0]
        assert sb.path(kept_path).read_bytes() == content
        assert attributes(sb, [kept_path])[kept_path] == READY[path]
    assert sb.path(KEY).read_bytes() != old[KEY]
    assert query(sb, DB, "SELECT * FROM domains") == []
    assert query(sb, HANDLERS, "SELECT * FROM handlers") == []
    assert attributes(sb) == READY

    before = sb.snapshot()
    assert run_setup(sb).rc == 0
    assert changed_files(before, sb.snapshot()) == []


MISSING_ACCOUNTS = [
    # (users and groups removed, what is missing and how to create it)
    (("popuser",), ("popuser",), "account popuser", "useradd --system --user-group"),
    ((), ("nofiles",), "group nofiles", "groupadd --system nofiles"),
]


@pytest.mark.parametrize("users, groups, what, command", MISSING_ACCOUNTS,
                         ids=[" ".join(a[2:]) for a in MISSING_ACCOUNTS])
def test_a_missing_account_is_an_error_naming_it(sandbox, users, groups, what, command):
    sb = sandbox
    sb.write("/etc/passwd", without(PASSWD, *users))
    sb.write("/etc/group", without(GROUP, *groups))
    before = sb.snapshot()

    r = run_setup(sb)
    assert r.rc == 1 and r.out == "", r
    assert len(r.err.splitlines()) == 1, r.err
    assert r.err.startswith("dravnik-setup: %s is missing; create it with \"%s" % (what, command))
    assert "--create-accounts" in r.err
    r = run_setup(sb, "--check")
    assert r.rc == 1 and r.out.startswith("%s: missing (create it with \"%s" % (what, command)), r
    assert changed_files(before, sb.snapshot()) == []


# /etc is read-only in the sandbox and its passwd and group files are mount
# points, which useradd cannot rename over; so this run gets a writable copy
# of /etc in a mount namespace of its own, and hands the results out.
CREATE_ACCOUNTS = """
mount -t tmpfs tmpfs /mnt && cp -a /etc/. /mnt/ && mount --bind /mnt /etc || exit 99
"$1" --create-accounts
status=$?
cp /etc/passwd /etc/group {records}/ && exit $status
""".format(records=RECORD_DIR)


def test_create_accounts_makes_the_group_and_the_account(sandbox):
    sb = sandbox
    sb.write("/etc/passwd", without(PASSWD, "popuser"))
    sb.write("/etc/group", without(GROUP, "popuser", "nofiles"))
    r = sb.run_raw(["/bin/sh", "-c", CREATE_ACCOUNTS, "sh", SETUP])
    assert r.rc == 0, r
    assert "created group nofiles\ncreated account popuser\n" in r.out

    passwd, group = (sb.read(RECORD_DIR + "/" + n) for n in ("passwd", "group"))
    user = next(l.split(":") for l in passwd.splitlines() if l.startswith("popuser:"))
    groups = {l.split(":")[0]: l.split(":")[2] for l in group.splitlines()}
    assert groups["popuser"] == user[3] and "nofiles" in groups
    assert user[5:] == ["/var/qmail", "/usr/sbin/nologin"]
    # With the new accounts in place, the host prepared in that run is in order.
    sb.write("/etc/passwd", passwd)
    sb.write("/etc/group", group)
    r = run_setup(sb, "--check")
    assert (r.rc, r.out) == (0, ""), r


def assign_is_a_directory(sb):
    os.unlink(sb.path(ASSIGN))
    os.mkdir(sb.path(ASSIGN))


REFUSALS = [
    (None, ["--bogus"], "unrecognised option '--bogus'"),
    (None, ["stray"], "too many positional options"),
    (None, ["--check", "--force"], "cannot be combined"),
    (assign_is_a_directory, [], ASSIGN + ": not a regular file; move it out of the way"),
]


@pytest.mark.parametrize("breakage, args, message", REFUSALS, ids=[r[2] for r in REFUSALS])
def test_refusals_are_one_line_on_stderr_and_change_nothing(mail_sandbox, breakage, args,
                                                             message):
    sb = mail_sandbox
    if breakage:
        breakage(sb)
    before = sb.snapshot()
    r = run_setup(sb, *args)
    assert (r.rc, r.out) == (1, ""), r
    assert r.err.startswith("dravnik-setup: ") and message in r.err, r.err
    assert len(r.err.splitlines()) == 1, r.err
    assert changed_files(before, sb.snapshot()) == []
