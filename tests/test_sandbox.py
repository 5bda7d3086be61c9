"""The sandbox itself: the stand-ins and snapshots must see what the command
tests count (a broken one would let "nothing happened" pass), and qmail-newu
must reject a malformed users/assign.  (Every test's fixture checks that the
host stayed as it was.)"""

import runpy

import pytest

from sandbox import STANDINS, changed_files

compiled = runpy.run_path(str(STANDINS / "qmail-newu"))["compiled"]


def test_hangups_and_init_script_runs_are_counted_per_run(sandbox):
    r = sandbox.run_raw(["/bin/sh", "-c", "for i in 1 2 3; do /usr/bin/killall -1 qmail-send "
                         "|| exit 9; done; /etc/rc.d/init.d/qmail restart"])
    assert (r.rc, r.hups, r.init_calls, r.newu_calls) == (0, 3, [["restart"]], []), r
    # Counts belong to one run, and a signal to another name reaches nobody.
    r = sandbox.run_raw(["/usr/bin/killall", "-1", "qmail-smtpd"])
    assert r.rc != 0 and (r.hups, r.init_calls) == (0, []), r


GOOD_ASSIGN = ("+example.com:popuser:110:110:/var/qmail/mailnames/example.com:::\n"
               "=example.com-john:popuser:110:110:/var/qmail/mailnames/example.com/john:::\n"
               ".\n")


@pytest.mark.parametrize("assign, problem", [
    (".\n", None),
    (GOOD_ASSIGN, None),
    (GOOD_ASSIGN[:-2], 'does not end with a "." line'),
    (".\n" + GOOD_ASSIGN, 'goes on after the "." line at line 1'),
    ("+example.com:popuser:110:110:/var/qmail/mailnames/example.com::\n.\n",
     "line 1: line does not have seven fields"),
    ("example.com:popuser:110:110:/var/qmail/mailnames/example.com:::\n.\n",
     'line 1: line does not start with "=" or "+"'),
    (GOOD_ASSIGN.replace(":110:110:/var/qmail/mailnames/example.com/john", ":110:x:/h"),
     "line 2: uid or gid is not a decimal number"),
    ("=example.com-john:popuser:110:110::::\n.\n", "line 1: empty home directory"),
])
def test_qmail_newu_checks_assign_format(sandbox, assign, problem):
    sandbox.write("/var/qmail/users/assign", assign)
    r = sandbox.run_raw(["/var/qmail/bin/qmail-newu"])
    assert r.newu_calls == [[]], r
    if problem is None:
        assert (r.rc, r.err) == (0, ""), r
        assert sandbox.path("/var/qmail/users/cdb").read_bytes() == compiled(assign)
        assert not sandbox.exists("/var/qmail/users/cdb.tmp")
    else:
        assert r.rc == 111, r
        assert r.err.startswith("qmail-newu: fatal: ") and problem in r.err, r
        assert not sandbox.exists("/var/qmail/users/cdb")


def test_qmail_newu_compiles_what_it_read():
    # A stale database must differ from a current one, line order included.
    assert len({compiled(".\n"), compiled(GOOD_ASSIGN),
                compiled("".join(reversed(GOOD_ASSIGN.splitlines(True)[:2])) + ".\n")}) == 3


NEWU = "/var/qmail/bin/qmail-newu"


@pytest.mark.parametrize("script, message", [
    # A directory in the way of the temporary file, or of the database.
    ("mkdir users/cdb.tmp; %s" % NEWU, "unable to write users/cdb.tmp"),
    ("mkdir -p users/cdb/x; %s" % NEWU, "unable to move users/cdb.tmp to users/cdb"),
    # Two compiles at once: the later one truncates and rewrites the
    # users/cdb.tmp that the earlier one renames; its own rename finds none.
    ("%s & sleep 0.3; %s; s=$?; wait $!; exit $s" % (NEWU, NEWU),
     "unable to move users/cdb.tmp to users/cdb"),
], ids=["tmp-unwritable", "cdb-in-the-way", "overlap"])
def test_qmail_newu_fails_as_the_real_one(sandbox, script, message):
    sandbox.write("/var/qmail/users/assign", GOOD_ASSIGN)
    sandbox.set_newu_pause(0.8)
    r = sandbox.run_raw(["/bin/sh", "-c", "cd /var/qmail && " + script])
    assert r.rc == 111 and r.err.startswith("qmail-newu: fatal: " + message), r


def test_snapshot_reports_added_changed_and_removed(sandbox):
    sandbox.write("/var/qmail/control/gone", "bye\n")
    before = sandbox.snapshot()
    r = sandbox.run_raw(["/bin/sh", "-c",
                         "printf 'localhost\\nexample.com\\n' > /var/qmail/control/locals && "
                         "mkdir -m 700 /var/qmail/mailnames/example.com && "
                         "chown popuser:popuser /var/qmail/mailnames/example.com && "
                         "chmod 600 /var/qmail/control/rcpthosts && "
                         "rm /var/qmail/control/gone"])
    assert r.rc == 0, r
    changes = {c.path: c for c in changed_files(before, sandbox.snapshot())}
    assert {p: c.what for p, c in changes.items()} == {
        "/var/qmail/control/locals": "changed",
        "/var/qmail/mailnames/example.com": "added",
        "/var/qmail/control/rcpthosts": "changed",
        "/var/qmail/control/gone": "removed",
    }
    assert " localhost\n+example.com\n" in changes["/var/qmail/control/locals"].diff
    text = sandbox.describe(list(changes.values()))
    assert "added   /var/qmail/mailnames/example.com (dir 0700 popuser:popuser)" in text
    assert "(file 0600 root:root, was file 0644 root:root)" in text


def mounts_under(path):
    with open("/proc/self/mountinfo") as f:
        return [line.split()[4] for line in f if line.split()[4].startswith(str(path))]


def test_a_limited_directory_keeps_its_content_and_leaves_no_mount(tmp_path):
    """Full, read-only and mended again with the content kept; a kept
    sandbox gets its content back on its own disk, a fresh one goes whole."""
    import sandbox as sandbox_module
    kept = sandbox_module.Sandbox(tmp_path / "kept")
    kept.write("/var/qmail/control/me", "here\n")
    kept.limit("/var/qmail", free=0)
    # A new file needs a page of its own.
    fill = ["/bin/cp", "/etc/hostname", "/var/qmail/control/new"]
    r = kept.run_raw(fill)
    assert r.rc != 0 and "No space left on device" in r.err, r
    kept.read_only("/var/qmail")
    r = kept.run_raw(fill)
    assert r.rc != 0 and "Read-only file system" in r.err, r
    kept.mend("/var/qmail")
    assert kept.run_raw(fill).rc == 0
    assert mounts_under(kept.dir)
    kept.cleanup()
    assert not mounts_under(kept.dir)
    assert (kept.read("/var/qmail/control/me"), kept.read("/var/qmail/control/new")) == \
        ("here\n", kept.read("/etc/hostname"))

    fresh = sandbox_module.Sandbox()
    try:
        fresh.limit("/var/qmail/users", inodes=0)
        assert fresh.run_raw(["/bin/touch", "/var/qmail/users/x"]).rc != 0
    finally:
        fresh.cleanup()
    assert not mounts_under(fresh.dir) and not fresh.dir.exists()
