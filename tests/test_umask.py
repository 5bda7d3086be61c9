"""Owners and modes of what the programs make do not depend on the umask
of whoever starts them: a sequence of commands run under umask 0777, 0277
and 0000 leaves exactly the modes it leaves under 0022."""

import pytest

from sandbox import Sandbox
from test_domain_commands import DOMAIN, session

SEQUENCE = [
    ("--add-domain", "--domain-name=" + DOMAIN, "--wait-stdin"),
    ("--add-domain-alias", "--domain-name=" + DOMAIN, "--domain-alias-name=alias.example",
     "--mail-addresses", "", "--set-reject"),
    ("--add-mailname", "--domain-name=" + DOMAIN, "--mailname=john", "--disk-quota=1048576"),
    ("--add-mailbox", "--domain-name=" + DOMAIN, "--mailname=john", "--mail-addresses=john"),
    ("--add-alias", "--domain-name=" + DOMAIN, "--mailname=john", "--alias=info",
     "--mail-addresses=john"),
    ("--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
     "--new-mailname=jack", "--mail-addresses=john,info"),
    ("--set-password", "--domain-name=" + DOMAIN, "--mailname=jack", "--mail-addresses=jack"),
    ("--set-mailbox-disk-quota", "--domain-name=" + DOMAIN, "--mailname=jack",
     "--disk-quota=2097152", "--default-domain-quota=-1"),
    ("--turn-off-domain", "--domain-name=" + DOMAIN, "--domain-aliases=alias.example",
     "--mail-addresses=jack,info"),
    ("--turn-on-domain", "--domain-name=" + DOMAIN, "--domain-aliases=alias.example",
     "--mail-addresses=jack,info", "--set-reject"),
    ("--rename-domain", "--old-domain-name=" + DOMAIN, "--new-domain-name=new.example"),
]


def modes_after_sequence(umask):
    """Kind, owner and mode of every entry the set-up and the commands
    leave, each program started from a shell with `umask`."""
    with Sandbox() as sb:
        def run(program, *args, stdin=None):
            r = sb.run_raw(["/bin/sh", "-c", 'umask %s && exec "$@"' % umask, "sh", program,
                            *args], env={"ZON_PASSWORD": "secret"}, stdin=stdin)
            assert r.rc == 0, r
        run(str(sb.dravnik.parent.parent / "setup" / "dravnik-setup"))
        for args in SEQUENCE:
            run(str(sb.dravnik), *args, stdin=session() if "--wait-stdin" in args else None)
        return {path: (e.kind, e.uid, e.gid, "%04o" % e.mode)
                for path, e in sb.snapshot().items()}


@pytest.fixture(scope="module")
def usual():
    return modes_after_sequence("0022")


@pytest.mark.parametrize("umask", ["0777", "0277", "0000"])
def test_modes_do_not_depend_on_the_umask(usual, umask):
    modes = modes_after_sequence(umask)
    differing = {p: (usual.get(p), modes.get(p)) for p in set(usual) | set(modes)
                 if usual.get(p) != modes.get(p)}
    assert differing == {}


def test_the_usual_umask_gives_the_documented_modes(usual):
    root = "/var/qmail/mailnames/new.example/jack"
    expected = {
        "/var/qmail/control/rcpthosts": ("file", 0, 0, "0644"),
        "/var/qmail/control/virtualdomains": ("file", 0, 0, "0644"),
        "/var/qmail/control/rejectnonexist": ("file", 0, 0, "0644"),
        "/var/qmail/users/assign": ("file", 0, 0, "0644"),
        root: ("dir", 110, 110, "0700"),
        root + "/Maildir": ("dir", 110, 110, "0700"),
        root + "/Maildir/new": ("dir", 110, 110, "0700"),
        root + "/.qmail": ("file", 110, 110, "0600"),
        root + "/Maildir/maildirsize": ("file", 110, 110, "0644"),
        "/var/lib/tavix/mail/handlers/handlers.db": ("file", 0, 110, "0640"),
    }
    assert {path: usual.get(path) for path in expected} == expected
    auth = "/var/lib/tavix/mail/auth"
    assert [usual[p][3] for p in (auth, auth + "/passwd.db", auth + "/passwd_db_key")] == [
        "0750", "0640", "0440"]
    locks = [e for p, e in usual.items() if p.startswith("/run/lock/files/")]
    assert locks and all(e[3] == "0644" for e in locks)
