"""The sandbox itself: its stand-ins must behave like the qmail programs they
replace, and nothing a sandboxed command does may reach the host."""

import os
import subprocess
import sys

import pytest

import sandbox as sandbox_module
from sandbox import Sandbox, SandboxError, changed_files

POPUSER = "popuser:110:110"


def test_killall_hangup_is_counted_per_run(sandbox):
    r = sandbox.run_raw(["/bin/sh", "-c",
                         "for i in 1 2 3; do /usr/bin/killall -1 qmail-send || exit 9; done"])
    assert (r.rc, r.hups) == (0, 3), r
    # Counts belong to one run, and a signal to another name reaches nobody.
    r = sandbox.run_raw(["/usr/bin/killall", "-1", "qmail-smtpd"])
    assert r.rc != 0 and r.hups == 0, r


def test_qmail_send_is_found_by_its_process_name(sandbox):
    r = sandbox.run_raw(["/usr/bin/killall", "-0", "-e", "qmail-send"])
    assert r.rc == 0, r
    r = sandbox.run_raw(["/bin/ps", "-o", "comm=", "-C", "qmail-send"])
    assert r.out.split() == ["qmail-send"], r


GOOD_ASSIGN = ("+example.com:popuser:110:110:/var/qmail/mailnames/example.com:::\n"
               "=example.com-john:popuser:110:110:/var/qmail/mailnames/example.com/john:::\n"
               ".\n")


@pytest.mark.parametrize("assign, problem", [
    (".\n", None),
    (GOOD_ASSIGN, None),
    ("=:popuser:110:110:/var/qmail/mailnames/x:-:ext:\n.\n", None),
    ("", 'does not end with a "." line'),
    (GOOD_ASSIGN[:-2], 'does not end with a "." line'),
    (".\n" + GOOD_ASSIGN, 'goes on after the "." line at line 1'),
    ("+example.com:popuser:110:110:/var/qmail/mailnames/example.com::\n.\n",
     "line 1: line does not have seven fields"),
    ("+example.com:popuser:110:110:/var/qmail/mailnames/example.com::::\n.\n",
     "line 1: line does not have seven fields"),
    ("example.com:popuser:110:110:/var/qmail/mailnames/example.com:::\n.\n",
     'line 1: line does not start with "=" or "+"'),
    ("\n.\n", 'line 1: line does not start'),
    (GOOD_ASSIGN.replace(":110:110:/var/qmail/mailnames/example.com/john", ":110:x:/h"),
     "line 2: uid or gid is not a decimal number"),
    ("=example.com-john::110:110:/h:::\n.\n", "line 1: empty user name"),
    ("=example.com-john:popuser:110:110::::\n.\n", "line 1: empty home directory"),
])
def test_qmail_newu_checks_assign_format(sandbox, assign, problem):
    sandbox.write("/var/qmail/users/assign", assign)
    r = sandbox.run_raw(["/var/qmail/bin/qmail-newu"])
    assert r.newu_calls == [[]], r
    if problem is None:
        assert (r.rc, r.err) == (0, ""), r
    else:
        assert r.rc == 111, r
        assert r.err.startswith("qmail-newu: fatal: ") and problem in r.err, r


def test_init_script_records_its_arguments(sandbox):
    r = sandbox.run_raw(["/bin/sh", "-c",
                         "/etc/rc.d/init.d/qmail restart && /etc/rc.d/init.d/qmail reload"])
    assert r.rc == 0, r
    assert r.init_calls == [["restart"], ["reload"]]
    assert (r.hups, r.newu_calls) == (0, [])


def test_accounts_and_host_name_inside(sandbox):
    script = ("import grp, pwd, socket\n"
              "p = pwd.getpwnam('popuser')\n"
              "print('popuser:%d:%d' % (p.pw_uid, p.pw_gid), p.pw_dir)\n"
              "print(*(grp.getgrnam(g).gr_gid for g in ('popuser', 'nofiles', 'nogroup')))\n"
              "name = socket.gethostname()\n"
              "print(name, socket.getaddrinfo(name, None, type=socket.SOCK_STREAM,\n"
              "                               flags=socket.AI_CANONNAME)[0][3])\n")
    r = sandbox.run_raw(["/usr/bin/python3", "-c", script])
    assert r.rc == 0, r
    assert r.out.splitlines() == [POPUSER + " /var/qmail", "110 111 65534",
                                  "mail.sandbox.test mail.sandbox.test"]

    sandbox.set_hostname("example.com")
    r = sandbox.run_raw(["/usr/bin/python3", "-c", script])
    assert r.out.splitlines()[2] == "example.com example.com", r


def test_environment_is_exactly_what_was_asked(sandbox):
    r = sandbox.run_raw(["/usr/bin/env"], env={"ZON_PASSWORD": "s3cret", "LANG": "C.UTF-8"})
    assert sorted(r.out.splitlines()) == ["LANG=C.UTF-8", "PATH=" + sandbox_module.DEFAULT_PATH,
                                          "ZON_PASSWORD=s3cret"], r
    r = sandbox.run_raw(["/usr/bin/env"], env={"PATH": None})
    assert r.out == "", r


@pytest.mark.parametrize("kwargs, expected", [
    ({}, ""),
    ({"stdin": '{"domain": {}}\n'}, '{"domain": {}}\n'),
    ({"input_bytes": b"\xff\x00x"}, "\ufffd\x00x"),
])
def test_standard_input(sandbox, kwargs, expected):
    r = sandbox.run_raw(["/bin/cat"], timeout=20, **kwargs)
    assert (r.rc, r.out) == (0, expected), r


def test_exit_status_signal_and_unrunnable_program(sandbox):
    assert sandbox.run_raw(["/bin/sh", "-c", "exit 7"]).rc == 7
    assert sandbox.run_raw(["/bin/sh", "-c", "kill -SEGV $$"]).rc == -11
    with pytest.raises(SandboxError, match="cannot run /no/such/program"):
        sandbox.run_raw(["/no/such/program"])


def test_writes_stay_in_the_private_tree(sandbox):
    before = sandbox_module.host_fingerprint()
    private = ["/var/qmail/control/x", "/var/lib/tavix/x", "/etc/zon/x", "/etc/domainkeys/x",
               "/etc/rc.d/x", "/run/lock/files/x", "/usr/lib64/tavix-9.0/x",
               "/usr/libexec/dovecot/x"]
    outside = ["/etc/x", "/var/x", "/var/lib/x", "/run/x", "/usr/lib64/x", "/usr/libexec/x",
               "/usr/bin/x"]
    script = "".join("echo private > %s || exit 1\n" % p for p in private)
    script += "echo 'intruder:x:0:0::/:/bin/sh' >> /etc/passwd || exit 2\n"
    script += "".join("echo no > %s 2>/dev/null && exit 3\n" % p for p in outside)
    script += "exit 0\n"
    r = sandbox.run_raw(["/bin/sh", "-c", script])
    assert r.rc == 0, r
    for p in private:
        assert sandbox.read(p) == "private\n"
        assert not os.path.lexists(p)
    assert "intruder" in sandbox.read("/etc/passwd")
    assert sandbox_module.host_fingerprint() == before


def test_hidden_host_path_is_absent_inside(sandbox):
    probe = ["/bin/sh", "-c", "test -e /usr/bin/deliverquota; echo $?; test -x /usr/bin/sed; echo $?"]
    if not os.path.lexists("/usr/bin/deliverquota"):
        pytest.skip("courier-base is not installed")
    assert sandbox.run_raw(probe).out == "0\n0\n"
    sandbox.hide("/usr/bin/deliverquota")
    assert sandbox.run_raw(probe).out == "1\n0\n"


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


def test_kept_directory_is_reused(tmp_path):
    first = Sandbox(tmp_path / "box")
    first.write("/var/qmail/control/rcpthosts", "example.com\n")
    second = Sandbox(tmp_path / "box")
    assert second.read("/var/qmail/control/rcpthosts") == "example.com\n"
    assert second.run_raw(["/bin/cat", "/var/qmail/control/rcpthosts"]).out == "example.com\n"
    second.cleanup()
    assert (tmp_path / "box" / "root").is_dir()


def test_command_line_runs_one_command_and_lists_changes(tmp_path):
    box = tmp_path / "box"
    cmd = [sys.executable, sandbox_module.__file__, "--dir", str(box), "--raw", "--",
           "/bin/sh", "-c", "echo example.com >> /var/qmail/control/rcpthosts; echo done"]
    proc = subprocess.run(cmd, capture_output=True, text=True, timeout=60)
    assert proc.returncode == 0, proc.stderr
    assert "--- stdout ---\ndone\n" in proc.stdout
    assert "changed /var/qmail/control/rcpthosts" in proc.stdout
    assert "+example.com" in proc.stdout
    assert (box / "root/var/qmail/control/rcpthosts").read_text() == "example.com\n"


def test_runs_the_real_program(sandbox):
    r = sandbox.run("--help")
    assert r.rc == 0, r
    assert r.out.startswith("Usage: dravnik <COMMAND> <COMMAND OPTIONS...>\n"), r
