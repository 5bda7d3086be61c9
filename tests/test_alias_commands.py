"""The alias and domain alias commands, run for real in the sandbox."""

import pytest

from test_domain_commands import (AUTH_DB, add_auth_user, add_domain, add_domain_alias,
                                  add_handler, add_mailname, auth_domains, auth_users, break_db,
                                  handlers, lines, ok, qmail_effects)

JD_LINE = "=example.com-jd:popuser:110:110:/var/qmail/mailnames/example.com/john:::"
ALIAS_SESSION = ("--domain-aliases=a1.example,a2.example", "--mail-addresses=john")


@pytest.fixture
def domain(mail_sandbox):
    """example.com with the mail name john, his authentication record and a
    handler of his, and a domain-wide handler."""
    sb = mail_sandbox
    add_domain(sb)
    add_mailname(sb, "john")
    add_auth_user(sb, "john", password="johns-secret")
    add_handler(sb, "john@example.com")
    add_handler(sb, "example.com", "wide")
    return sb


# ---------------------------------------------------------------------------
# Aliases of a mail name

def test_add_and_remove_alias_reach_the_domain_and_every_domain_alias(domain):
    sb = domain
    r = ok(sb, "--add-alias", "--domain-name=example.com", "--mailname=John", "--alias=JD",
           *ALIAS_SESSION)
    assert qmail_effects(r) == (1, 0)
    assert JD_LINE in lines(sb, "users/assign")
    targets = ["jd@example.com", "jd@a1.example", "jd@a2.example"]
    users = auth_users(sb)
    assert [users.get(t) for t in targets] == ["johns-secret"] * 3
    assert all(("spam", t) in handlers(sb) for t in targets)

    r = ok(sb, "--remove-alias", "--domain-name=example.com", "--mailname=john", "--alias=jd",
           *ALIAS_SESSION)
    assert qmail_effects(r) == (1, 0)
    assert JD_LINE not in lines(sb, "users/assign")
    assert auth_users(sb) == {"john@example.com": "johns-secret"}
    # Only the alias's own handler in the domain goes.
    assert ("spam", "jd@example.com") not in handlers(sb)
    assert ("spam", "john@example.com") in handlers(sb)


def test_add_alias_stops_when_its_record_cannot_be_made(domain):
    break_db(domain, AUTH_DB)
    r = domain.run("--add-alias", "--domain-name=example.com", "--mailname=john", "--alias=jd",
                   *ALIAS_SESSION)
    assert r.rc == 1, r
    assert "Unable to clone auth record for jd@example.com" in r.err
    assert qmail_effects(r) == (0, 0)


# ---------------------------------------------------------------------------
# Domain aliases

@pytest.mark.parametrize("action, rejected", [
    (("--set-reject",), True),
    (("--set-bounce", "--phrase=gone"), False),
], ids=["reject", "bounce"])
def test_add_domain_alias(domain, action, rejected):
    sb = domain
    r = ok(sb, "--add-domain-alias", "--domain-name=example.com",
           "--domain-alias-name=A.Example", "--mail-addresses=john", *action)
    assert qmail_effects(r) == (1, 1)
    assert "a.example" in lines(sb, "control/rcpthosts")
    assert "a.example:example.com" in lines(sb, "control/virtualdomains")
    assert ("a.example" in lines(sb, "control/rejectnonexist")) == rejected
    assert auth_users(sb)["john@a.example"] == "johns-secret"
    assert {("spam", "john@a.example"), ("wide", "a.example")} <= set(handlers(sb))


def test_del_domain_alias(domain):
    sb = domain
    add_domain_alias(sb, "a.example")
    r = ok(sb, "--del-domain-alias", "--domain-name=example.com",
           "--domain-alias-name=a.example", "--mail-addresses=john")
    assert qmail_effects(r) == (1, 1)
    assert lines(sb, "control/rcpthosts") == ["example.com"]
    assert lines(sb, "control/virtualdomains") == ["example.com:example.com"]
    assert auth_domains(sb) == {"example.com": 0}
    assert ("spam", "john@a.example") not in handlers(sb)


def test_rename_domain_alias(domain):
    sb = domain
    add_domain_alias(sb, "a.example")
    r = ok(sb, "--rename-domain-alias", "--domain-name=example.com",
           "--old-domain-alias-name=a.example", "--new-domain-alias-name=b.example",
           "--mail-addresses=john", "--set-reject")
    assert qmail_effects(r) == (1, 1)
    assert sorted(lines(sb, "control/virtualdomains")) == [
        "b.example:example.com", "example.com:example.com"]
    assert "b.example" in lines(sb, "control/rejectnonexist")
    assert sorted(auth_users(sb)) == ["john@b.example", "john@example.com"]
    moved = handlers(sb)
    assert ("spam", "john@b.example") in moved and ("wide", "b.example") in moved
    assert ("wide", "a.example") not in moved
