"""The timing side of bench/auth.py, run inside the sandbox (in a private
network, with the sandbox's python): one check against dravnik's start-up,
refusals against each other, and IMAP logins through Dovecot with each
configuration in turn.

Usage: python3 -I auth_driver.py PLAN_JSON RESULT_JSON
"""
import json
import os
import random
import subprocess
import sys
import time

sys.dont_write_bytecode = True   # nothing may be written into the work tree
PLAN = json.load(open(sys.argv[1]))
sys.path.insert(0, PLAN["tests_dir"])
import login_driver  # noqa: E402  (Dovecot's start and the loopback clients)

ENV = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}


def timed(argv, request=None):
    """Wall time of one run of `argv`, with `request` on descriptor 3; the
    exit status must be the one the plan expects, checked by the caller."""
    if request is not None:
        r, w = os.pipe()
        os.write(w, request.encode())
        os.close(w)
        if r != 3:
            os.dup2(r, 3)
            os.close(r)
    try:
        start = time.perf_counter()
        p = subprocess.run(argv, env=ENV, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.PIPE, pass_fds=(3,) if request is not None else ())
        elapsed = time.perf_counter() - start
    finally:
        if request is not None:
            os.close(3)
    return p.returncode, elapsed, p.stderr.decode(errors="replace")


def expect(label, status, want, err):
    if status != want:
        raise SystemExit("%s: exit status %d, expected %d: %s" % (label, status, want, err))


def login_request(address, password):
    return "%s\0%s\0\0" % (address, password)


def start_up(plan):
    """Interleaved: dravnik --help-commands, then one accepted check (the
    program it runs is /bin/true); the first round warms the caches."""
    times = {"start-up": [], "check": []}
    rnd = random.Random(1)
    for number in range(plan["startup_rounds"] + 1):
        status, help_s, err = timed([plan["dravnik"], "--help-commands"])
        expect("--help-commands", status, 0, err)
        address = rnd.choice(plan["addresses"])
        status, check_s, err = timed([plan["auth"], "/bin/true"],
                                     login_request(address, plan["password"]))
        expect("check of " + address, status, 0, err)
        if number:
            times["start-up"].append(help_s)
            times["check"].append(check_s)
    return times


def refusals(plan):
    """Each kind of refusal once per round, in a shuffled order, each time
    with another address."""
    rnd = random.Random(2)
    kinds = {
        "unknown address": lambda: (rnd.choice(plan["unknown"]), plan["password"]),
        "unknown domain": lambda: ("mailbox00@no-%d.example.org" % rnd.randrange(10 ** 6),
                                   plan["password"]),
        "wrong password (encrypted)": lambda: (rnd.choice(plan["addresses"]), plan["wrong"]),
        "wrong password (SHA-512-crypt)": lambda: (rnd.choice(plan["hashed"]), plan["wrong"]),
    }
    times = {kind: [] for kind in kinds}
    order = list(kinds)
    for number in range(plan["refusal_rounds"] + 1):
        rnd.shuffle(order)
        for kind in order:
            address, password = kinds[kind]()
            status, elapsed, err = timed([plan["auth"], "/bin/true"],
                                         login_request(address, password))
            expect("%s (%s)" % (kind, address), status, 1, err)
            if number:
                times[kind].append(elapsed)
    # The hashed users do log in with their password: their check ran crypt(3).
    status, _, err = timed([plan["auth"], "/bin/true"],
                           login_request(plan["hashed"][0], plan["password"]))
    expect("hashed user " + plan["hashed"][0], status, 0, err)
    return times


def stop_dovecot(config, base_dir):
    subprocess.run(["/usr/bin/doveadm", "-c", config, "stop"], check=False,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 30
    while os.path.exists(os.path.join(base_dir, "master.pid")):
        if time.monotonic() > deadline:
            raise SystemExit("dovecot did not stop (%s)" % config)
        time.sleep(0.05)


def imap_logins(config, base_dir, logins):
    """Seconds for `logins` (address, password) IMAP logins and logouts, one
    after the other, through a Dovecot started for them alone."""
    subprocess.run(["/usr/sbin/dovecot", "-c", config], check=True)
    try:
        deadline = time.monotonic() + 30
        login_driver.wait_for(login_driver.IMAP_PORT, deadline)
        login_driver.wait_for_greetings(deadline)
        start = time.perf_counter()
        for address, password in logins:
            conn = login_driver.IMAP("127.0.0.1", login_driver.IMAP_PORT)
            try:
                conn.login(address, password)
            except login_driver.imaplib.IMAP4.error as e:
                raise SystemExit("IMAP login of %s refused (%s): %s" % (address, config, e))
            conn.logout()
        return time.perf_counter() - start
    finally:
        stop_dovecot(config, base_dir)


def dovecot(plan):
    """Each configuration once per round, alternating; the first round warms
    the caches and is not counted."""
    rnd = random.Random(3)
    logins = [(a, plan["password"]) for a in rnd.sample(plan["addresses"], plan["logins"])]
    times = {name: [] for name in plan["dovecot"]}
    for number in range(plan["dovecot_rounds"] + 1):
        for name, setup in plan["dovecot"].items():
            # The warm-up round logs in a tenth as many.
            elapsed = imap_logins(setup["config"], setup["base_dir"],
                                  logins if number else logins[:len(logins) // 10])
            if number:
                times[name].append(elapsed)
    return times


def main():
    result = {"start-up": start_up(PLAN), "refusals": refusals(PLAN)}
    if PLAN["logins"]:
        result["dovecot"] = dovecot(PLAN)
    json.dump(result, open(sys.argv[2], "w"))


if __name__ == "__main__":
    main()
