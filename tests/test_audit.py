"""dravnik-audit against servers made by real dravnik runs in the sandbox:
each fault injected into such a server gives exactly its finding, --repair
sets right what it can and leaves the rest as it was, a server made by the
commands alone is clean, and links planted by the mail user are reported,
never followed."""

import hashlib
import json
import os
import shutil
from pathlib import Path

import pytest

from conftest import sandbox_copy
from sandbox import REPO, Sandbox
from test_domain_commands import (AUTH_DB, DOMAIN, add_auth_user, add_domain, add_domain_alias,
                                  add_handler, add_mailbox, add_mailname, break_db, mail_state,
                                  ok, query, session)
from test_docs import section
from test_symlink_attacks import DECOY, decoy_listing, make_decoy, plant

AUDIT = os.environ.get("DRAVNIK_AUDIT") or str(
    Path(Sandbox.default_dravnik()).parent.parent / "audit" / "dravnik-audit")
ROOT = "/var/qmail/mailnames/example.com"
JOHN = ROOT + "/john"
ASSIGN = "/var/qmail/users/assign"
POPUSER = 110


def audit(sb, *args, wrap=()):
    r = sb.run_raw([*wrap, AUDIT, "--json", *args])
    assert r.rc in (0, 1), r
    return r.rc, [json.loads(line) for line in r.out.splitlines()]


def kinds(findings):
    return {f["kind"] for f in findings if "repair" not in f}


def edit(sb, path, change, compile_assign=True):
    """Rewrites a file of the sandbox by hand, keeping its owner and mode;
    users/assign is compiled again, as an operator who knew would do."""
    host = sb.path(path)
    st = host.stat()
    host.write_text(change(host.read_text()))
    os.chown(host, st.st_uid, st.st_gid)
    if path == ASSIGN and compile_assign:
        assert sb.run_raw(["/var/qmail/bin/qmail-newu"]).rc == 0


def popuser_file(sb, path, text):
    sb.write(path, text)
    os.chown(sb.path(path), POPUSER, POPUSER)


def leftovers(sb):
    """What runs killed before their renames leave: a control file's copy,
    temporaries of .qmail-default, of a .qmail (reset, rename) and of a
    maildirsize."""
    sb.write("/var/qmail/control/rcpthosts.tmp", "example.com\n")
    for path in (ROOT + "/.qmail-default.Ab12Cd", JOHN + "/.qmail.Ab12Cd",
                 JOHN + "/.qmail.mail.Ab12Cd",
                 JOHN + "/Maildir/tmp/1795552953.7.mail.sandbox.test-maildirsize"):
        popuser_file(sb, path, "x\n")


def age(sb, path):
    """Dates path back, as if it were last written well before the fixture."""
    st = sb.path(path).stat()
    os.utime(sb.path(path), (st.st_atime, st.st_mtime - 3600))


LOCK = "/run/lock/files/" + hashlib.md5(ASSIGN.encode()).hexdigest()

# kind: (injection, repairable, extra audit arguments, wrapper of the audit)
FAULTS = {
    "rcpthosts-without-virtualdomains": (
        lambda sb: edit(sb, "/var/qmail/control/rcpthosts", lambda t: t + "stray.org\n"),
        False, (), ()),
    "virtualdomains-without-rcpthosts": (
        lambda sb: edit(sb, "/var/qmail/control/rcpthosts",
                        lambda t: t.replace("alias.example\n", "")), False, (), ()),
    "alias-to-missing-domain": (
        lambda sb: [edit(sb, "/var/qmail/control/" + f, lambda t, l=l: t + l) for f, l in
                    (("rcpthosts", "other.example\n"),
                     ("virtualdomains", "other.example:gone.org\n"))], False, (), ()),
    "missing-wildcard": (
        lambda sb: edit(sb, ASSIGN, lambda t: "".join(
            l for l in t.splitlines(True) if not l.startswith("+"))), True, (), ()),
    "stale-wildcard": (
        lambda sb: edit(sb, ASSIGN, lambda t: "+old.example:popuser:110:110:" + ROOT + ":::\n"
                        + t), True, (), ()),
    "missing-home": (lambda sb: shutil.rmtree(sb.path(ROOT + "/jane")), False, (), ()),
    "mailname-incomplete": (lambda sb: os.rmdir(sb.path(JOHN + "/Maildir/cur")), False, (), ()),
    "orphan-directory": (lambda sb: os.mkdir(sb.path(ROOT + "/ghost"), 0o700), False, (), ()),
    "assign-malformed": (
        lambda sb: edit(sb, ASSIGN, lambda t: t.splitlines(True)[0] + t), False, (), ()),
    "cdb-outdated": (lambda sb: age(sb, "/var/qmail/users/cdb"), True, (), ()),
    "owner-or-mode": (lambda sb: os.chmod(sb.path(JOHN + "/Maildir"), 0o755), True, (), ()),
    "symlink-in-tree": (
        lambda sb: plant(sb, JOHN + "/Maildir/new/1.host,S=99", "/etc/passwd"), False, (), ()),
    "maildirsize-malformed": (
        lambda sb: edit(sb, JOHN + "/Maildir/maildirsize", lambda t: t + "12 x\n"), True, (), ()),
    "maildirsize-drift": (
        lambda sb: popuser_file(sb, JOHN + "/Maildir/new/1.host", "x" * (2 << 20)),
        True, ("--sizes",), ()),
    "auth-orphan": (lambda sb: add_auth_user(sb, "ghost"), True, (), ()),
    "auth-missing": (lambda sb: query(sb, AUTH_DB, "DELETE FROM users WHERE name = 'john'"),
                     False, (), ()),
    "handler-orphan": (lambda sb: add_handler(sb, "ghost@example.com"), True, (), ()),
    "leftover-temporary": (lambda sb: leftovers(sb), True, (), ()),
    "stale-lock": (lambda sb: None, False, ("--lock-wait=0.2",), ("/usr/bin/flock", LOCK)),
}


@pytest.fixture(scope="module")
def prepared():
    """example.com with the alias domain alias.example, john's mailbox with
    the alias info and a handler, and jane without a mailbox."""
    with Sandbox() as sb:
        sb.init_databases()
        make_decoy(sb)
        add_domain(sb)
        add_mailbox(sb, "john")
        ok(sb, "--add-alias", "--domain-name=" + DOMAIN, "--mailname=john", "--alias=info",
           "--mail-addresses=john")
        add_mailname(sb, "jane")
        add_domain_alias(sb, "alias.example")
        add_handler(sb, "john@example.com")
        yield sb.root


@pytest.fixture
def sb(prepared):
    """A copy of the prepared tree, for one case."""
    yield from sandbox_copy(prepared)


@pytest.mark.parametrize("kind", FAULTS)
def test_each_fault_gives_its_finding_and_repair_fixes_it_or_changes_nothing(sb, kind):
    assert audit(sb) == (0, [])
    inject, repairable, args, wrap = FAULTS[kind]
    inject(sb)
    rc, findings = audit(sb, *args, wrap=wrap)
    assert rc == 1 and kinds(findings) == {kind}, findings
    assert all(set(f) <= {"kind", "domain", "mailname", "path", "detail"} for f in findings)
    if kind == "leftover-temporary":  # every one of them, in its mailbox
        assert sorted((f.get("domain", ""), f.get("mailname", "")) for f in findings) == \
            [("", ""), ("example.com", "")] + [("example.com", "john")] * 3, findings

    before = mail_state(sb)
    rc, report = audit(sb, "--repair", *args, wrap=wrap)
    if repairable:
        assert rc == 0 and report and all("repair" in f for f in report), report
        assert audit(sb, *args) == (0, [])
        assert audit(sb, "--repair", *args) == (0, [])
    else:
        assert rc == 1 and kinds(report) == {kind}, report
        assert mail_state(sb) == before


def test_server_made_by_the_commands_is_clean_once_a_rename_is_tidied(mail_sandbox):
    sb = mail_sandbox
    add_domain(sb)
    add_mailbox(sb, "john")
    add_mailname(sb, "jane")
    add_domain_alias(sb, "alias.example")
    ok(sb, "--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=jane",
       "--new-mailname=joan", "--mail-addresses", "john")
    for command in ("--turn-off-domain", "--turn-on-domain"):
        extra = ("--set-bounce",) if command == "--turn-on-domain" else ()
        ok(sb, command, "--domain-name=" + DOMAIN, "--wait-stdin", *extra,
           stdin=session(aliases=["alias.example"], mails={"john": []}))
    add_domain(sb, "gone.org")
    ok(sb, "--remove-domain", "--domain-name=gone.org", "--mail-addresses", "")
    assert sb.deliver(ROOT + "/john", "Subject: hi\n\n" + "x" * 4096) == 0
    assert audit(sb, "--sizes", "--drift-bytes=0") == (0, [])

    # A rename keeps the old wildcard line, now routed to the new directory,
    # and writes none for the new name.
    ok(sb, "--rename-domain", "--old-domain-name=" + DOMAIN, "--new-domain-name=new.org")
    rc, findings = audit(sb)
    assert rc == 1 and kinds(findings) == {"stale-wildcard", "missing-wildcard"}, findings
    assert audit(sb, "--repair")[0] == 0
    assert "+new.org:popuser:110:110:/var/qmail/mailnames/new.org:::" in sb.read(ASSIGN)
    assert audit(sb) == (0, [])


def test_links_of_a_hostile_mail_user_are_reported_never_followed(sb):
    make_decoy(sb)
    os.chmod(sb.path(DECOY + "/Maildir"), 0o777)
    popuser_file(sb, DECOY + "/Maildir/new/1.host", "x" * (2 << 20))
    plant(sb, JOHN + "/Maildir", DECOY + "/Maildir")
    plant(sb, ROOT + "/jane/.qmail", DECOY + "/shadow")
    plant(sb, ROOT + "/evil", DECOY)
    decoy = decoy_listing(sb)
    rc, findings = audit(sb, "--repair", "--sizes")
    links = {f["path"] for f in findings if f["kind"] == "symlink-in-tree"}
    assert rc == 1 and links == {JOHN + "/Maildir", ROOT + "/jane/.qmail", ROOT + "/evil"}
    assert decoy_listing(sb) == decoy
    assert os.path.islink(sb.path(JOHN + "/Maildir"))


def test_unreadable_database_gives_status_2(sb):
    break_db(sb, AUTH_DB)
    r = sb.run_raw([AUDIT])
    assert r.rc == 2 and "cannot read " + AUTH_DB in r.err, r


def test_large_database_is_read_without_a_temporary_directory(mail_sandbox):
    """Sorting the records of a large server spills out of SQLite's cache;
    the sandbox, like a hardened server, offers no writable /tmp."""
    import sqlite3
    db = sqlite3.connect(str(mail_sandbox.path(AUTH_DB)))
    with db:
        db.execute("INSERT INTO domains (name) VALUES ('big.test')")
        db.executemany("INSERT INTO users (dom_id, name, cmusaslsecretPLAIN) "
                       "SELECT id, ?, ? FROM domains WHERE name = 'big.test'",
                       [("u%05d" % k, "$6$%s" % ("x" * 200)) for k in range(30000)])
    db.close()
    rc, findings = audit(mail_sandbox)
    assert rc == 1
    assert ("auth-orphan", "big.test") in [(f["kind"], f.get("domain")) for f in findings]
    # The query of the same rows without that care needs the directory.
    r = mail_sandbox.run_raw(["sqlite3", AUTH_DB, "SELECT d.name, u.name, u.cmusaslsecretPLAIN "
                              "FROM users u JOIN domains d ON u.dom_id = d.id "
                              "ORDER BY d.name, u.name"])
    assert r.rc != 0 and "disk I/O error" in r.err, r


# -- metrics for the node exporter's textfile collector -----------------------

METRICS = "/run/sandbox/node-exporter/dravnik-audit.prom"


def metrics(sb):
    from prometheus_client.parser import text_string_to_metric_families
    families = {f.name: f for f in text_string_to_metric_families(sb.read(METRICS))}
    return ({s.labels["kind"]: s.value for s in families["dravnik_audit_findings"].samples}
            if "dravnik_audit_findings" in families else None,
            {name: f.samples[0].value for name, f in families.items()
             if name != "dravnik_audit_findings"})


def manual_kinds():
    return {line.strip() for line in section(REPO / "doc" / "dravnik-audit.8", "FINDINGS")
            if line.startswith("       ") and not line.startswith("        ")}


def test_metrics_count_every_kind_as_the_json_report_does(sb):
    os.makedirs(sb.path(os.path.dirname(METRICS)))
    for kind in ("orphan-directory", "auth-orphan", "handler-orphan", "leftover-temporary",
                 "owner-or-mode"):
        FAULTS[kind][0](sb)
    rc, findings = audit(sb, "--metrics=" + METRICS)
    by_kind, values = metrics(sb)
    assert rc == 1 and set(by_kind) == manual_kinds()
    reported = {k: sum(1 for f in findings if f["kind"] == k) for k in by_kind}
    assert by_kind == reported and sum(reported.values()) == len(findings) > 5
    # example.com; john (with his alias info) and jane; only john has a mailbox.
    assert (values["dravnik_audit_domains"], values["dravnik_audit_mailnames"],
            values["dravnik_audit_mailboxes"]) == (1, 2, 1)
    assert values["dravnik_audit_read_complete"] == 1
    assert values["dravnik_audit_duration_seconds"] >= 0
    assert abs(values["dravnik_audit_last_run_timestamp_seconds"] -
               os.stat(sb.path(METRICS)).st_mtime) < 5
    assert os.listdir(sb.path(os.path.dirname(METRICS))) == ["dravnik-audit.prom"]

    # After a repair the file tells what is left.
    rc, _ = audit(sb, "--repair", "--metrics=" + METRICS)
    by_kind, _ = metrics(sb)
    assert rc == 1 and {k for k, v in by_kind.items() if v} == {"orphan-directory"}


def test_metrics_show_a_failed_read(sb):
    os.makedirs(sb.path(os.path.dirname(METRICS)))
    assert audit(sb, "--metrics=" + METRICS)[0] == 0
    break_db(sb, AUTH_DB)
    r = sb.run_raw([AUDIT, "--metrics=" + METRICS])
    assert r.rc == 2 and "cannot read " + AUTH_DB in r.err, r
    by_kind, values = metrics(sb)
    assert values["dravnik_audit_read_complete"] == 0
    assert values["dravnik_audit_unreadable"] == 1
    assert set(by_kind) == manual_kinds()  # what could be read is still counted

    # A run that cannot read the server at all leaves no zeros that look clean.
    edit(sb, "/etc/passwd", lambda t: "".join(l for l in t.splitlines(True)
                                              if not l.startswith("popuser:")))
    r = sb.run_raw([AUDIT, "--metrics=" + METRICS])
    by_kind, values = metrics(sb)
    assert r.rc == 2 and by_kind is None and "dravnik_audit_domains" not in values
    assert values["dravnik_audit_read_complete"] == 0


def test_metrics_that_cannot_be_written_fail_the_run(sb):
    r = sb.run_raw([AUDIT, "--metrics=/run/sandbox/missing/dravnik-audit.prom"])
    assert r.rc == 2 and "cannot write /run/sandbox/missing/dravnik-audit.prom" in r.err, r
    assert r.out.splitlines()[-1] == "no findings"
