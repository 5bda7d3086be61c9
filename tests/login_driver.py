#!/usr/bin/python3 -I
"""Starts Dovecot inside the sandbox and logs in as told; run by
test_logins.py with the sandbox's python, in the sandbox's private network.

Usage: login_driver.py CONFIG CHECKS_JSON

CHECKS_JSON is a list of [address, password]; for each the driver logs in
over IMAP (SELECT INBOX, FETCH of the first message) and over POP3 (RETR 1)
and prints one JSON list of {"imap": ..., "pop3": ...}, each either
{"ok": true, "body": <first message or "">} or {"ok": false, "error": text}.
"""
import imaplib
import json
import poplib
import socket
import subprocess
import sys
import time

IMAP_PORT = 10143
POP3_PORT = 10110

# Dovecot delays the logins from an address that has failed before, more
# with each failure; each login comes from an address of its own of the
# loopback network, so that a refusal does not hold up the next check.
_sources = ("127.0.%d.%d" % (n // 250, n % 250 + 2) for n in range(60000))


def _connect(host, port, timeout):
    return socket.create_connection((host, port), timeout, source_address=(next(_sources), 0))


class IMAP(imaplib.IMAP4):
    def _create_socket(self, timeout=None):
        return _connect(self.host, self.port, timeout)


class POP3(poplib.POP3):
    def _create_socket(self, timeout):
        return _connect(self.host, self.port, timeout)


def wait_for(port, deadline):
    while True:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return
        except OSError:
            if time.monotonic() > deadline:
                raise SystemExit("dovecot did not listen on port %d" % port)
            time.sleep(0.05)


def wait_for_greetings(deadline):
    """Until the auth process answers, the login processes greet with a
    BYE ("Auth process broken") and hang up: wait for a real greeting."""
    while True:
        try:
            IMAP("127.0.0.1", IMAP_PORT).logout()
            POP3("127.0.0.1", POP3_PORT).quit()
            return
        except (imaplib.IMAP4.error, poplib.error_proto, OSError, EOFError):
            if time.monotonic() > deadline:
                raise SystemExit("dovecot's auth process did not come up")
            time.sleep(0.1)


def imap_check(address, password):
    conn = IMAP("127.0.0.1", IMAP_PORT)
    try:
        # AUTHENTICATE PLAIN carries UTF-8, which LOGIN's quoted strings
        # in imaplib do not (an address with its domain in Unicode form).
        credentials = b"\0" + address.encode() + b"\0" + password.encode()
        conn.authenticate("PLAIN", lambda _: credentials)
        typ, data = conn.select("INBOX")
        if typ != "OK":
            return {"ok": False, "error": "SELECT %s" % data}
        count = int(data[0])
        body = ""
        if count:
            typ, data = conn.fetch("1", "(RFC822)")
            body = data[0][1].decode("utf-8", "replace")
        conn.logout()
        return {"ok": True, "body": body}
    except imaplib.IMAP4.error as e:
        return {"ok": False, "error": str(e)}


def pop3_check(address, password):
    conn = POP3("127.0.0.1", POP3_PORT)
    try:
        conn.user(address)
        conn.pass_(password)
        count, _ = conn.stat()
        body = ""
        if count:
            _, lines, _ = conn.retr(1)
            body = "\r\n".join(l.decode("utf-8", "replace") for l in lines) + "\r\n"
        conn.quit()
        return {"ok": True, "body": body}
    except poplib.error_proto as e:
        return {"ok": False, "error": str(e)}


def main():
    config, checks = sys.argv[1], json.loads(sys.argv[2])
    subprocess.run(["/usr/sbin/dovecot", "-c", config], check=True)
    deadline = time.monotonic() + 30
    wait_for(IMAP_PORT, deadline)
    wait_for(POP3_PORT, deadline)
    wait_for_greetings(deadline)
    results = [{"imap": imap_check(a, p), "pop3": pop3_check(a, p)} for a, p in checks]
    subprocess.run(["/usr/bin/doveadm", "-c", config, "stop"], check=False)
    print(json.dumps(results))


if __name__ == "__main__":
    main()
