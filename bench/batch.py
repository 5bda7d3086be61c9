#!/usr/bin/env python3
"""dravnik-batch against separate dravnik runs, on a large generated server.

On a server of N mail names (default 100,000, generated as bench/run.py
generates it), M new mail names (default 10,000) are added to a new domain,
each with a mailbox, a password and a quota: 3 M commands. With the
compiling qmail-newu stand-in in place, the script times

  - separate runs: a sample of S commands (default 300) run one by one as
    the panel runs them, scaled to 3 M;
  - dravnik-batch: all 3 M commands in one run (--checkpoint, default one
    checkpoint for all of them);
  - the floor: one copy-and-rename of users/assign, one compile, and the
    creation of the M mailbox trees with mkdir and chown alone, measured in
    the same sandbox.

A virtual machine's timings wander by a third from one minute to the next,
so the batch and its floor are timed in several rounds (default 3), side by
side; each round adds its own M names to a domain of its own, and the
server grows by M names a round. Every round is printed, and the median.

Usage: bench/batch.py [--names 100000] [--new 10000] [--sample 300] [--rounds 3]
                      [--checkpoint 0] [--build-dir build] [--tree-dir /dev/shm]
"""

import argparse
import json
import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import run as bench  # noqa: E402  (the generator and the sandbox of bench/run.py)

WORK = bench.WORK

# Inside the sandbox: times the given steps, each a list of argv with its
# standard input, and writes the seconds each step took.
TIMER = r'''
import json, os, subprocess, sys, time
plan = json.load(open(sys.argv[1]))
seconds = {}
for label, commands in plan:
    start = time.perf_counter()
    for c in commands:
        p = subprocess.run(c["argv"], input=(c.get("stdin") or "").encode(),
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=c["env"])
        if p.returncode != 0:
            sys.exit("%s: %s: %s" % (label, " ".join(c["argv"]), p.stdout.decode()))
    seconds[label] = time.perf_counter() - start
json.dump(seconds, open(sys.argv[2], "w"))
'''

# The floor's mailbox trees: mkdir and chown alone, nothing written.
TREES = r'''
import os, sys
root, count = sys.argv[1], int(sys.argv[2])
dirs = ("", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur", "/Maildir/.Spam",
        "/Maildir/.Spam/tmp", "/Maildir/.Spam/new", "/Maildir/.Spam/cur", "/@attachments")
os.mkdir(root)
for k in range(count):
    for d in dirs:
        path = "%s/floor%05d%s" % (root, k, d)
        os.mkdir(path, 0o700)
        os.chown(path, 110, 110)
'''


def domain_of(round_number):
    return "moved%d.example.net" % round_number


def commands(sb, names, domain=domain_of(0)):
    """The three commands of each mail name, as the panel runs them."""
    env = dict(bench.ENV, ZON_PASSWORD=bench.PASSWORD)
    out = []
    for name in names:
        common = ["--domain-name=" + domain, "--mailname=" + name]
        out += [{"argv": ["--add-mailname", *common, "--default-domain-quota=-1"]},
                {"argv": ["--add-mailbox", *common, "--mail-addresses", name],
                 "password": bench.PASSWORD},
                {"argv": ["--set-mailbox-disk-quota", *common, "--disk-quota=10485760",
                          "--wait-stdin"], "stdin": bench.session_json(domain, [name])}]
    for c in out:
        c["env"] = env
    return out


def timed(sb, plan):
    sb.write(WORK + "/timer.py", TIMER)
    sb.write(WORK + "/timer.plan.json", json.dumps(plan))
    r = sb.run_raw(["/usr/bin/python3", "-I", WORK + "/timer.py", WORK + "/timer.plan.json",
                    WORK + "/timer.result.json"], timeout=24 * 3600)
    if r.rc != 0:
        raise bench.BenchError("timing failed:\n%s%s" % (r.out, r.err))
    return json.loads(sb.read(WORK + "/timer.result.json"))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--names", type=int, default=100000)
    parser.add_argument("--new", type=int, default=10000)
    parser.add_argument("--sample", type=int, default=300)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--checkpoint", type=int, default=0,
                        help="commands per checkpoint; 0: one for the whole batch")
    parser.add_argument("--build-dir", type=Path, default=bench.REPO / "build")
    parser.add_argument("--tree-dir", default="/dev/shm")
    opts = parser.parse_args(argv)
    if opts.rounds < 1 or opts.sample < 3 or opts.new < 1:
        parser.error("--rounds and --new must be at least 1, --sample at least 3")
    opts.build_dir = opts.build_dir.absolute()
    opts.dravnik = opts.build_dir / "src" / "main" / "dravnik"
    batch = opts.build_dir / "src" / "batch" / "dravnik-batch"
    os.environ["DRAVNIK_SETUP"] = str(opts.build_dir / "src" / "setup" / "dravnik-setup")
    total = 3 * opts.new
    checkpoint = str(opts.checkpoint or total)
    users = os.path.dirname(bench.ASSIGN)

    sb = bench.new_sandbox(opts)
    try:
        print("generating %d mail names ..." % opts.names, file=sys.stderr, flush=True)
        bench.generate(sb, opts.names, bench.calibrate(sb))
        for k in range(opts.rounds):
            r = sb.run("--add-domain", "--domain-name=" + domain_of(k), "--wait-stdin",
                       stdin=bench.session_json(domain_of(k)))
            if r.rc != 0:
                raise bench.BenchError("adding %s failed:\n%s" % (domain_of(k), r))
        # Separate runs and the batch both compile, as on a real server.
        sb._install(bench.STANDINS / "qmail-newu", bench.QMAIL_NEWU)

        sample = commands(sb, ["solo%05d" % k for k in range(opts.sample // 3)])
        dravnik = str(sb.dravnik)
        separate = [dict(c, argv=[dravnik] + c["argv"]) for c in sample]
        for c in separate:
            c["env"] = dict(c.pop("env"))
            c.pop("password", None)
        sb.write(WORK + "/trees.py", TREES)
        plan = [["separate", separate]]
        for k in range(opts.rounds):
            bulk = commands(sb, ["bulk%05d" % j for j in range(opts.new)], domain_of(k))
            for c in bulk:
                c.pop("env")
                if "stdin" in c:
                    c["stdin"] = json.loads(c["stdin"])
            path = "%s/bulk%d.jsonl" % (WORK, k)
            sb.write(path, "".join(json.dumps(c) + "\n" for c in bulk), mode=0o600)
            plan += [
                ["batch%d" % k, [{"argv": [str(batch), "--checkpoint", checkpoint, path],
                                  "env": bench.ENV}]],
                ["copy%d" % k, [{"argv": ["/bin/sh", "-c", "cd %s && cat assign > assign.f && "
                                          "mv assign.f assign" % users], "env": bench.ENV}]],
                ["compile%d" % k, [{"argv": [bench.QMAIL_NEWU], "env": bench.ENV}]],
                ["trees%d" % k, [{"argv": ["/usr/bin/python3", WORK + "/trees.py",
                                           "%s/floor%d.test" % (bench.MAILNAMES_ROOT, k),
                                           str(opts.new)], "env": bench.ENV}]],
            ]
        print("timing ...", file=sys.stderr, flush=True)
        seconds = timed(sb, plan)
    finally:
        sb.cleanup()

    separate_all = seconds["separate"] / len(separate) * total
    print("N=%d, %d new mail names (%d commands) a round, checkpoint %s" %
          (opts.names, opts.new, total, checkpoint))
    print("  separate runs (%d timed, scaled) %10.1f s" % (len(separate), separate_all))
    ratios = []
    for k in range(opts.rounds):
        floor = seconds["copy%d" % k] + seconds["compile%d" % k] + seconds["trees%d" % k]
        ratios.append((seconds["batch%d" % k] / floor, seconds["batch%d" % k], floor))
        print("  round %d: dravnik-batch %.1f s; floor: copy-and-rename %.3f s + compile %.3f s "
              "+ mkdir/chown %.1f s = %.1f s; batch / floor %.1fx" %
              (k + 1, seconds["batch%d" % k], seconds["copy%d" % k], seconds["compile%d" % k],
               seconds["trees%d" % k], floor, ratios[-1][0]))
    ratio, batch_seconds, _ = sorted(ratios)[len(ratios) // 2]
    print("  median round: speed-up %.0fx (target >= 100x); batch / floor %.1fx (target <= 3x)" %
          (separate_all / batch_seconds, ratio))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except bench.BenchError as e:
        sys.exit(str(e))
