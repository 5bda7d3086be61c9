"""dravnik-audit --repair while dravnik runs change the same server: a repair
acts only on what is still wrong when it acts, so no record, handler row or
users/assign line that belongs to a living address is ever removed, and a
directory renamed away during the walk is no read failure."""

import json
import random
import threading
import time

import pytest

from conftest import traced
from test_audit import AUDIT
from test_domain_commands import (AUTH_DB, DOMAIN, add_domain, add_handler, add_mailbox,
                                  handlers, lines, ok)
from test_mailname_commands import auth_rows


def repairs(result):
    return [json.loads(l) for l in result.out.splitlines() if '"repair"' in l]


def delayed_audit(sb, path, seconds):
    """An audit --repair whose first open of `path` waits `seconds`: what
    it read before (users/assign) is older than what it reads after."""
    return traced(sb, [AUDIT, "--repair", "--json"], "-P", path, "-e", "trace=openat",
                  "-e", "inject=openat:delay_enter=%d:when=1" % int(seconds * 1e6))


def in_background(work):
    box = {}
    thread = threading.Thread(target=lambda: box.update(result=work()))
    thread.start()
    return thread, box


@pytest.mark.parametrize("change, alive", [
    (["--add-alias", "--mailname=john", "--alias=info", "--mail-addresses=john,info"],
     "info@example.com"),
    (["--rename-mailname", "--old-mailname=john", "--new-mailname=jack",
      "--mail-addresses=john"], "jack@example.com"),
])
def test_repair_keeps_records_a_run_made_while_it_read(mail_sandbox, change, alive):
    sb = mail_sandbox
    add_domain(sb)
    add_mailbox(sb, "john")
    add_handler(sb, "john@example.com")
    thread, box = in_background(lambda: delayed_audit(sb, AUTH_DB, 2))
    time.sleep(0.7)  # the audit has read users/assign and waits at the database
    ok(sb, change[0], "--domain-name=" + DOMAIN, *change[1:], env={"ZON_PASSWORD": "secret"})
    thread.join()
    audit = box["result"]
    assert audit.rc in (0, 1), audit
    assert not [r for r in repairs(audit) if r.get("kind") == "auth-orphan"], audit.out
    assert auth_rows(sb)[alive][0] == "secret"


def test_repair_racing_runs_removes_nothing_alive(mail_sandbox):
    """Mail names are added, renamed, given aliases and removed while audits
    repair in a loop; every record, row and line of what lives at the end is
    there, and no audit failed to read the tree."""
    sb = mail_sandbox
    add_domain(sb)
    rnd = random.Random(7)
    alive = set()
    stop = threading.Event()
    audits = []

    def audit_loop():
        while not stop.is_set():
            audits.append(sb.run_raw([AUDIT, "--repair", "--json"]))

    thread = threading.Thread(target=audit_loop)
    thread.start()
    try:
        for n in range(24):
            name = "m%d" % n
            add_mailbox(sb, name)
            add_handler(sb, name + "@example.com")
            alive.add(name)
            step = rnd.choice(["rename", "alias", "remove", "keep"])
            if step == "rename":
                ok(sb, "--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=" + name,
                   "--new-mailname=r" + name, "--mail-addresses=" + name,
                   env={"ZON_PASSWORD": "secret"})
                alive.remove(name)
                alive.add("r" + name)
            elif step == "alias":
                ok(sb, "--add-alias", "--domain-name=" + DOMAIN, "--mailname=" + name,
                   "--alias=a" + name, "--mail-addresses=%s,a%s" % (name, name))
                alive.add("a" + name)
            elif step == "remove":
                ok(sb, "--remove-mailname", "--domain-name=" + DOMAIN, "--mailname=" + name,
                   "--mail-addresses=" + name)
                alive.remove(name)
    finally:
        stop.set()
        thread.join()

    assert len(audits) >= 3, "the audits hardly overlapped the runs"
    failed = [a for a in audits if a.rc not in (0, 1)]
    assert not failed, failed[0]
    records = {a.split("@")[0] for a in auth_rows(sb)}
    assert alive <= records, alive - records
    keys = {l.split(":")[0] for l in lines(sb, "users/assign")}
    boxes = {n for n in alive if not n.startswith("a")}
    assert {"=%s-%s" % (DOMAIN, n) for n in boxes} <= keys
    rows = {address.split("@")[0] for _, address in handlers(sb)}
    assert boxes <= rows, boxes - rows


def test_directory_renamed_during_the_walk_is_no_read_failure(mail_sandbox):
    sb = mail_sandbox
    add_domain(sb)
    add_mailbox(sb, "john")
    # The walk opens each mailbox by its name relative to the domain's
    # directory, which is what strace's path filter sees.
    thread, box = in_background(lambda: traced(
        sb, [AUDIT, "--json"], "-P", "john", "-e", "trace=openat",
        "-e", "inject=openat:delay_enter=1500000:when=1"))
    time.sleep(0.5)  # the audit has listed example.com and waits to open john
    ok(sb, "--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
       "--new-mailname=jack", "--mail-addresses=john", env={"ZON_PASSWORD": "secret"})
    thread.join()
    audit = box["result"]
    assert audit.rc in (0, 1) and "cannot read" not in audit.err, audit
