"""A hostile mail user against the real program in the sandbox.

popuser owns everything in a mailbox, so it can replace any name there with
a symbolic link to a system directory (here a decoy standing for /etc or
/root, laid out so that a program that followed the link would find the
names it writes); root could likewise find a link at one of its lock files.
The commands that touch the planted name may fail, with a clear message, but
nothing in the decoy may change, nor be read into a file the user can read."""

import hashlib
import os
import shutil

import pytest

from conftest import sandbox_copy
from sandbox import Sandbox
from test_domain_commands import DOMAIN, add_domain, add_mailbox

HOME = "/var/qmail/mailnames/example.com/john"
DECOY = "/var/lib/tavix/decoy"
LOCK_DIR = "/run/lock/files"
POPUSER = 110
PASSWORD = {"ZON_PASSWORD": "secret"}

# The decoy's files and directories, as an unsafe run would meet them.
DECOY_FILES = {"passwd": "root:x:0:0:root:/root:/bin/bash\n", "shadow": "root:secret:1::::::\n",
               ".qmail": "| /usr/local/bin/important\n", "maildirsize": "5S,0C\n",
               "new/1.msg": "Subject: kept\n\n", "@attachments/a.bin": "attachment\n"}
DECOY_DIRS = ("tmp", "new", "cur", "@attachments", "Maildir", "Maildir/tmp", "Maildir/new",
              "Maildir/cur")

NAME = ("--domain-name=" + DOMAIN, "--mailname=john")
COMMANDS = {
    "add-mailname": (("--add-mailname", *NAME, "--disk-quota=-1"), None),
    "add-mailbox": (("--add-mailbox", *NAME, "--mail-addresses", "john"), PASSWORD),
    "remove-mailbox": (("--remove-mailbox", *NAME, "--mail-addresses", "john"), None),
    "set-quota": (("--set-mailbox-disk-quota", *NAME, "--disk-quota=100000",
                   "--default-domain-quota=-1"), None),
    "get-size": (("--get-mailbox-size", *NAME), None),
    "rename": (("--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
                "--new-mailname=jane", "--mail-addresses", "john"), PASSWORD),
    "remove-mailname": (("--remove-mailname", *NAME, "--mail-addresses", "john"), None),
    "catch-all": (("--turn-on-domain", "--domain-name=" + DOMAIN, "--mail-addresses", "",
                   "--set-catchall", "--email=all@example.org"), None),
    "bounce": (("--turn-on-domain", "--domain-name=" + DOMAIN, "--mail-addresses", "",
                "--set-bounce", "--phrase=Gone"), None),
    "remove-domain": (("--remove-domain", "--domain-name=" + DOMAIN, "--mail-addresses", ""),
                      None),
}


def lock_file(path):
    return LOCK_DIR + "/" + hashlib.md5(path.encode()).hexdigest()


# What is replaced, where its link points, and the commands that touch it.
ATTACKS = {
    "mailbox-dir": (HOME, DECOY, ("add-mailname", "add-mailbox", "set-quota", "rename",
                                  "remove-mailname", "remove-domain")),
    "maildir": (HOME + "/Maildir", DECOY, ("add-mailname", "set-quota", "get-size",
                                           "remove-mailname")),
    "maildir-tmp": (HOME + "/Maildir/tmp", DECOY + "/tmp", ("add-mailname", "set-quota")),
    "attachments": (HOME + "/@attachments", DECOY, ("add-mailname", "set-quota",
                                                    "remove-mailname")),
    "dotqmail": (HOME + "/.qmail", DECOY + "/shadow", ("add-mailname", "add-mailbox",
                                                       "remove-mailbox", "rename")),
    "maildirsize": (HOME + "/Maildir/maildirsize", DECOY + "/maildirsize",
                    ("set-quota", "add-mailbox")),
    "qmail-default": ("/var/qmail/mailnames/example.com/.qmail-default", DECOY + "/passwd",
                      ("catch-all", "bounce")),
    "assign-lock": (lock_file("/var/qmail/users/assign"), DECOY + "/passwd",
                    ("add-mailname", "rename", "remove-mailname")),
    "dotqmail-lock": (lock_file(HOME + "/.qmail"), DECOY + "/.qmail",
                      ("add-mailbox", "remove-mailbox")),
}


def make_decoy(sb):
    for d in DECOY_DIRS:
        sb.path(DECOY + "/" + d).mkdir(mode=0o755, parents=True, exist_ok=True)
    for name, text in DECOY_FILES.items():
        sb.write(DECOY + "/" + name, text, mode=0o600 if name == "shadow" else 0o644)


def decoy_listing(sb):
    """Kind, owner, mode and checksum of every entry of the decoy."""
    return {path: entry for path, entry in sb.snapshot().items()
            if path == DECOY or path.startswith(DECOY + "/")}


def leaked(sb):
    """The files of the mail tree that hold the decoy's secret."""
    secret = DECOY_FILES["shadow"]
    return [path for path, entry in sb.snapshot().items()
            if path.startswith("/var/qmail/") and entry.text and secret in entry.text]


def plant(sb, name, target):
    """Replaces `name` with a link to `target`, made by popuser unless it is
    a lock file (the lock directory is root's)."""
    host = sb.path(name)
    if host.is_dir() and not host.is_symlink():
        shutil.rmtree(host)
    elif host.exists() or host.is_symlink():
        host.unlink()
    os.symlink(target, host)
    if not name.startswith(LOCK_DIR):
        os.lchown(host, POPUSER, POPUSER)


@pytest.fixture(scope="module")
def prepared():
    """A sandbox tree with the decoy, example.com and john's mailbox."""
    with Sandbox() as sb:
        sb.init_databases()
        make_decoy(sb)
        add_domain(sb)
        add_mailbox(sb, "john")
        yield sb.root


@pytest.fixture
def sb(prepared):
    """A copy of the prepared tree, for one case."""
    yield from sandbox_copy(prepared)


@pytest.mark.parametrize("attack, command", [(a, c) for a in ATTACKS for c in ATTACKS[a][2]])
def test_planted_link_changes_nothing_outside_the_tree(sb, attack, command):
    name, target, _ = ATTACKS[attack]
    before = decoy_listing(sb)
    plant(sb, name, target)
    args, env = COMMANDS[command]
    r = sb.run(*args, env=env)
    assert r.rc in (0, 1), r  # a refusal is reported, never a crash
    assert decoy_listing(sb) == before, sb.describe(
        sb.changed_files(before, decoy_listing(sb)))
    assert leaked(sb) == []


def test_link_at_a_lock_file_is_reported_as_a_lock_failure(sb):
    plant(sb, lock_file("/var/qmail/users/assign"), DECOY + "/passwd")
    r = sb.run(*COMMANDS["add-mailname"][0])
    assert r.rc == 1, r
    assert "Error occurred while locking the file /var/qmail/users/assign" in r.err
    assert "Too many levels of symbolic links" in r.err


@pytest.mark.parametrize("owner, mode", [(0, 0o777), (POPUSER, 0o755)],
                         ids=["writable-by-all", "owned-by-popuser"])
def test_lock_directory_that_others_can_write_is_refused(sb, owner, mode):
    assign = sb.read("/var/qmail/users/assign")
    os.chown(sb.path(LOCK_DIR), owner, owner)
    os.chmod(sb.path(LOCK_DIR), mode)
    r = sb.run("--add-mailname", "--domain-name=" + DOMAIN, "--mailname=jane", "--disk-quota=-1")
    assert r.rc == 1, r
    assert "Lock directory /run/lock/files must belong to root" in r.err
    assert sb.read("/var/qmail/users/assign") == assign
