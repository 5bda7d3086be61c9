#!/usr/bin/env python3
"""How long dravnik-export takes on a large mail server, next to the least
that reading the same server costs, and how long the whole move of that
server to an empty one takes.

The server is the one bench/run.py generates (N mail names over N/10
domains, each with a mailbox and an encrypted password, checked against what
the program itself writes), compiled once with the qmail-newu stand-in.

  - export: inside one sandbox session, in interleaved rounds (the first
    discarded), dravnik-export to a file, and the floor: find
    /var/qmail/mailnames -printf '' plus sqlite3 passwd.db .dump; the
    medians and their ratio.
  - the move: the export applied by dravnik-batch --checkpoint 200000 to an
    empty sandbox prepared by dravnik-setup (with the compiling qmail-newu
    stand-in), then dravnik-audit and dravnik-export there; each step's wall,
    user and system time.  The audit must find nothing and the second
    export must equal the first, or the benchmark stops.

Run as root:  /usr/bin/python3 bench/export.py [--size 100000] [--runs 3]
                  [--build-dir build] [--tree-dir /dev/shm] [--perf]
"""

import argparse
import json
import os
import statistics
import sys
from pathlib import Path
from types import SimpleNamespace

sys.dont_write_bytecode = True   # nothing may be written into the work tree
sys.path.insert(0, str(Path(__file__).resolve().parent))

import run  # noqa: E402  (the generator and its sandbox)

OUT = "/var/lib/tavix/export.jsonl"
CHECKPOINT = "200000"

# Inside the sandbox: runs the plan's steps round by round, each step's
# commands one after the other, and gives each step's wall, user and system
# seconds (the children's), its exit statuses and the last command's output.
DRIVER = r'''
import json, os, subprocess, sys, time
plan = json.load(open(sys.argv[1]))
result = {}
for number in range(plan["rounds"]):
    for label, commands in plan["steps"]:
        wall = user = system = 0.0
        for c in commands:
            out = open(c["stdout"], "wb") if c.get("stdout") else subprocess.DEVNULL
            before = os.times()
            start = time.perf_counter()
            p = subprocess.run(c["argv"], stdout=out, stderr=subprocess.PIPE,
                               env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})
            wall += time.perf_counter() - start
            after = os.times()
            user += after.children_user - before.children_user
            system += after.children_system - before.children_system
            if c.get("stdout"):
                out.close()
            if p.returncode not in c.get("ok", [0]):
                sys.exit("%s: exit status %d: %s" % (" ".join(c["argv"]), p.returncode,
                                                     p.stderr.decode(errors="replace")[-3000:]))
        if number >= plan.get("warm_up", 0):
            entry = result.setdefault(label, {"wall": [], "user": [], "system": []})
            entry["wall"].append(wall)
            entry["user"].append(user)
            entry["system"].append(system)
json.dump(result, open(sys.argv[2], "w"))
'''


def timed(sb, name, steps, rounds=1, warm_up=0):
    sb.write(run.WORK + "/export-driver.py", DRIVER)
    plan = run.WORK + "/%s.plan.json" % name
    sb.write(plan, json.dumps({"steps": steps, "rounds": rounds, "warm_up": warm_up}))
    result = run.WORK + "/%s.result.json" % name
    r = sb.run_raw([run.sandbox_module.PYTHON, "-I", run.WORK + "/export-driver.py", plan,
                    result], timeout=24 * 3600)
    if r.rc != 0:
        raise run.BenchError("%s failed:\n%s%s" % (name, r.out, r.err))
    return json.loads(sb.read(result))


def step(*argv, stdout=None, ok=(0,)):
    return {"argv": [str(a) for a in argv], "stdout": stdout, "ok": list(ok)}


def perf_argv(opts, label, argv):
    """`argv` under perf record when --perf is given: the profile goes to
    the sandbox's work directory, one file per step."""
    if not opts.perf:
        return list(argv)
    return ["perf", "record", "-q", "-F", "199", "-g", "-o",
            "%s/%s.perf.data" % (run.WORK, label), "--",
            *argv]


def perf_report(sb, opts, label):
    if not opts.perf:
        return ""
    r = sb.run_raw(["perf", "report", "-q", "--stdio", "--no-children", "--percent-limit", "2",
                    "--sort", "dso,sym", "-g", "none", "-i",
                    "%s/%s.perf.data" % (run.WORK, label)], timeout=600)
    return "\n  ".join(["perf, %s (self time by library and symbol, 2%% and over):" % label]
                       + [line.strip() for line in r.out.splitlines() if line.strip()][:25])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--size", type=int, default=100000, help="mail names (default 100000)")
    parser.add_argument("--runs", type=int, default=3, help="timed export rounds (default 3)")
    parser.add_argument("--build-dir", type=Path, default=run.REPO / "build")
    parser.add_argument("--tree-dir", default="/dev/shm",
                        help="where the mail trees live ('' for the sandbox's own disk)")
    parser.add_argument("--perf", action="store_true",
                        help="also profile one export and the batch with perf record")
    opts = parser.parse_args()
    build = opts.build_dir.absolute()
    dravnik = build / "src" / "main" / "dravnik"
    export = build / "src" / "export" / "dravnik-export"
    batch = build / "src" / "batch" / "dravnik-batch"
    audit = build / "src" / "audit" / "dravnik-audit"
    for program in (dravnik, export, batch, audit):
        if not os.access(program, os.X_OK):
            parser.error("%s is missing: build it (ninja -C %s)" % (program, opts.build_dir))
    if opts.size < 2 * run.NAMES_PER_DOMAIN or opts.runs < 1:
        parser.error("--size must be at least %d and --runs at least 1"
                     % (2 * run.NAMES_PER_DOMAIN))
    if os.geteuid() != 0:
        parser.error("run as root: the sandbox runs the programs as root")
    os.environ["DRAVNIK_SETUP"] = str(build / "src" / "setup" / "dravnik-setup")
    sandbox_opts = SimpleNamespace(dravnik=dravnik, tree_dir=opts.tree_dir)
    notes = []

    source = run.new_sandbox(sandbox_opts)
    try:
        print("generating a server of %d mail names ..." % opts.size, file=sys.stderr,
              flush=True)
        run.generate(source, opts.size, run.calibrate(source))
        if source.run_raw([run.CHECKER]).rc != 0:
            raise run.BenchError("the generated users/assign does not compile")
        print("timing the export ...", file=sys.stderr, flush=True)
        reading = timed(source, "export", [
            ["export", [step(export, OUT)]],
            ["find", [step("find", run.MAILNAMES_ROOT, "-printf", "")]],
            ["sqlite3 .dump", [step("sqlite3", run.AUTH_DB, ".dump", stdout="/dev/null")]],
        ], rounds=opts.runs + 1, warm_up=1)
        text = source.read(OUT)
        if opts.perf:
            timed(source, "export-perf", [["export", [step(*perf_argv(opts, "export",
                                                                      [export, OUT]))]]])
            notes.append(perf_report(source, opts, "export"))
    finally:
        source.cleanup()

    target = run.new_sandbox(sandbox_opts)
    try:
        # The batch compiles users/assign as on a real server.
        target._install(run.STANDINS / "qmail-newu", run.QMAIL_NEWU)
        target.write(OUT, text, mode=0o600)
        print("timing the move ...", file=sys.stderr, flush=True)
        results = run.WORK + "/batch.results.jsonl"
        move = timed(target, "move", [
            ["dravnik-batch --checkpoint " + CHECKPOINT,
             [step(*perf_argv(opts, "batch", [batch, "--checkpoint", CHECKPOINT, OUT]),
                   stdout=results)]],
            ["dravnik-audit", [step(audit)]],
            ["dravnik-export (again)", [step(export, OUT + ".again")]],
        ])
        failed = [line for line in target.read(results).splitlines()
                  if json.loads(line).get("status") != 0]
        if failed:
            raise run.BenchError("%d commands of the batch failed, e.g. %s"
                                 % (len(failed), failed[0]))
        if target.read(OUT + ".again") != text:
            raise run.BenchError("the moved server's export differs from the source's")
        notes.append(perf_report(target, opts, "batch"))
    finally:
        target.cleanup()

    report(opts, reading, move, text, notes)


def report(opts, reading, move, text, notes):
    med = {label: {k: statistics.median(v) for k, v in times.items()}
           for label, times in reading.items()}
    floor = med["find"]["wall"] + med["sqlite3 .dump"]["wall"]
    lines = text.splitlines()
    kinds = {}
    for line in lines:
        word = json.loads(line)["argv"][0]
        kinds[word] = kinds.get(word, 0) + 1
    print("dravnik-export on %d mail names: median of %d rounds; load average %.2f"
          % (opts.size, opts.runs, os.getloadavg()[0]))
    print("  %-34s %8s %8s %8s" % ("", "wall s", "user s", "sys s"))
    for label in ("export", "find", "sqlite3 .dump"):
        print("  %-34s %8.2f %8.2f %8.2f" % (label, med[label]["wall"], med[label]["user"],
                                             med[label]["system"]))
    print("  export / (find + dump) = %.2f / %.2f = %.2f   (goal: at most 3)"
          % (med["export"]["wall"], floor, med["export"]["wall"] / floor))
    print("  rounds, export: %s s; find + dump: %s s" % (
        ", ".join("%.2f" % s for s in reading["export"]["wall"]),
        ", ".join("%.2f" % (a + b) for a, b in zip(reading["find"]["wall"],
                                                     reading["sqlite3 .dump"]["wall"]))))
    print("The move: %d lines (%s), %.1f MB" % (
        len(lines), ", ".join("%s %d" % kv for kv in sorted(kinds.items())),
        len(text.encode()) / 1e6))
    total = med["export"]["wall"]
    print("  %-34s %8.2f %8.2f %8.2f" % ("export (median above)", med["export"]["wall"],
                                         med["export"]["user"], med["export"]["system"]))
    for label, times in move.items():
        wall, user, system = times["wall"][0], times["user"][0], times["system"][0]
        if not label.startswith("dravnik-export"):
            total += wall
        print("  %-34s %8.2f %8.2f %8.2f" % (label, wall, user, system))
    print("  export + batch + audit: %.1f s" % total)
    for note in notes:
        if note:
            print(note)


if __name__ == "__main__":
    try:
        main()
    except run.BenchError as e:
        sys.exit("bench: %s" % e)
