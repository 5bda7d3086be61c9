"""Renames that move mail handlers, with one system call on the handlers
database failing at a time (strace's fault injection, inside the sandbox).

Whatever fails, no handler is lost: the handlers are either all still at
their old addresses or all copied to the new ones; a copy that failed is
logged and gives the exit status the command gives for a failed move; and
the same command run again once the fault is gone ends exactly as an
undisturbed run."""

import pytest

from conftest import sandbox_copy, traced
from sandbox import Sandbox
from test_domain_commands import (AUTH_DB, DOMAIN, HANDLERS_DB, add_domain, add_domain_alias,
                                  add_handler, add_mailbox, handlers, mail_state, ok, query)

JOURNAL = HANDLERS_DB + "-journal"
PASSWORD = {"ZON_PASSWORD": "secret"}

# The handlers every case starts from: john's two, the domain's own, and
# those of the alias domain and of john there.
HANDLERS = [("spam", "john@" + DOMAIN), ("virus", "john@" + DOMAIN), ("spam", DOMAIN),
            ("spam", "john@alias.example"), ("spam", "alias.example")]

# command -> (arguments, environment, whether a failed move fails the
# command, the log line of a failed move).
RENAMES = {
    "mailname": (("--rename-mailname", "--domain-name=" + DOMAIN, "--old-mailname=john",
                  "--new-mailname=jack", "--mail-addresses=john"), PASSWORD, True,
                 "Unable to move mail handlers from john@example.com to jack@example.com"),
    "domain": (("--rename-domain", "--old-domain-name=" + DOMAIN,
                "--new-domain-name=new.example"), None, True,
               "Unable to move domain handlers from example.com to new.example"),
    # Mail reaches the alias domain without its handlers: the command's
    # status does not depend on them.
    "domain-alias": (("--rename-domain-alias", "--domain-name=" + DOMAIN,
                      "--old-domain-alias-name=alias.example",
                      "--new-domain-alias-name=other.example", "--mail-addresses=john",
                      "--set-reject"), None, False,
                     "Unable to move domain alias handlers from alias.example to other.example"),
}

# (file, system call, error, which call fails). The clone opens the database
# and its journal first, the removal of the old rows second; the writes and
# syncs are those of the copy's commit.
FAULTS = [
    (HANDLERS_DB, "openat", "EACCES", 1),
    (HANDLERS_DB, "openat", "EACCES", 2),
    (JOURNAL, "openat", "ENOSPC", 1),
    (JOURNAL, "openat", "ENOSPC", 2),
    (JOURNAL, "pwrite64", "ENOSPC", 1),
    (JOURNAL, "pwrite64", "EIO", 4),
    (JOURNAL, "fdatasync", "EIO", 1),
    (JOURNAL, "fdatasync", "EIO", 2),
    (HANDLERS_DB, "pwrite64", "ENOSPC", 2),
    (HANDLERS_DB, "fdatasync", "EIO", 1),
    (JOURNAL, "unlink", "EIO", 1),
]


@pytest.fixture(scope="module")
def prepared():
    """example.com with john's mailbox and the alias domain alias.example,
    and the handlers above."""
    with Sandbox() as sb:
        sb.init_databases()
        add_domain(sb)
        add_mailbox(sb, "john")
        add_domain_alias(sb, "alias.example")
        for name, address in HANDLERS:
            add_handler(sb, address, name)
        yield sb.root


@pytest.fixture
def sb(prepared):
    yield from sandbox_copy(prepared)


def state(sb):
    """What a rename leaves: the tree, with the databases as their rows
    (the stored passwords are encrypted afresh by every run)."""
    result = mail_state(sb)
    result[HANDLERS_DB] = sorted(query(sb, HANDLERS_DB, "SELECT * FROM handlers"))
    result[AUTH_DB] = sorted(query(sb, AUTH_DB, "SELECT u.name, d.name, d.status FROM users u "
                                   "JOIN domains d ON u.dom_id = d.id"))
    return result


@pytest.fixture(scope="module")
def undisturbed(prepared):
    """Per command: its exit status and what it leaves, without a fault."""
    results = {}
    for command, (args, env, _, _) in RENAMES.items():
        for box in sandbox_copy(prepared):
            rc = box.run(*args, env=env).rc
            results[command] = (rc, state(box), handlers(box))
    return results


@pytest.mark.parametrize("path,call,error,when", FAULTS,
                         ids=["%s-%s-%s-%d" % (p.rsplit("/", 1)[1], c, e, w)
                              for p, c, e, w in FAULTS])
@pytest.mark.parametrize("command", RENAMES)
def test_no_handler_is_lost_when_a_call_fails(sb, undisturbed, command, path, call, error,
                                              when):
    args, env, move_counts, message = RENAMES[command]
    clean_rc, clean_state, moved = undisturbed[command]
    assert clean_rc == 0 and moved != handlers(sb)
    before = handlers(sb)

    r = traced(sb, [sb.dravnik, *args], "-P", path, "-e", "trace=" + call,
               "-e", "inject=%s:error=%s:when=%d" % (call, error, when), env=env)
    assert "(INJECTED)" in r.err, r
    after = handlers(sb)
    # Every handler is still where it was, or its copy is in place (the old
    # rows may stay beside the copies when only their removal failed).
    kept = before.items() <= after.items()
    copied = moved.items() <= after.items()
    assert kept or copied, r
    if not copied:
        assert message in r.err, r
        assert r.rc == (1 if move_counts else clean_rc), r
    else:
        assert r.rc in (0, 1), r

    ok(sb, *args, env=env)
    assert state(sb) == clean_state


@pytest.mark.parametrize("command", RENAMES)
def test_a_refused_copy_keeps_the_handlers_where_they_were(sb, undisturbed, command):
    """A copy refused for good (here by a trigger) fails the move on every
    run; the handlers stay at their old addresses."""
    args, env, move_counts, message = RENAMES[command]
    before = handlers(sb)
    query(sb, HANDLERS_DB, "CREATE TRIGGER refuse BEFORE INSERT ON handlers "
          "WHEN NEW.name = 'spam' BEGIN SELECT RAISE(ABORT, 'refused'); END")
    r = sb.run(*args, env=env)
    assert message in r.err, r
    assert r.rc == (1 if move_counts else undisturbed[command][0]), r
    assert handlers(sb) == before
