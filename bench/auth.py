#!/usr/bin/env python3
"""How long dravnik-auth takes on a large mail server: one check against
dravnik's own start-up, a refusal of an unknown address against one of a
wrong password, and IMAP logins through Dovecot with dravnik-auth against
Dovecot's own passwd-file holding the same users.

The server is the one bench/run.py generates (N mail names over N/10
domains, each with a mailbox and a password stored encrypted, checked
against what the program itself writes); the mail names mailbox09 of the
first hundred domains get a SHA-512-crypt hash instead, as
ZON_CRYPTED_PASSWORD leaves it; then one run of the program (an alias in
the first domain) compiles it with the sandbox's compiling qmail-newu
stand-in, so that dravnik-auth finds homes in users/cdb as on a live
server.  Inside one sandbox session, in a network
namespace of its own that holds only a loopback interface, a driver
(bench/auth_driver.py) then times, the first round of each part discarded:

  - start-up: dravnik --help-commands and one accepted check (the program
    it runs is /bin/true), interleaved;
  - refusals: an unknown mail name of a known domain, an unknown domain, a
    wrong password for an encrypted and for a hashed one, in shuffled
    order each round;
  - Dovecot (checkpassword configuration as shipped, auth cache off), and
    Dovecot with a passwd-file passdb and userdb of the same users, once
    with {PLAIN} and once with {SHA512-CRYPT} passwords: the same logins
    (IMAP LOGIN and LOGOUT, one after the other), the configurations
    alternating round by round.

Run as root:  /usr/bin/python3 bench/auth.py [--size 100000] [--runs 200]
                  [--logins 1000] [--dovecot-rounds 3] [--build-dir build]
                  [--tree-dir /dev/shm]
"""

import argparse
import json
import os
import random
import sqlite3
import statistics
import subprocess
import sys
from pathlib import Path
from types import SimpleNamespace

BENCH_DIR = Path(__file__).resolve().parent
sys.dont_write_bytecode = True   # nothing may be written into the work tree
sys.path.insert(0, str(BENCH_DIR))
sys.path.insert(0, str(BENCH_DIR.parent / "tests"))

import run  # noqa: E402  (the generator and its sandbox)
import test_logins  # noqa: E402  (Dovecot's base configuration and accounts)

HASHED_DOMAINS = 100
STARTUP_TARGET = 2.0
TIMING_TARGET = 0.05


def hash_passwords(sb, count):
    """mailbox09 of the first `count` generated domains gets a SHA-512-crypt
    hash of the same password in place of the encrypted one."""
    hashed = subprocess.run(["openssl", "passwd", "-6", run.PASSWORD], capture_output=True,
                            text=True, check=True).stdout.strip()
    names = [(run.domain_name(i), run.mail_name(run.NAMES_PER_DOMAIN - 1))
             for i in range(1, count + 1)]
    db = sqlite3.connect(str(sb.path(run.AUTH_DB)))
    try:
        with db:
            db.executemany("UPDATE users SET userPassword = NULL, cmusaslsecretPLAIN = ? "
                           "WHERE name = ? AND dom_id = (SELECT id FROM domains WHERE name = ?)",
                           [(hashed, n, d) for d, n in names])
    finally:
        db.close()
    return ["%s@%s" % (n, d) for d, n in names], hashed


def compile_once(sb):
    """users/cdb as on a live server: compiled from the whole generated
    users/assign by a run of the program (an alias in the first domain), so
    that the compile ledger says every edit is in it and dravnik-auth reads
    homes from it."""
    sb._install(run.STANDINS / "qmail-newu", run.QMAIL_NEWU)
    owner = run.mail_name(0)
    r = sb.run("--add-alias", "--domain-name=" + run.domain_name(0), "--mailname=" + owner,
               "--alias=bench-compiled", "--mail-addresses", owner, timeout=600)
    if r.rc != 0:
        raise run.BenchError("the compile of the generated server failed: " + r.err)


def passwd_file_config(sb, directory, users, password_field):
    """A Dovecot configuration whose passdb and userdb are one passwd-file
    holding `users` with `password_field` as each one's password."""
    home = run.MAILNAMES_ROOT + "/%s/%s"
    lines = ["%s@%s:%s:%d:%d::%s::\n" % (n, d, password_field, run.POPUSER_UID,
                                         run.POPUSER_GID, home % (d, n)) for d, n in users]
    # Read by Dovecot's auth process, which runs as its internal user.
    sb.write(directory + "/users.passwd", "".join(lines), mode=0o644)
    sb.write(directory + "/dovecot.conf", test_logins.BASE_CONFIG.format(dir=directory))
    sb.write(directory + "/auth.conf.ext",
             "mail_location = maildir:~/Maildir\n"
             "passdb {\n  driver = passwd-file\n  args = %s/users.passwd\n}\n"
             "userdb {\n  driver = passwd-file\n  args = %s/users.passwd\n}\n"
             % (directory, directory))
    return {"config": directory + "/dovecot.conf", "base_dir": directory + "/run"}


def median_ms(times):
    return statistics.median(times) * 1000


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--size", type=int, default=100000, help="mail names (default 100000)")
    parser.add_argument("--runs", type=int, default=200,
                        help="timed rounds of the start-up and refusal parts (default 200)")
    parser.add_argument("--logins", type=int, default=1000,
                        help="IMAP logins per configuration and round (default 1000; 0 skips "
                             "Dovecot)")
    parser.add_argument("--dovecot-rounds", type=int, default=3,
                        help="timed rounds of the Dovecot part (default 3)")
    parser.add_argument("--build-dir", type=Path, default=run.REPO / "build")
    parser.add_argument("--tree-dir", default="/dev/shm",
                        help="where the mail tree lives ('' for the sandbox's own disk)")
    args = parser.parse_args()
    dravnik = (args.build_dir / "src" / "main" / "dravnik").absolute()
    auth = (args.build_dir / "src" / "auth" / "dravnik-auth").absolute()
    for program in (dravnik, auth):
        if not os.access(program, os.X_OK):
            parser.error("%s is missing: build it (ninja -C %s)" % (program, args.build_dir))
    domains = args.size // run.NAMES_PER_DOMAIN
    if domains < HASHED_DOMAINS + 2 or args.runs < 1 or args.dovecot_rounds < 1:
        parser.error("--size must be at least %d, --runs and --dovecot-rounds at least 1"
                     % ((HASHED_DOMAINS + 2) * run.NAMES_PER_DOMAIN))
    if not 0 <= args.logins <= (domains - HASHED_DOMAINS - 1) * run.NAMES_PER_DOMAIN:
        parser.error("--logins must be between 0 and the encrypted mail names")
    if os.geteuid() != 0:
        parser.error("run as root: the sandbox runs the programs as root")
    os.environ["DRAVNIK_SETUP"] = str(args.build_dir / "src" / "setup" / "dravnik-setup")
    test_logins.AUTH = auth   # the shipped configuration, pointed at this build

    sb = run.new_sandbox(SimpleNamespace(dravnik=dravnik, tree_dir=args.tree_dir))
    try:
        print("generating a server of %d mail names ..." % args.size, file=sys.stderr,
              flush=True)
        run.generate(sb, args.size, run.calibrate(sb))
        hashed, hashed_password = hash_passwords(sb, HASHED_DOMAINS)
        compile_once(sb)
        encrypted = [(run.domain_name(i), run.mail_name(j))
                     for i in range(HASHED_DOMAINS + 1, domains)
                     for j in range(run.NAMES_PER_DOMAIN)]
        rnd = random.Random(0)
        plan = {
            "tests_dir": str(run.REPO / "tests"),
            "dravnik": str(dravnik), "auth": str(auth),
            "password": run.PASSWORD, "wrong": run.PASSWORD[:-1] + "X",
            "addresses": ["%s@%s" % (n, d) for d, n in encrypted],
            "hashed": hashed,
            "unknown": ["nobody%05d@%s" % (k, run.domain_name(rnd.randrange(1, domains)))
                        for k in range(args.runs + 1)],
            "startup_rounds": args.runs, "refusal_rounds": args.runs,
            "logins": args.logins, "dovecot_rounds": args.dovecot_rounds, "dovecot": {},
        }
        if args.logins:
            test_logins.install_dovecot(sb, "checkpassword")
            plan["dovecot"]["dravnik-auth (checkpassword)"] = {
                "config": test_logins.DOVECOT_DIR + "/dovecot.conf",
                "base_dir": test_logins.DOVECOT_DIR + "/run"}
            every = [(run.domain_name(i), run.mail_name(j)) for i in range(domains)
                     for j in range(run.NAMES_PER_DOMAIN)]
            for name, field in (("passwd-file {PLAIN}", "{PLAIN}" + run.PASSWORD),
                                ("passwd-file {SHA512-CRYPT}",
                                 "{SHA512-CRYPT}" + hashed_password)):
                directory = run.WORK + "/dovecot-" + name.split()[1].strip("{}").lower()
                plan["dovecot"][name] = passwd_file_config(sb, directory, every, field)
        sb.write(run.WORK + "/auth.plan.json", json.dumps(plan))
        result_path = run.WORK + "/auth.result.json"
        r = sb.run_raw([run.sandbox_module.PYTHON, "-I", str(BENCH_DIR / "auth_driver.py"),
                        run.WORK + "/auth.plan.json", result_path],
                       private_network=True, timeout=7200)
        if r.rc != 0:
            sys.exit("the benchmark failed:\n%s%s" % (r.out, r.err))
        result = json.loads(sb.read(result_path))
    finally:
        sb.cleanup()
    report(args, result)


def report(args, result):
    start = result["start-up"]
    help_ms, check_ms = median_ms(start["start-up"]), median_ms(start["check"])
    print("dravnik-auth on %d mail names; medians of %d rounds in ms; load average %.2f"
          % (args.size, args.runs, os.getloadavg()[0]))
    print("  dravnik --help-commands          %8.2f" % help_ms)
    print("  one accepted check               %8.2f   %.2f x start-up (goal: at most %.0f)"
          % (check_ms, check_ms / help_ms, STARTUP_TARGET))
    refusals = {kind: median_ms(t) for kind, t in result["refusals"].items()}
    base = refusals["wrong password (encrypted)"]
    for kind, ms in refusals.items():
        print("  refused: %-24s %8.2f   %+.1f%% against a wrong password (encrypted)"
              % (kind, ms, (ms / base - 1) * 100))
    if "dovecot" in result:
        print("IMAP logins through Dovecot, %d a round, median of %d rounds:"
              % (args.logins, args.dovecot_rounds))
        rates = {name: args.logins / statistics.median(t)
                 for name, t in result["dovecot"].items()}
        ours = rates["dravnik-auth (checkpassword)"]
        for name, rate in rates.items():
            print("  %-30s %7.1f logins/s   (rounds: %s s)   dravnik-auth / this: %.2f"
                  % (name, rate, ", ".join("%.1f" % s for s in result["dovecot"][name]),
                     ours / rate))


if __name__ == "__main__":
    main()
