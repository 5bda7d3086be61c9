#!/usr/bin/env python3
"""How long dravnik-audit takes on a large mail server, next to a bare walk
of the same mail tree (find /var/qmail/mailnames -printf '').

The server is the one bench/run.py generates (N mail names over N/10
domains, each with a mailbox, an authentication record and the full mailbox
tree, checked against what the program itself writes), compiled once with
the qmail-newu stand-in so that users/cdb is current.  Inside one sandbox
session a small driver then runs the audit (without --sizes) and find in
interleaved rounds, the first discarded as warm-up, and prints the medians
and their ratio.  The audit must find nothing on the generated server: a
finding there means the generator and the audit disagree, and stops the
benchmark.

Run as root:  /usr/bin/python3 bench/audit.py [--size 100000] [--runs 5]
                  [--build-dir build] [--tree-dir /dev/shm]
"""

import argparse
import json
import os
import statistics
import sys
from pathlib import Path
from types import SimpleNamespace

sys.path.insert(0, str(Path(__file__).resolve().parent))

import run  # noqa: E402  (the generator and its sandbox)

DRIVER = r'''
import json, subprocess, sys, time
audit, rounds = sys.argv[1], int(sys.argv[2])
commands = {"audit": [audit], "find": ["find", "/var/qmail/mailnames", "-printf", ""]}
times = {name: [] for name in commands}
for i in range(rounds + 1):
    for name, argv in commands.items():
        start = time.monotonic()
        r = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        elapsed = time.monotonic() - start
        if r.returncode != 0:
            print(json.dumps({"failed": name, "status": r.returncode,
                              "output": r.stdout.decode(errors="replace")[-4000:]}))
            sys.exit(0)
        if i:
            times[name].append(elapsed)
print(json.dumps(times))
'''


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--size", type=int, default=100000, help="mail names (default 100000)")
    parser.add_argument("--runs", type=int, default=5, help="timed rounds (default 5)")
    parser.add_argument("--build-dir", type=Path, default=run.REPO / "build")
    parser.add_argument("--tree-dir", default="/dev/shm",
                        help="where the mail tree lives ('' for the sandbox's own disk)")
    args = parser.parse_args()
    dravnik = args.build_dir / "src" / "main" / "dravnik"
    audit = (args.build_dir / "src" / "audit" / "dravnik-audit").absolute()
    for program in (dravnik, audit):
        if not os.access(program, os.X_OK):
            parser.error("%s is missing: build it (ninja -C %s)" % (program, args.build_dir))
    if args.size < 2 * run.NAMES_PER_DOMAIN or args.runs < 1:
        parser.error("--size must be at least %d and --runs at least 1" % (2 * run.NAMES_PER_DOMAIN))
    os.environ["DRAVNIK_SETUP"] = str(args.build_dir / "src" / "setup" / "dravnik-setup")

    sb = run.new_sandbox(SimpleNamespace(dravnik=dravnik, tree_dir=args.tree_dir))
    try:
        print("generating a server of %d mail names ..." % args.size, flush=True)
        run.generate(sb, args.size, run.calibrate(sb))
        compiled = sb.run_raw([run.CHECKER])
        if compiled.rc != 0:
            sys.exit("the generated users/assign does not compile: %s" % compiled.err)
        driver = run.WORK + "/audit-driver.py"
        sb.write(driver, DRIVER)
        r = sb.run_raw([run.sandbox_module.PYTHON, "-I", driver, str(audit), str(args.runs)],
                       timeout=3600)
        result = json.loads(r.out.strip().splitlines()[-1]) if r.out.strip() else {}
        if r.rc != 0 or "failed" in result or not result:
            sys.exit("the benchmark failed: %s" % (result or r))
        audit_s = statistics.median(result["audit"])
        find_s = statistics.median(result["find"])
        print("%d mail names, median of %d rounds" % (args.size, args.runs))
        print("  dravnik-audit       %8.3f s" % audit_s)
        print("  find -printf ''     %8.3f s" % find_s)
        print("  ratio               %8.2f   (goal: at most 3)" % (audit_s / find_s))
    finally:
        sb.cleanup()


if __name__ == "__main__":
    main()
