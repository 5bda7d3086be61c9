"""Where a command takes its session mail data from: the command line,
"--wait-stdin", data already waiting on standard input, or an operator at a
terminal who is asked for it.

The data is observed through "--set-domain-disk-quota", which gives the
domain's default quota to exactly the mail names that the session data
lists: john is listed, mary never is."""

import pytest

from test_domain_commands import DOMAIN, add_domain, add_mailname, session

READ_FAILURE = ("Fatal error: std::runtime_error(Failed to read and parse session mail "
                "data from STDIN. See mail log for details.)\n")
PROMPT = ("This command requires additional data to be passed via STDIN in JSON format.\n"
          "To get help on expected input data format call this utility with "
          "--help-stdin option.\n"
          "Type ^D (send EOF) to abort.\n")
QUOTA = ["--set-domain-disk-quota", "--domain-name=" + DOMAIN, "--disk-quota=1048576"]


JOHN = session(mails={"john": []})


def maildirsize(sb, mailname):
    path = "/var/qmail/mailnames/%s/%s/Maildir/maildirsize" % (DOMAIN, mailname)
    return sb.read(path).splitlines()[0] if sb.exists(path) else None


@pytest.fixture
def domain(mail_sandbox):
    """example.com with the mailboxes of john and mary, both unlimited."""
    add_domain(mail_sandbox)
    for name in ("john", "mary"):
        add_mailname(mail_sandbox, name)
    return mail_sandbox


def assert_only_john_limited(sb):
    assert maildirsize(sb, "john") not in (None, "0S,0C")
    assert maildirsize(sb, "mary") == "0S,0C"


@pytest.mark.parametrize("extra, stdin", [
    (["--mail-addresses", "john"], None),
    (["--wait-stdin"], JOHN),
    # "--wait-stdin" ignores the command-line data.
    (["--wait-stdin", "--mail-addresses", "mary"], JOHN),
    # Without options, data that is already waiting is read.
    ([], JOHN),
], ids=["options", "wait-stdin", "wait-stdin-wins", "probe"])
def test_each_source_gives_the_mail_names(domain, extra, stdin):
    r = domain.run(*QUOTA, *extra, stdin=stdin)
    assert (r.rc, r.out) == (0, ""), r
    assert_only_john_limited(domain)


def test_a_terminal_is_asked_for_the_data(domain):
    r = domain.run(*QUOTA, terminal=("Type ^D", JOHN))
    assert r.rc == 0, r
    assert r.out.startswith(PROMPT), r.out
    assert_only_john_limited(domain)


@pytest.mark.parametrize("stdin", ["", '{"domain": {"name": "example.com"', "[]"],
                         ids=["empty", "truncated", "not-an-object"])
def test_unusable_data_changes_nothing(domain, stdin):
    before = domain.snapshot()
    for extra in ([], ["--wait-stdin"]):
        r = domain.run(*QUOTA, *extra, stdin=stdin)
        assert (r.rc, r.out) == (1, READ_FAILURE), r
        assert r.err.endswith(READ_FAILURE)
    assert domain.snapshot() == before


def test_a_quota_of_its_own_needs_no_data(domain):
    """--add-mailname with --disk-quota neither prompts nor reads."""
    r = domain.run("--add-mailname", "--domain-name=" + DOMAIN, "--mailname=ann",
                   "--disk-quota", "4096", terminal=("Type ^D", "{}"))
    assert (r.rc, r.out) == (0, ""), r
