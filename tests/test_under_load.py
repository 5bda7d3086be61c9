"""dravnik under load: runs killed at random instants, and a hundred runs at
once.  Both run hundreds of commands inside one sandbox through
load_driver.py; see there for how each run is judged.

Select them with -m load; rerun the kill test with the seed that a failure
names through LOAD_SEED=<seed>."""

import json
import os
import random

import pytest

import load_driver
from load_driver import (ADD_ALIAS, BOXES, DOMAINS, NEW_DOMAINS, NEW_NAMES, NEW_PASSWORD,
                         assign_line, password)
from sandbox import PYTHON
from test_domain_commands import lines
from test_mailname_commands import auth_rows

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
        names = BOXES + NEW_NAMES
        assign |= {assign_line("=%s-%s" % (d, n), "%s/%s" % (d, n)) for n in names}
        assign |= {assign_line("=%s-a%s" % (d, n), "%s/%s" % (d, n)) for n in ADD_ALIAS}
        for n in BOXES:
            address = "%s@%s" % (n, d)
            records[address] = password(address, new=n in NEW_PASSWORD)
        records.update({"a%s@%s" % (n, d): password("%s@%s" % (n, d)) for n in ADD_ALIAS})
    domains = DOMAINS + NEW_DOMAINS
    return assign, set(domains), {"%s:%s" % (d, d) for d in domains}, records


def test_a_hundred_runs_at_once_lose_and_double_nothing(mail_sandbox):
    sb = mail_sandbox
    report = drive(sb, "concurrent")
    runs = report["runs"]
    assert len(runs) >= 100
    # The locks wait without limit and SQLite's busy database is retried
    # without limit, so no run has a reason to fail.
    failed = ["%s: status %d: %s" % (" ".join(r["args"]), r["rc"], r["err"])
              for r in runs if r["rc"] != 0]
    assert not failed, "\n".join(failed)

    assign, rcpthosts, virtualdomains, records = expected_concurrent_state()
    assigned = sb.read("/var/qmail/users/assign").splitlines()
    assert assigned[-1] == ".", assigned[-3:]
    for name, found, expected in (("users/assign", assigned[:-1], assign),
                                  ("rcpthosts", lines(sb, "control/rcpthosts"), rcpthosts),
                                  ("virtualdomains", lines(sb, "control/virtualdomains"),
                                   virtualdomains)):
        doubled = sorted({l for l in found if found.count(l) > 1})
        assert not doubled, "%s has lines more than once: %s" % (name, doubled)
        assert set(found) == expected, "%s lacks %s, has extra %s" % (
            name, sorted(expected - set(found)), sorted(set(found) - expected))
    r = sb.run_raw(["/var/qmail/bin/qmail-newu"])
    assert r.rc == 0, r
    unmade = [(d, n) for d in DOMAINS for n in NEW_NAMES
              if not sb.exists("/var/qmail/mailnames/%s/%s/Maildir/maildirsize" % (d, n))]
    assert not unmade

    stored = {address: pw for address, (pw, _, _) in auth_rows(sb).items()}
    assert stored == records
    # Every record belongs to an address that users/assign delivers.
    delivered = {line.split(":")[0] for line in assigned}
    assert {"=%s-%s" % tuple(reversed(a.split("@"))) for a in stored} <= delivered
