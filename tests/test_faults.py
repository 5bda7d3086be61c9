"""A disk that fills up, runs out of inodes or turns read-only, under qmail's
files or under the databases, while a command or a batch runs: the run fails
with status 1 and says why, nothing stored is lost or torn, and once the
fault is mended the same run again ends as an undisturbed run of it does.

Each case runs on a copy of one prepared server whose /var/qmail or
/var/lib/tavix/mail is a small file system of its own (Sandbox.limit());
the undisturbed run it is compared with has the same file system, with
room, since a directory's size (which mailbox quotas count) differs between
file systems."""

import contextlib
import dataclasses
import hashlib
import json
import sqlite3

import pytest

import sandbox as sandbox_module
from conftest import sandbox_copy
from test_batch import AUTH_KEY, BATCH, INPUT, run_batch
from test_cipher import python_decrypt
from test_domain_commands import AUTH_DB, DOMAIN, HANDLERS_DB, add_handler, session
from test_domain_commands import mail_state as raw_mail_state

QMAIL = "/var/qmail"
DATABASES = "/var/lib/tavix/mail"
PASSWORD = {"ZON_PASSWORD": "secret"}
MAILS = {"john": ["info"], "jane": []}

# What each fault does to the file system at a place, and how it is mended.
FAULTS = {
    "full": lambda sb, place: sb.set_free(place, free=0),
    "no-inodes": lambda sb, place: sb.set_free(place, inodes=0),
    "read-only": lambda sb, place: sb.read_only(place),
}

# name: (arguments, environment, standard input)
COMMANDS = {
    "add-domain": (["--add-domain", "--domain-name=other.example", "--wait-stdin"], None,
                   session("other.example")),
    "add-domain-alias": (["--add-domain-alias", "--domain-name=" + DOMAIN,
                          "--domain-alias-name=alias.example", "--mail-addresses", "john,jane",
                          "--set-reject"], None, None),
    "add-mailname": (["--add-mailname", "--domain-name=" + DOMAIN, "--mailname=anna",
                      "--disk-quota=100000"], None, None),
    "add-mailbox": (["--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=jane",
                     "--mail-addresses", "jane"], PASSWORD, None),
    "set-password": (["--set-password", "--domain-name=" + DOMAIN, "--mailname=john",
                      "--mail-addresses", "john,info"], {"ZON_PASSWORD": "new secret"}, None),
    "rename-mailname": (["--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
                         "--new-mailname=jack", "--mail-addresses", "john,info"], None, None),
    "rename-domain": (["--rename-domain", "--old-domain-name=" + DOMAIN,
                       "--new-domain-name=renamed.example"], None, None),
    "remove-mailname": (["--remove-mailname", "--domain-name=" + DOMAIN, "--mailname=john",
                         "--wait-stdin"], None, session(mails=MAILS)),
    "remove-domain": (["--remove-domain", "--domain-name=" + DOMAIN, "--wait-stdin"], None,
                      session(mails=MAILS)),
    "set-quota": (["--set-mailbox-disk-quota", "--domain-name=" + DOMAIN, "--mailname=john",
                   "--disk-quota=2048000", "--wait-stdin"], None, session(mails=MAILS)),
}


def batch_lines(count):
    """Mail names u00, u01, ... each added with a quota and given a mailbox."""
    lines = []
    for k in range(count):
        name = "u%02d" % k
        lines.append({"argv": ["--add-mailname", "--domain-name=" + DOMAIN, "--mailname=" + name,
                               "--disk-quota=100000"]})
        lines.append({"argv": ["--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=" + name,
                               "--mail-addresses", name], "password": "secret"})
    return [json.dumps(line) + "\n" for line in lines]


# A batch of every kind of held work: shared files, quota files, both
# databases; a checkpoint closes in the middle and at the end.
BATCH_LINES = batch_lines(2) + [json.dumps(line) + "\n" for line in (
    {"argv": ["--set-password", "--domain-name=" + DOMAIN, "--mailname=john",
              "--mail-addresses", "john,info"], "password": "new secret"},
    {"argv": ["--set-mailbox-disk-quota", "--domain-name=" + DOMAIN, "--mailname=john",
              "--disk-quota=2048000", "--wait-stdin"], "stdin": json.loads(session(mails=MAILS))},
    {"argv": ["--add-domain-alias", "--domain-name=" + DOMAIN, "--domain-alias-name=alias.example",
              "--mail-addresses", "john", "--set-reject"]},
    {"argv": ["--remove-mailname", "--domain-name=" + DOMAIN, "--mailname=jane", "--wait-stdin"],
     "stdin": json.loads(session(mails=MAILS))},
)]
BATCH_OPTIONS = ("--stop-on-error", "--checkpoint", "3")


@pytest.fixture(scope="module")
def prepared(tmp_path_factory):
    """A served example.com with mailboxes john (alias info, a quota and a
    handler) and jane (a mail name without a mailbox yet)."""
    directory = tmp_path_factory.mktemp("faults")
    box = sandbox_module.Sandbox(directory / "server")
    box.init_databases()
    for args, env, stdin in (
            (["--add-domain", "--domain-name=" + DOMAIN, "--wait-stdin"], None, session()),
            (["--add-mailname", "--domain-name=" + DOMAIN, "--mailname=john",
              "--disk-quota=1024000"], None, None),
            (["--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=john",
              "--mail-addresses", "john"], PASSWORD, None),
            (["--add-alias", "--domain-name=" + DOMAIN, "--mailname=john", "--alias=info",
              "--mail-addresses", "john,info"], None, None),
            (["--add-mailname", "--domain-name=" + DOMAIN, "--mailname=jane",
              "--disk-quota=-1"], None, None)):
        r = box.run(*args, env=env, stdin=stdin)
        assert r.rc == 0, r
    add_handler(box, "john@" + DOMAIN)
    return box.root


@pytest.fixture
def server(prepared):
    yield from sandbox_copy(prepared)


@pytest.fixture
def reference(prepared):
    """A second copy of the server for the undisturbed run."""
    yield from sandbox_copy(prepared)


# ---------------------------------------------------------------------------
# What must hold after a failed run

def db_rows(sb, path):
    """A database's rows, one per line, sorted: domains by name, users by
    address with the stored passwords decrypted (each encryption draws a new
    IV), without row ids, which a record replaced gets anew."""
    db = sqlite3.connect("file:%s?immutable=1" % sb.path(path), uri=True)
    try:
        if path == HANDLERS_DB:
            rows = db.execute("SELECT * FROM handlers").fetchall()
        else:
            key = sb.path(AUTH_KEY).read_bytes()[:32]
            rows = db.execute("SELECT name, status FROM domains").fetchall() + [
                (d, u, python_decrypt(key, p) if p and p.startswith("$AES") else p, raw, st)
                for d, u, p, raw, st in db.execute(
                    "SELECT d.name, u.name, u.userPassword, u.cmusaslsecretPLAIN, u.status "
                    "FROM users u JOIN domains d ON u.dom_id = d.id")]
    finally:
        db.close()
    return "".join(sorted(repr(row) + "\n" for row in rows))


def mail_state(sb):
    """The snapshot without lock files, the databases as their rows."""
    state = raw_mail_state(sb)
    for path in (AUTH_DB, HANDLERS_DB):
        if path in state:
            text = db_rows(sb, path)
            state[path] = dataclasses.replace(
                state[path], text=text, digest=hashlib.sha256(text.encode()).hexdigest(), size=0)
    return state


def lines_of(entry):
    if entry is None or entry.kind != "file":
        return set()
    return set((entry.text or "").splitlines())


def assert_nothing_lost_or_torn(before, after, undisturbed):
    """Each file of before is whole after a failed run: as it was, or as the
    undisturbed run left it, or, for qmail's line files and the databases,
    made of their lines (rows) only, with no line that both keep missing."""
    problems = []
    for path, old in before.items():
        # users/cdb is compiled from users/assign, whatever state that is in.
        if old.kind != "file" or path == QMAIL + "/users/cdb":
            continue
        new, final = after.get(path), undisturbed.get(path)
        if new in (old, final):
            continue
        rows = path in (AUTH_DB, HANDLERS_DB) or \
            path.startswith((QMAIL + "/control/", QMAIL + "/users/assign"))
        if new is None or not rows:
            problems.append("%s: %s" % (path, "lost" if new is None else "neither old nor new"))
            continue
        got, was, will = (lines_of(e) for e in (new, old, final))
        if not got <= was | will:
            problems.append("%s: lines from nowhere: %s" % (path, sorted(got - was - will)))
        if not was & will <= got:
            problems.append("%s: lines lost: %s" % (path, sorted(was & will - got)))
    assign = after.get(QMAIL + "/users/assign")
    if assign is not None and ("\n" + (assign.text or "")).endswith("\n.\n") is False:
        problems.append("users/assign does not end with its '.' line")
    assert not problems, "\n".join(problems)


def check_failed_run(sb, r, before, after, undisturbed):
    assert r.rc in (0, 1), r
    # A run that did less than an undisturbed one says so, even where a step
    # that failed is only reported (a mail name's line that could not be
    # taken out of users/assign).
    if r.rc == 1 or after != undisturbed:
        assert r.err.strip(), r
    assert_nothing_lost_or_torn(before, after, undisturbed)


# ---------------------------------------------------------------------------
# The commands

@pytest.mark.parametrize("place", [QMAIL, DATABASES])
@pytest.mark.parametrize("fault", sorted(FAULTS))
@pytest.mark.parametrize("command", sorted(COMMANDS))
def test_command_meets_a_fault_and_runs_again(server, reference, command, fault, place):
    args, env, stdin = COMMANDS[command]
    reference.limit(place)
    r = reference.run(*args, env=env, stdin=stdin)
    assert r.rc == 0, r
    undisturbed = mail_state(reference)

    server.limit(place)
    before = mail_state(server)
    FAULTS[fault](server, place)
    r = server.run(*args, env=env, stdin=stdin)
    check_failed_run(server, r, before, mail_state(server), undisturbed)

    server.mend(place)
    r = server.run(*args, env=env, stdin=stdin)
    assert r.rc == 0, r
    assert mail_state(server) == undisturbed, \
        server.describe(server.changed_files(undisturbed, mail_state(server)))


def test_faults_fail_the_commands_that_meet_them(server):
    """The fault is real: a command that must write where it lies fails."""
    for place, command, cause in ((QMAIL, "add-mailname", "Read-only file system"),
                                  (DATABASES, "add-mailbox", "readonly database")):
        args, env, stdin = COMMANDS[command]
        server.limit(place)
        server.read_only(place)
        r = server.run(*args, env=env, stdin=stdin)
        assert r.rc == 1 and cause in r.err, r
        server.unlimit(place)


# ---------------------------------------------------------------------------
# A batch

@pytest.mark.parametrize("place", [QMAIL, DATABASES])
@pytest.mark.parametrize("fault", sorted(FAULTS))
def test_batch_meets_a_fault_and_runs_again(server, reference, fault, place):
    reference.limit(place)
    r = run_batch(reference, BATCH_LINES, *BATCH_OPTIONS)
    assert r.rc == 0, r
    undisturbed = mail_state(reference)

    server.limit(place)
    # The batch's input is not what is being tested.
    server.write(INPUT, "".join(BATCH_LINES), mode=0o600)
    before = mail_state(server)
    FAULTS[fault](server, place)
    r = server.run_raw([str(BATCH), *BATCH_OPTIONS, INPUT])
    assert r.rc == 1, r
    assert r.err.strip() or '"status": 1' in r.out, r
    assert_nothing_lost_or_torn(before, mail_state(server), undisturbed)

    server.mend(place)
    r = server.run_raw([str(BATCH), *BATCH_OPTIONS, INPUT])
    assert r.rc == 0, r
    assert [json.loads(line)["status"] for line in r.out.splitlines()] == [0] * len(BATCH_LINES)
    assert mail_state(server) == undisturbed, \
        server.describe(server.changed_files(undisturbed, mail_state(server)))


def usage_after(sb, lines, free):
    """What /var/qmail holds after `lines` ran as a batch of checkpoints of
    6 on a copy of the server: bytes (free=True) or inodes."""
    sb.limit(QMAIL)
    r = run_batch(sb, lines, "--checkpoint", "6")
    assert r.rc == 0, r
    used = sandbox_module._usage(sb.path(QMAIL))
    sb.unlimit(QMAIL)
    return used[0 if free else 1]


@pytest.mark.parametrize("short", ["free", "inodes"])
def test_checkpoint_whose_close_failed_runs_again(prepared, server, reference, short):
    """20 lines, checkpoints of 6, a disk that has room for the commands of
    the second checkpoint but not for what its close writes: lines 7-12
    fail, the batch stops, and nothing of them is recorded or committed, so
    that the run after the disk is mended redoes them."""
    lines = batch_lines(10)
    options = ("--stop-on-error", "--checkpoint", "6")
    # Room for the commands of lines 1-12 and all but a page (an inode) of
    # what the close of their second checkpoint writes.
    with contextlib.contextmanager(sandbox_copy)(prepared) as measure:
        needed = usage_after(measure, lines[:12], short == "free")
    server.limit(QMAIL)
    used = sandbox_module._usage(server.path(QMAIL))[0 if short == "free" else 1]
    room = needed - used - (4096 if short == "free" else 1)
    server.set_free(QMAIL, **{short: room})

    r = run_batch(server, lines, *options)
    assert r.rc == 1, r
    report = [json.loads(line) for line in r.out.splitlines()]
    assert [(g["line"], g["status"]) for g in report] == \
        [(n, 0) for n in range(1, 7)] + [(n, 1) for n in range(7, 13)]
    assert all("could not" in g["output"] for g in report[6:]), report
    assert "lines 7 to 12 could not be closed" in r.err and "8 commands after them" in r.err, r
    # Their mail names have no line in users/assign and no record: the
    # databases were rolled back with the files that could not be written.
    assign = server.read(QMAIL + "/users/assign")
    users = set(row[0] for row in sqlite3.connect(server.path(AUTH_DB)).execute(
        "SELECT name FROM users"))
    for k in range(3, 6):
        assert "-u%02d:" % k not in assign and "u%02d" % k not in users
    assert {"u00", "u01", "u02"} <= users

    server.mend(QMAIL)
    r = run_batch(server, lines, *options)
    assert r.rc == 0, r
    assert [json.loads(line)["status"] for line in r.out.splitlines()] == [0] * 20

    reference.limit(QMAIL)
    r = run_batch(reference, lines, *options)
    assert r.rc == 0, r
    assert mail_state(server) == mail_state(reference), \
        server.describe(server.changed_files(mail_state(reference), mail_state(server)))
