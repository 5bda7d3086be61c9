"""dravnik-export: a server built by a mixed script of dravnik commands,
exported, applied by dravnik-batch to a fresh server and exported again,
gives the same export and the same mail setup; --domain carries exactly the
domains named; the export file is never given away; and what no command can
carry is named while the rest is still written."""

import json
import os
from pathlib import Path

import pytest

from conftest import sandbox_copy
from sandbox import Sandbox
from test_audit import audit
from test_batch import AUTH_KEY, CRYPT_HASH, run_batch
from test_cipher import python_decrypt
from test_domain_commands import AUTH_DB, add_handler, query
from test_logins import run_auth

EXPORT = os.environ.get("DRAVNIK_EXPORT") or str(
    Path(Sandbox.default_dravnik()).parent.parent / "export" / "dravnik-export")
OUT = "/var/lib/tavix/export.jsonl"
ROOT = "/var/qmail/mailnames"
# A crypt hash whose password the tests know (openssl passwd -6 -salt
# movedsalt cr4pt-moved), to log in with after the move.
MOVED_HASH = ("$6$movedsalt$FLgUKAQYj.xmflJTpGVOYqa62ox2mccXcm6tVxBp9t0HnZ.sc130ztClf9zPl2L/"
              "uINwEI00wXCoQPF2ewn1A/")


# ---------------------------------------------------------------------------
# The script: what a panel sends over the life of a server, with the session
# mail data it keeps for each domain.

class Panel:
    """Writes the commands, keeping each domain's session mail data as a
    panel would: its aliases, mail names, their aliases and own quotas."""

    def __init__(self):
        self.commands = []
        self.domains = {}

    def session(self, domain):
        d = self.domains[domain]
        mails = [dict({"name": m, "aliases": sorted(a)},
                      **({"mbox_quota": d["quotas"][m]} if m in d["quotas"] else {}))
                 for m, a in sorted(d["mails"].items())]
        # The document is ASCII: names in their IDNA form.
        ascii = lambda name: name.encode("idna").decode()
        return {"domain": {"name": ascii(domain), "dom_aliases": sorted(map(ascii, d["aliases"])),
                           "maillists": [], "mails": mails}}

    def run(self, word, domain, *words, password=None, crypted=None, stdin=True):
        command = {"argv": [word, "--domain-name=" + domain, *words]}
        if stdin:
            command["argv"].append("--wait-stdin")
            command["stdin"] = self.session(domain)
        if password is not None:
            command["password"] = password
        if crypted is not None:
            command["crypted_password"] = crypted
        self.commands.append(command)

    def add_domain(self, domain):
        self.domains[domain] = {"aliases": set(), "mails": {}, "quotas": {}}
        self.run("--add-domain", domain)

    def add_domain_alias(self, domain, alias, *action):
        self.domains[domain]["aliases"].add(alias)
        self.run("--add-domain-alias", domain, "--domain-alias-name=" + alias, *action)

    def del_domain_alias(self, domain, alias):
        self.run("--del-domain-alias", domain, "--domain-alias-name=" + alias)
        self.domains[domain]["aliases"].discard(alias)

    def add_mailbox(self, domain, name, n):
        self.domains[domain]["mails"][name] = set()
        self.run("--add-mailname", domain, "--mailname=" + name, "--disk-quota=-1")
        if n % 3 == 2:  # every third a crypt hash, the others in clear
            self.run("--add-mailbox", domain, "--mailname=" + name, crypted=CRYPT_HASH)
        else:
            self.run("--add-mailbox", domain, "--mailname=" + name,
                     password="p\u00e4ss-%s-%d" % (name, n))

    def add_alias(self, domain, name, alias):
        self.domains[domain]["mails"][name].add(alias)
        self.run("--add-alias", domain, "--mailname=" + name, "--alias=" + alias)

    def remove_alias(self, domain, name, alias):
        self.run("--remove-alias", domain, "--mailname=" + name, "--alias=" + alias)
        self.domains[domain]["mails"][name].discard(alias)

    def quota(self, domain, name, quota):
        self.run("--set-mailbox-disk-quota", domain, "--mailname=" + name,
                 "--disk-quota=%d" % quota)
        self.domains[domain]["quotas"][name] = quota

    def rename(self, domain, old, new, password):
        self.run("--rename-mailname", domain, "--old-mailname=" + old, "--new-mailname=" + new,
                 password=password)
        d = self.domains[domain]
        d["mails"][new] = d["mails"].pop(old)
        if old in d["quotas"]:
            d["quotas"][new] = d["quotas"].pop(old)

    def remove_mailname(self, domain, name):
        for alias in sorted(self.domains[domain]["mails"][name]):
            self.remove_alias(domain, name, alias)
        self.run("--remove-mailname", domain, "--mailname=" + name)
        del self.domains[domain]["mails"][name]
        self.domains[domain]["quotas"].pop(name, None)


def mixed_script():
    p = Panel()
    names = ["alpha.test", "b\u00fccher.test", "gamma.test", "delta.test", "epsilon.test",
             "old.test", "gone.test"]
    for domain in names:
        p.add_domain(domain)
    p.add_domain_alias("alpha.test", "alpha-reject.test", "--set-reject")
    p.add_domain_alias("alpha.test", "alpha-bounce.test", "--set-bounce", "--phrase=gone")
    p.add_domain_alias("alpha.test", "alpha-catch.test", "--set-catchall",
                       "--email=postmaster@alpha.test")
    p.add_domain_alias("b\u00fccher.test", "b\u00fccherei.test", "--set-reject")
    p.add_domain_alias("delta.test", "delta-alias.test", "--set-reject")
    p.add_domain_alias("epsilon.test", "epsilon-alias.test", "--set-bounce")
    p.add_domain_alias("gamma.test", "gamma-old.test", "--set-reject")
    for n, domain in enumerate(names):
        for k in range(10):
            p.add_mailbox(domain, "m%d" % k, n + k)
            if k % 2 == 0:
                p.add_alias(domain, "m%d" % k, "a%d" % k)
            if k % 4 == 1:
                p.add_alias(domain, "m%d" % k, "b%d" % k)
        for k in range(2):  # mail names without a mailbox
            p.domains[domain]["mails"]["n%d" % k] = set()
            p.run("--add-mailname", domain, "--mailname=n%d" % k,
                  "--disk-quota=%d" % (300000 * k - 1))
        p.quota(domain, "m1", 2048000)
        p.quota(domain, "m3", 0)
        p.quota(domain, "m5", -1)
        p.run("--set-password", domain, "--mailname=m4", password="changed-%d" % n)
        p.run("--set-password", domain, "--mailname=m7", crypted=CRYPT_HASH)
        p.rename(domain, "m2", "r2", "p\u00e4ss-m2-%d" % (n + 2))
        p.remove_alias(domain, "m0", "a0")
        p.run("--remove-mailbox", domain, "--mailname=m6")
        p.remove_mailname(domain, "m8")
    p.run("--set-password", "alpha.test", "--mailname=m9", crypted=MOVED_HASH)
    p.run("--set-domain-disk-quota", "gamma.test", "--disk-quota=5000000")
    p.del_domain_alias("gamma.test", "gamma-old.test")
    for domain in ("delta.test", "epsilon.test"):
        p.run("--turn-off-domain", domain)
    p.run("--turn-on-domain", "epsilon.test", "--set-reject")
    p.add_domain_alias("delta.test", "delta-late.test", "--set-bounce")  # while off
    p.commands.append({"argv": ["--rename-domain", "--old-domain-name=old.test",
                                "--new-domain-name=renamed.test"]})
    p.domains["renamed.test"] = p.domains.pop("old.test")
    p.add_mailbox("renamed.test", "after", 1)
    p.run("--remove-domain", "gone.test")
    return p.commands


# ---------------------------------------------------------------------------
# Comparing servers

def export(sb, *args, out=OUT, expect=0):
    r = sb.run_raw([EXPORT, *args, out] if out else [EXPORT, *args])
    assert r.rc == expect, r
    return r


def exported(sb, *args):
    export(sb, *args)
    return sb.read(OUT)


def apply(sb, text):
    r = run_batch(sb, [text])
    assert r.rc == 0, r
    failed = [line for line in r.out.splitlines() if json.loads(line)["status"] != 0]
    assert not failed, failed
    return r


def mail_setup(sb):
    """What the commands leave, as far as a move must carry it: qmail's line
    files as sets of lines (the order is that of the commands, which qmail
    does not care for), the mail tree's names, owners and modes with the
    .qmail, .qmail-default and maildirsize limits, and the records of the
    authentication database with their passwords decrypted."""
    files = {}
    for top in ("/var/qmail/control", "/var/qmail/users", ROOT):
        for dirpath, dirnames, filenames in os.walk(sb.path(top)):
            for name in dirnames + filenames:
                path = os.path.join(dirpath, name)
                st = os.lstat(path)
                relative = "/" + os.path.relpath(path, sb.root)
                if name in dirnames:
                    body = None
                elif relative == "/var/qmail/users/cdb":
                    body = "compiled"
                elif name == "maildirsize":
                    body = Path(path).read_text().splitlines()[0]
                elif relative.startswith(ROOT):
                    body = Path(path).read_text()
                else:
                    body = sorted(Path(path).read_text().splitlines())
                files[relative] = (st.st_mode, st.st_uid, st.st_gid, body)
    key = sb.path(AUTH_KEY).read_bytes()[:32]
    users = sorted((d, ds, u, p and python_decrypt(key, p), raw, us) for d, ds, u, p, raw, us in
                   query(sb, AUTH_DB, "SELECT d.name, d.status, u.name, u.userPassword, "
                         "u.cmusaslsecretPLAIN, u.status FROM users u JOIN domains d "
                         "ON u.dom_id = d.id"))
    # A domain's row stays when its last mailbox goes; no command makes a
    # row without a mailbox, and none reads one.
    domains = sorted(query(sb, AUTH_DB, "SELECT name, status FROM domains WHERE id IN "
                           "(SELECT dom_id FROM users)"))
    return files, users, domains


def differences(one, other):
    paths = sorted(p for p in set(one[0]) | set(other[0]) if one[0].get(p) != other[0].get(p))
    return paths + [t for t, a, b in zip(("users", "domains"), one[1:], other[1:]) if a != b]


@pytest.fixture(scope="module")
def source():
    """The server built by the mixed script, with what a domain rename
    leaves by design (the old wildcard line) tidied by the audit."""
    with Sandbox() as sb:
        sb.init_databases()
        lines = [json.dumps(c) + "\n" for c in mixed_script()]
        assert len(lines) >= 300
        r = run_batch(sb, lines)
        assert r.rc == 0, [l for l in r.out.splitlines() if json.loads(l)["status"] != 0]
        assert audit(sb, "--repair")[0] == 0
        assert audit(sb) == (0, [])
        yield sb.root


@pytest.fixture
def first(source):
    yield from sandbox_copy(source)


def test_round_trip_gives_the_same_export_and_the_same_setup(first, mail_sandbox):
    second = mail_sandbox
    r = export(first)
    assert "rsync -aHAX root@" in r.err and ":%s/ %s/" % (ROOT, ROOT) in r.err, r.err
    text = first.read(OUT)
    for word in ("--turn-off-domain", "--set-reject", "\"crypted_password\"", "xn--bcher-kva",
                 "--set-mailbox-disk-quota"):
        assert word in text

    second.write(OUT, text, mode=0o600)
    apply(second, text)
    assert exported(second) == text
    assert differences(mail_setup(first), mail_setup(second)) == []
    assert audit(second) == (0, [])
    # The moved passwords open their mailboxes on the second server, one
    # stored encrypted (a Unicode password, the domain in Unicode form) and
    # one a crypt hash; a wrong one still does not.
    for login, password, status in [
            ("m0@b\u00fccher.test", "p\u00e4ss-m0-1", 0),
            ("m9@alpha.test", "cr4pt-moved", 0),
            ("m9@alpha.test", "cr4pt-moveD", 1),
            ("m4@alpha.test", "p\u00e4ss-m4-4", 1)]:  # changed by --set-password
        r = run_auth(second, b"%s\0%s\0\0" % (login.encode(), password.encode()))
        assert r.rc == status, (login, r)
        if status == 0:
            home = "HOME=%s/%s/%s" % (ROOT, login.split("@")[1].encode("idna").decode(),
                                      login.split("@")[0])
            assert home in r.out.splitlines(), r


def test_domain_adds_exactly_those_domains(first, mail_sandbox):
    target = mail_sandbox
    # The target already holds two domains of its own.
    mine = "".join(json.dumps({"argv": ["--add-domain", "--domain-name=" + d, "--wait-stdin"],
                               "stdin": {"domain": {"name": d, "dom_aliases": [], "maillists": [],
                                                    "mails": []}}}) + "\n"
                   for d in ("own-one.test", "own-two.test"))
    apply(target, mine)
    before = exported(target)

    two = exported(first, "--domain=alpha.test", "--domain=b\u00fccher.test")
    assert {json.loads(l)["argv"][1] for l in two.splitlines()} == {
        "--domain-name=alpha.test", "--domain-name=xn--bcher-kva.test"}
    apply(target, two)
    assert exported(target, "--domain=own-one.test", "--domain=own-two.test") == before
    assert exported(target, "--domain=alpha.test", "--domain=xn--bcher-kva.test") == two
    whole = exported(target)
    assert sorted(whole.splitlines()) == sorted(before.splitlines() + two.splitlines())


@pytest.mark.parametrize("make, why", [
    (lambda sb: sb.write(OUT, "old\n", mode=0o644), "open to its group or others"),
    (lambda sb: os.symlink("/etc/passwd", sb.path(OUT)), "is a symbolic link"),
    (lambda sb: (sb.write(OUT, "old\n", mode=0o600), os.chown(sb.path(OUT), 110, 110)),
     "is not root's"),
])
def test_an_export_file_that_others_could_read_is_refused(first, make, why):
    make(first)
    before = os.lstat(first.path(OUT)), (first.read(OUT) if why != "is a symbolic link" else "")
    r = export(first, expect=2)
    assert why in r.err and r.out == "", r
    after = os.lstat(first.path(OUT)), (first.read(OUT) if why != "is a symbolic link" else "")
    assert after == before


def test_export_file_is_made_for_root_alone_and_standard_output_works(first):
    export(first)
    st = os.lstat(first.path(OUT))
    assert (st.st_uid, st.st_mode & 0o7777) == (0, 0o600)
    export(first)  # an export of its own is replaced
    assert export(first, out="-").out == first.read(OUT)


def test_inconsistencies_are_named_and_the_rest_exported(first):
    clean = first.read(OUT) if first.exists(OUT) else exported(first)
    alpha = ROOT + "/alpha.test"
    first.write(alpha + "/.qmail-default", "&someone@else.test\n", mode=0o600)
    os.chown(first.path(alpha + "/.qmail-default"), 110, 110)
    add_handler(first, "m1@alpha.test")
    first.write("/etc/domainkeys/gamma.test/default", "key\n", mode=0o440)
    os.mkdir(first.path(ROOT + "/gamma.test/ghost"), 0o700)  # orphan-directory
    query(first, AUTH_DB, "UPDATE users SET cmusaslsecretPLAIN = 'own', userPassword = NULL "
          "WHERE name = 'a4' AND dom_id = (SELECT id FROM domains WHERE name = 'alpha.test')")
    r = export(first, expect=1)
    for named in ("alpha.test: not carried: its .qmail-default",
                  "m1@alpha.test: not carried: its mail handlers",
                  "gamma.test: not carried: its DomainKeys",
                  "gamma.test: orphan-directory ghost",
                  "a4@alpha.test: not carried: its own password"):
        assert named in r.err, (named, r.err)
    assert "5 omissions" in r.err
    # Nothing else changed: the same lines as the clean server's.
    assert first.read(OUT) == clean


def test_unreadable_database_exports_nothing(first):
    first.write(AUTH_DB, "not a database\n", mode=0o640)
    r = export(first, expect=2)
    assert "cannot read " + AUTH_DB in r.err and not first.exists(OUT), r
