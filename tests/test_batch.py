"""dravnik-batch: a list of commands in one run leaves what the same
commands leave when run one by one, also when the batch is killed and run
again; bad input is refused with a clear message."""

import json
import os
import random
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

import sandbox as sandbox_module
from test_cipher import python_decrypt
from test_domain_commands import AUTH_DB, HANDLERS_DB, query, session

BATCH = Path(os.environ.get("DRAVNIK_BATCH") or
             sandbox_module.Sandbox.default_dravnik().parent.parent / "batch" / "dravnik-batch")
AUTH_KEY = "/var/lib/tavix/mail/auth/passwd_db_key"
INPUT = "/var/lib/tavix/batch.jsonl"
CRYPT_HASH = "$1$saltsalt$7R0lsUdcYyGMuDbzsO2Ow/"


# ---------------------------------------------------------------------------
# The script: per domain, the rows of this table in turn. "{m}" is a mail
# name, "{a}" its alias; a row with "each" runs for every mail name.

TABLE = [
    ("once", ["--add-domain"], None),
    ("once", ["--add-domain-alias", "--domain-alias-name=alias-{d}", "--set-reject"], None),
    ("each", ["--add-mailname", "--mailname={m}"], None),
    ("each", ["--add-mailbox", "--mailname={m}"], "password"),
    ("each", ["--set-mailbox-disk-quota", "--mailname={m}", "--disk-quota=2048000"], None),
    ("each", ["--add-alias", "--mailname={m}", "--alias={a}"], None),
    ("once", ["--set-password", "--mailname=m1"], "new secret"),
    ("once", ["--rename-mailname", "--old-mailname=m2", "--new-mailname=r2"], "renamed"),
    ("once", ["--remove-alias", "--mailname=m3", "--alias=a3"], None),
    ("once", ["--rename-mailname", "--old-mailname=m3", "--new-mailname=r3"], "renamed"),
    ("once", ["--remove-mailbox", "--mailname=m4"], None),
    ("once", ["--remove-mailname", "--mailname=m5"], None),
    ("once", ["--turn-off-domain"], None),
    ("once", ["--set-password", "--mailname=m6"], "while off"),
    ("once", ["--turn-on-domain"], None),
    ("once", ["--set-domain-disk-quota", "--disk-quota=100000000"], None),
    ("once", ["--get-mailbox-size", "--mailname=m7"], None),
    # Failures: a bad name, a mail name that is not there, a missing option.
    ("once", ["--add-alias", "--mailname=m8", "--alias=bad name"], None),
    ("once", ["--remove-mailname", "--mailname=nobody"], None),
    ("once", ["--add-mailbox"], "x"),
    # The help of a command run before prints its whole option list again.
    ("once", ["--set-mailbox-disk-quota", "--help"], None),
    ("once", ["--del-domain-alias", "--domain-alias-name=alias-{d}"], None),
]
MAILS = 21


def script(domains):
    """The JSON lines, and the session document each command reads."""
    commands = []
    state = {}
    for n, domain in enumerate(domains):
        state[domain] = {}
        for kind, argv, password in TABLE:
            for k in range(MAILS) if kind == "each" else [0]:
                words = [w.format(d=domain, m="m%d" % k, a="a%d" % k) for w in argv]
                command = {"argv": [words[0], "--domain-name=" + domain] + words[1:] +
                           ["--wait-stdin"],
                           "stdin": json.loads(session(domain, ["alias-" + domain],
                                                       state[domain]))}
                if password:
                    # Both kinds: every third one a crypt hash.
                    key = "crypted_password" if (k or n) % 3 == 2 else "password"
                    command[key] = CRYPT_HASH if key == "crypted_password" else password
                commands.append(command)
                if words[0] == "--add-mailname":
                    state[domain][words[1].split("=")[1]] = ["a%d" % k]
    commands.append({"argv": ["--rename-domain", "--old-domain-name=" + domains[-1],
                              "--new-domain-name=renamed.test"]})
    commands.append({"argv": ["--add-mailname", "--domain-name=renamed.test",
                              "--mailname=after", "--disk-quota=-1"]})
    commands.append({"argv": ["--remove-domain", "--domain-name=" + domains[0], "--wait-stdin"],
                     "stdin": json.loads(session(domains[0], [], state[domains[0]]))})
    return commands


# Runs each command as its own dravnik process, inside one sandbox session
# (a session per command would cost more than the commands): its two
# streams in one, as the batch keeps them.
ALONE = """
import json, subprocess, sys
out = []
for c in json.load(open(sys.argv[2])):
    env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
    for key, name in (("password", "ZON_PASSWORD"), ("crypted_password", "ZON_CRYPTED_PASSWORD")):
        if key in c:
            env[name] = c[key]
    stdin = json.dumps(c["stdin"]).encode() if "stdin" in c else b""
    r = subprocess.run([sys.argv[1]] + c["argv"], input=stdin, env=env,
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    out.append([r.returncode, r.stdout.decode()])
json.dump(out, sys.stdout)
"""


def run_alone(sb, commands):
    sb.write("/var/lib/tavix/alone.json", json.dumps(commands), mode=0o600)
    r = sb.run_raw(["/usr/bin/python3", "-c", ALONE, str(sb.dravnik),
                    "/var/lib/tavix/alone.json"], timeout=600)
    assert r.rc == 0, r
    return [tuple(x) for x in json.loads(r.out)]


def run_batch(sb, lines, *options, timeout=600):
    sb.write(INPUT, "".join(lines), mode=0o600)
    return sb.run_raw([str(BATCH), *options, INPUT], timeout=timeout)


def normal(output):
    """Syslog's copies on standard error carry the process id."""
    return re.sub(r"^dravnik\[\d+\]: ", "dravnik: ", output, flags=re.M)


def state(sb):
    """What the commands leave: qmail's files byte for byte, the mail tree
    (names, owners, modes, contents) and the database rows without row ids,
    passwords decrypted."""
    files = {}
    for top in ("/var/qmail/control", "/var/qmail/users", "/var/qmail/mailnames"):
        for dirpath, dirnames, filenames in os.walk(sb.path(top)):
            for name in dirnames + filenames:
                path = os.path.join(dirpath, name)
                st = os.lstat(path)
                body = Path(path).read_bytes() if name in filenames else None
                files[os.path.relpath(path, sb.root)] = (st.st_mode, st.st_uid, st.st_gid, body)
    key = sb.path(AUTH_KEY).read_bytes()[:32]
    users = query(sb, AUTH_DB, "SELECT d.name, d.status, u.name, u.userPassword, "
                               "u.cmusaslsecretPLAIN, u.status FROM users u JOIN domains d "
                               "ON u.dom_id = d.id")
    users = sorted((d, ds, u, p and p.startswith("$AES") and python_decrypt(key, p) or p,
                    raw, us) for d, ds, u, p, raw, us in users)
    domains = sorted(query(sb, AUTH_DB, "SELECT name, status FROM domains"))
    handlers = sorted(query(sb, HANDLERS_DB, "SELECT * FROM handlers"))
    return files, users, domains, handlers


def differences(one, other):
    """The paths and database tables in which two states differ."""
    files, rows = one[0], other[0]
    paths = sorted(p for p in set(files) | set(rows) if files.get(p) != rows.get(p))
    tables = [name for name, a, b in zip(("users", "domains", "handlers"), one[1:], other[1:])
              if a != b]
    return paths + tables


def temporaries(sb):
    """Temporary files of users/assign, the control files, the .qmail files
    and maildirsize."""
    return [p for p in state(sb)[0] if re.search(
        r"\.tmp$|\.mail\.\w{6}$|/\.qmail(-default)?\.\w{6}$|/Maildir/tmp/[^/]*-maildirsize$", p)]


@pytest.fixture
def boxes(host_before):
    made = [sandbox_module.Sandbox() for _ in range(2)]
    try:
        for box in made:
            box.init_databases()
        yield made
    finally:
        for box in made:
            box.cleanup()


SCRIPT = script(["one.test", "two.test", "three.test"])
LINES = [json.dumps(c) + "\n" for c in SCRIPT]


def test_batch_equals_separate_runs(boxes):
    alone, batched = boxes
    expected = run_alone(alone, SCRIPT)
    r = run_batch(batched, LINES, "--checkpoint", "40")
    assert r.rc == 1, r  # the script has failures
    got = [json.loads(line) for line in r.out.splitlines()]
    assert [g["line"] for g in got] == list(range(1, len(SCRIPT) + 1))
    assert [(g["status"], normal(g["output"])) for g in got] == \
        [(rc, normal(out)) for rc, out in expected]
    assert 0 < sum(rc != 0 for rc, _ in expected) < len(SCRIPT) // 10
    assert not differences(state(batched), state(alone))
    # One compile per checkpoint, not one per command.
    assert len(r.newu_calls) < len(SCRIPT) // 10
    assert not temporaries(batched)


def test_killed_batches_run_again_end_as_one_uninterrupted_run(boxes):
    whole, killed = boxes
    # With mail name renames: "add m2, rename m2 to r2" must not run twice.
    lines = LINES[50:150]
    assert sum('"--rename-mailname"' in line for line in lines) == 2
    started = time.monotonic()
    assert run_batch(whole, lines, "--checkpoint", "10").rc == 1
    duration = time.monotonic() - started
    expected = state(whole)

    def finished(sb):
        r = run_batch(sb, lines, "--checkpoint", "10")
        assert r.rc == 1 and [json.loads(o)["line"] for o in r.out.splitlines()] == \
            list(range(1, len(lines) + 1))
        assert not differences(state(sb), expected)
        assert not temporaries(sb)

    # Each run goes on where the killed one stopped; once one gets to the
    # end, the box is checked and the batch starts over from a fresh box.
    killed.write(INPUT, "".join(lines), mode=0o600)
    pristine = killed.dir / "pristine"
    subprocess.run(["cp", "-a", str(killed.root), str(pristine)], check=True)
    rng = random.Random(14)
    command = killed.bwrap_args() + [str(BATCH), "--checkpoint", "10", INPUT]
    kills = 0
    while kills < 50:
        proc = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                start_new_session=True)
        time.sleep(rng.uniform(0.05, duration / 3))
        os.killpg(proc.pid, signal.SIGKILL)
        out = proc.communicate()[0]
        reported = len(out.splitlines())
        if proc.returncode == -signal.SIGKILL and reported < len(lines):
            kills += 1
            continue
        assert reported == len(lines), out
        finished(killed)
        shutil.rmtree(killed.root)
        subprocess.run(["cp", "-a", str(pristine), str(killed.root)], check=True)
    finished(killed)


@pytest.mark.parametrize("text,mode,message", [
    ('{"argv": ["--add-domain", "--domain-name=ok.test"\n', 0o600, "not a JSON object"),
    ('{"argv": []}\n', 0o600, 'no "argv"'),
    ('{"stdin": {}}\n', 0o600, 'no "argv"'),
    ('{"argv": ["--add-domain"], "extra": 1}\n', 0o600, 'unknown member "extra"'),
    ('{"argv": ["--frobnicate"]}\n', 0o600, "invalid command --frobnicate"),
    ('{"argv": ["--add-domain"], "password": "x"}\n', 0o640, "owned by root"),
    ('{"argv": ["--add-domain"], "password": "x"}\n', 0o604, "owned by root"),
    ("\n\n", 0o600, "no commands"),
])
def test_bad_input(sandbox, text, mode, message):
    good = json.dumps({"argv": ["--add-domain", "--domain-name=ok.test", "--wait-stdin"],
                       "stdin": json.loads(session("ok.test"))}) + "\n"
    refused = mode != 0o600 or not text.strip()
    sandbox.write(INPUT, text + ("" if refused else good), mode=mode)
    r = sandbox.run_raw([str(BATCH), INPUT])
    assert r.rc == 1, r
    if refused:
        assert message in r.err and not r.out
        return
    first, second = [json.loads(line) for line in r.out.splitlines()]
    assert first["line"] == 1 and first["status"] == 1 and message in first["output"]
    # The rest of the batch still runs.
    assert second == {"line": 2, "status": 0, "output": ""}
    assert "ok.test" in sandbox.read("/var/qmail/control/rcpthosts")


def test_stop_on_error_from_standard_input(sandbox):
    def add(domain):
        return json.dumps({"argv": ["--add-domain", "--domain-name=" + domain, "--wait-stdin"],
                           "stdin": json.loads(session(domain))}) + "\n"
    mailname = {"argv": ["--add-mailname", "--domain-name=later.test", "--mailname=john",
                         "--disk-quota=-1"]}
    text = add("first.test") + json.dumps(mailname) + "\n" + add("third.test")

    def run():
        r = sandbox.run_raw([str(BATCH), "--stop-on-error", "-"], stdin=text)
        return r.rc, [(g["line"], g["status"]) for g in map(json.loads, r.out.splitlines())]

    assert run() == (1, [(1, 0), (2, 1)])
    assert sandbox.read("/var/qmail/control/rcpthosts") == "first.test\n"
    # Run again once the cause is mended, the batch goes on with the
    # command it stopped at, not after it.
    sandbox.run("--add-domain", "--domain-name=later.test", "--wait-stdin",
                stdin=session("later.test"))
    assert run() == (0, [(1, 0), (2, 0), (3, 0)])
    assert sandbox.read("/var/qmail/control/rcpthosts") == "first.test\nlater.test\nthird.test\n"


def test_readme_example_runs_as_shown(mail_sandbox):
    readme = (sandbox_module.REPO / "README.md").read_text()
    section = readme.split("## Bulk changes", 1)[1].split("\n## ", 1)[0]
    shown = [line[4:] for line in section.splitlines() if line.startswith("    {")]
    commands = [line for line in shown if line.startswith('{"argv"')]
    outputs = [line for line in shown if line.startswith('{"line"')]
    assert commands and len(commands) == len(outputs)
    mail_sandbox.run("--add-domain", "--domain-name=example.com", "--wait-stdin",
                     stdin=session("example.com"))
    r = run_batch(mail_sandbox, [c + "\n" for c in commands])
    assert r.rc == 0 and r.out.splitlines() == outputs, r


def test_one_checkpoint_of_thousands_of_mailboxes(mail_sandbox):
    sandbox = mail_sandbox
    # A checkpoint's transaction spans all its commands; the statements
    # that change many rows of it must not need a temporary directory,
    # which the sandbox (like a hardened server) does not offer.
    domain = "many.test"
    names = ["m%04d" % k for k in range(1500)]
    lines = [json.dumps({"argv": ["--add-domain", "--domain-name=" + domain, "--wait-stdin"],
                         "stdin": json.loads(session(domain))}) + "\n"]
    for name in names:
        common = ["--domain-name=" + domain, "--mailname=" + name]
        lines.append(json.dumps({"argv": ["--add-mailname", *common, "--disk-quota=-1"]}) + "\n")
        lines.append(json.dumps({"argv": ["--add-mailbox", *common, "--mail-addresses", name],
                                 "password": "pw"}) + "\n")
    lines.append(json.dumps({"argv": ["--remove-domain", "--domain-name=" + domain,
                                      "--wait-stdin"],
                             "stdin": json.loads(session(domain, [], {n: [] for n in names}))})
                 + "\n")
    r = run_batch(sandbox, lines, "--checkpoint", str(len(lines)))
    assert r.rc == 0, r.err + "\n".join(line for line in r.out.splitlines()
                                         if '"status": 0' not in line)[:3000]
    assert query(sandbox, AUTH_DB, "SELECT COUNT(*) FROM users") == [(0,)]


def test_what_a_checkpoint_close_prints_stays_out_of_the_report(sandbox):
    # Run without the sandbox's stand-in qmail-send, the SIGHUP of the
    # checkpoint's close fails and killall says why: that goes with the
    # failure to the command that asked for the signal, never between the
    # report's lines.
    line = json.dumps({"argv": ["--add-domain", "--domain-name=ok.test", "--wait-stdin"],
                       "stdin": json.loads(session("ok.test"))}) + "\n"
    sandbox.write(INPUT, line, mode=0o600)
    p = subprocess.run(sandbox.bwrap_args() + [str(BATCH), INPUT], capture_output=True,
                       text=True, timeout=120)
    (report,) = [json.loads(text) for text in p.stdout.splitlines()]
    assert p.returncode == 1 and report["status"] == 1, p
    assert "qmail-send: no process found" in report["output"], report
    assert "could not be told to re-read its files" in report["output"], report


def plant_file_for_spam_folder(sb, domain, name):
    """A regular file where the mailbox's .Spam folder is to be made: adding
    the mail name fails half-way, inside the mail name's directory, which
    its undo then removes."""
    home = sb.path("/var/qmail/mailnames/%s/%s" % (domain, name))
    (home / "Maildir").mkdir(parents=True)
    (home / "Maildir" / ".Spam").write_text("")
    for path in (home, home / "Maildir", home / "Maildir" / ".Spam"):
        os.chown(path, sandbox_module.POPUSER_UID, sandbox_module.POPUSER_GID)


def test_a_failed_command_leaves_nothing_to_the_next(boxes):
    alone, batched = boxes
    domain = "example.com"
    commands = [{"argv": ["--add-mailname", "--domain-name=" + domain, "--mailname=" + name,
                          "--disk-quota=-1"]}
                for name in ("one", "bad", "two", "three")]
    for sb in boxes:
        sb.run("--add-domain", "--domain-name=" + domain, "--wait-stdin", stdin=session(domain))
        plant_file_for_spam_folder(sb, domain, "bad")
    expected = run_alone(alone, commands)
    assert [rc for rc, _ in expected] == [0, 1, 0, 0]
    r = run_batch(batched, [json.dumps(c) + "\n" for c in commands])
    got = [(g["status"], normal(g["output"])) for g in map(json.loads, r.out.splitlines())]
    assert r.rc == 1 and got == [(rc, normal(out)) for rc, out in expected], r
    assert not differences(state(batched), state(alone))


def test_unicode_names_and_passwords_reach_the_commands_whole(boxes):
    alone, batched = boxes
    domain, password = "bücher.example", "grüß \U0001F600"
    ascii_domain = domain.encode("idna").decode()
    commands = [
        {"argv": ["--add-domain", "--domain-name=" + domain, "--wait-stdin"],
         "stdin": json.loads(session(ascii_domain))},
        {"argv": ["--add-mailname", "--domain-name=" + domain, "--mailname=john",
                  "--disk-quota=-1"]},
        {"argv": ["--add-mailbox", "--domain-name=" + domain, "--mailname=john",
                  "--mail-addresses", "john"], "password": password},
        # Refused by the command itself, in the same words as alone.
        {"argv": ["--add-mailname", "--domain-name=" + domain, "--mailname=jürgen"]},
    ]
    expected = run_alone(alone, commands)
    assert [rc for rc, _ in expected] == [0, 0, 0, 1], expected
    # As UTF-8 and as \u escapes (the password's emoji as a surrogate pair).
    lines = [json.dumps(c, ensure_ascii=n % 2 == 0) + "\n" for n, c in enumerate(commands)]
    assert "\\ud83d\\ude00" in lines[2] and "ü" in lines[3]
    # Cut at the NUL, this would remove john.
    lines.append(json.dumps({"argv": ["--remove-mailname", "--domain-name=" + domain,
                                      "--mailname=john\u0000x"]}) + "\n")
    r = run_batch(batched, lines)
    got = [(g["status"], normal(g["output"])) for g in map(json.loads, r.out.splitlines())]
    assert r.rc == 1 and got[:4] == [(rc, normal(out)) for rc, out in expected], r
    assert got[4][0] == 1 and "holds a NUL character" in got[4][1], got[4]
    assert not differences(state(batched), state(alone))
    users = state(batched)[1]
    assert [(d, u, p) for d, _, u, p, _, _ in users] == [(ascii_domain, "john", password)]
