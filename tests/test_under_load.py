"""dravnik under load: runs killed at random instants, and over a hundred
overlapping runs.  Both run hundreds of commands inside one sandbox through
load_driver.py; see there for how each run is judged.

Select them with -m load; rerun the kill test with the seed that a failure
names through LOAD_SEED=<seed>."""

import json
import os
import random
import re
import runpy

import pytest

import load_driver
from load_driver import (ADD_ALIAS, BARE, BOXES, DOMAINS, NEW_DOMAINS, NEW_NAMES,
                         NEW_PASSWORD, QUOTA, REMOVE, RENAME, assign_line, domain_alias,
                         password, quota, renamed)
from sandbox import PYTHON, STANDINS
from test_domain_commands import lines
from test_mailname_commands import auth_rows

compiled = runpy.run_path(str(STANDINS / "qmail-newu"))["compiled"]

pytestmark = pytest.mark.load

KILL_RUNS = 300
REPORT = "/run/sandbox/load-report.json"


def drive(sb, mode, *args):
    r = sb.run_raw([PYTHON, "-I", load_driver.__file__, mode, str(sb.dravnik), REPORT,
                    *map(str, args)], timeout=900)
    assert r.rc == 0, r
    return json.loads(sb.path(REPORT).read_text())


def test_killed_runs_leave_whole_files_and_can_be_run_again(mail_sandbox):
    seed = int(os.environ.get("LOAD_SEED") or random.randrange(2 ** 32))
    report = drive(mail_sandbox, "kill", seed, KILL_RUNS)
    print("commands run %s; %d of %d killed before their end; %d temporary files left"
          % (report["by_command"], report["killed"], report["runs"], len(report["leftovers"])))
    violations = "\n".join("run %(run)d: %(command)s: %(what)s" % v +
                           "".join("\n    " + p for p in v["problems"][:10])
                           for v in report["violations"][:10])
    assert not violations, "seed %d (rerun with LOAD_SEED=%d):\n%s" % (seed, seed, violations)
    assert report["runs"] == KILL_RUNS
    # Otherwise the kills mostly missed the commands and proved little.
    assert report["killed"] >= KILL_RUNS // 2, report


def expected_concurrent_state():
    """users/assign (without "."), rcpthosts, virtualdomains and the
    authentication records with their passwords after the batch."""
    assign = {assign_line("+" + d, d) for d in DOMAINS + NEW_DOMAINS}
    records = {}
    for d in DOMAINS:
        kept = [n for n in BOXES if n not in RENAME + REMOVE] + [renamed(n) for n in RENAME]
        names = kept + list(NEW_NAMES + BARE)
        assign |= {assign_line("=%s-%s" % (d, n), "%s/%s" % (d, n)) for n in names}
        assign |= {assign_line("=%s-a%s" % (d, n), "%s/%s" % (d, n)) for n in ADD_ALIAS}
        for n in BOXES + BARE:
            address = "%s@%s" % (n, d)
            if n not in REMOVE:
                records["%s@%s" % (renamed(n) if n in RENAME else n, d)] = \
                    password(address, new=n in NEW_PASSWORD)
        records.update({"a%s@%s" % (n, d): password("%s@%s" % (n, d)) for n in ADD_ALIAS})
    domains = DOMAINS + NEW_DOMAINS
    aliases = {domain_alias(d): d for d in DOMAINS}
    return (assign, set(domains) | set(aliases),
            {"%s:%s" % (d, d) for d in domains} | {"%s:%s" % a for a in aliases.items()},
            records)


# Every run at one instant; then a few at a time with each compile held open
# long enough that, unless runs take turns, compiles overlap and one of them
# fails to rename users/cdb.tmp or leaves a users/cdb made from an older
# users/assign.
@pytest.mark.parametrize("width, pause", [(1000, 0), (8, 0.1)], ids=["at-once", "pool-paused"])
def test_overlapping_runs_lose_and_double_nothing(mail_sandbox, width, pause):
    sb = mail_sandbox
    report = drive(sb, "concurrent", width, pause)
    runs = report["runs"]
    print("%d runs in %.1f s, %d qmail-newu runs" % (len(runs), report["seconds"],
                                                   report["compiles"]))
    assert len(runs) == len(load_driver.batch()) >= 100
    # Runs whose edits a later compile reads wait for it instead of
    # compiling on their own.
    assert report["compiles"] < len(runs)
    # The locks wait without limit and SQLite's busy database is retried
    # without limit, so no run has a reason to fail.
    failed = ["%s: status %d: %s" % (" ".join(r["args"]), r["rc"], r["err"])
              for r in runs if r["rc"] != 0]
    assert not failed, "%d of %d runs failed, e.g.:\n%s" % (len(failed), len(runs),
                                                           "\n".join(failed[:5]))

    assign, rcpthosts, virtualdomains, records = expected_concurrent_state()
    text = sb.read("/var/qmail/users/assign")
    assigned = text.splitlines()
    assert assigned[-1] == ".", assigned[-3:]
    for name, found, expected in (("users/assign", assigned[:-1], assign),
                                  ("rcpthosts", lines(sb, "control/rcpthosts"), rcpthosts),
                                  ("virtualdomains", lines(sb, "control/virtualdomains"),
                                   virtualdomains)):
        doubled = sorted({l for l in found if found.count(l) > 1})
        assert not doubled, "%s has lines more than once: %s" % (name, doubled)
        assert set(found) == expected, "%s lacks %s, has extra %s" % (
            name, sorted(expected - set(found)), sorted(set(found) - expected))
    # What qmail delivers by: the last compile saw the last edit.
    assert sb.path("/var/qmail/users/cdb").read_bytes() == compiled(text), \
        "users/cdb was not compiled from the final users/assign"

    unmade = [(d, n) for d in DOMAINS for n in NEW_NAMES
              if not sb.exists("/var/qmail/mailnames/%s/%s/Maildir/maildirsize" % (d, n))]
    assert not unmade
    homes = {(d, n): "/var/qmail/mailnames/%s/%s/" % (d, n) for d in DOMAINS for n in QUOTA}
    # The quota line of maildirsize; the empty @attachments directory counts.
    assert {k: sb.read(h + "Maildir/maildirsize").split("\n")[0] for k, h in homes.items()} == \
        {k: "%dS,0C" % (quota(*k) - sb.path(h + "@attachments").stat().st_size)
         for k, h in homes.items()}
    stored = {address: pw for address, (pw, _, _) in auth_rows(sb).items()}
    assert stored == records
    # Every record belongs to an address that users/assign delivers.
    delivered = {line.split(":")[0] for line in assigned}
    assert {"=%s-%s" % tuple(reversed(a.split("@"))) for a in stored} <= delivered


def test_a_failed_compile_fails_exactly_the_runs_it_served(mail_sandbox):
    # The burst's first compile fails, held open long enough that runs
    # pile up behind it; half the runs start only once it has read
    # users/assign, so later compiles serve them.
    report = drive(mail_sandbox, "burst-fail", 0.2, 1)
    runs = report["runs"]
    failed = [r for r in runs if r["rc"] != 0]
    print("%d runs, compiles %s, compile %s failed, %d runs failed with it"
          % (len(runs), report["calls"], report["failed_calls"], len(failed)))
    assert len(runs) >= 50
    assert len(report["failed_calls"]) == 1
    # Every run waited for a compile that read its whole change.
    assert all(r["served_by"] for r in runs), [r["args"] for r in runs if not r["served_by"]]
    wrong = ["%s: status %d, first read by compile %d%s" % (
        " ".join(r["args"]), r["rc"], r["served_by"], " (failed)" if r["served_failed"] else "")
        for r in runs if (r["rc"] != 0) != r["served_failed"]]
    assert not wrong, "\n".join(wrong)
    assert failed and len(failed) < len(runs)
    for r in failed:
        assert r["rc"] == 1 and load_driver.FAIL_MESSAGE in r["err"], r


def test_runs_killed_during_bursts_never_let_another_succeed_unserved(mail_sandbox):
    seed = int(os.environ.get("LOAD_SEED") or random.randrange(2 ** 32))
    report = drive(mail_sandbox, "burst-kill", seed, 60, 30, 0.02)
    killed = sum(r["killed"] for r in report["rounds"])
    print("rounds (killed, ended with 0): %s" % [(r["killed"], r["ok"]) for r in report["rounds"]])
    assert not report["problems"], "seed %d (rerun with LOAD_SEED=%d):\n%s" % (
        seed, seed, "\n".join(report["problems"][:10]))
    assert killed >= 60, report["rounds"]
    assert all(r["ok"] for r in report["rounds"]), report["rounds"]
    # Nothing but lock files and the state files beside them.
    stray = [n for n in report["lock_dir"] if not re.fullmatch(r"[0-9a-f]{32}(\.state)?", n)]
    assert not stray
