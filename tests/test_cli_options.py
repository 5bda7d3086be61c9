"""Option parsing of the dravnik commands, checked from outside the binary.

Error texts written to the program's error stream reach both standard error
and standard output, because the control panel reads only standard output.
"""

import pytest

from test_cli_dispatch_help import COMMANDS, mandatory_names

# A valid sample value for every mandatory option of the commands.
SAMPLE = {"domain-name": "example.com", "old-domain-name": "example.com",
          "new-domain-name": "example.org", "domain-alias-name": "alias.example",
          "old-domain-alias-name": "alias.example", "new-domain-alias-name": "other.example",
          "mailname": "john", "old-mailname": "john", "new-mailname": "johnny", "alias": "jd",
          "disk-quota": "100"}

MAILNAME_BAD = " - local part of mailname has incorrect format."
DOMAIN_BAD = " - domain has incorrect format."


def help_of(sandbox, word):
    return sandbox.run(word, "--help").out


def assert_option_error(sandbox, res, word):
    """One error line on both streams, then the command's help on stdout."""
    assert res.rc == 1
    assert res.err.endswith("\n") and res.err.count("\n") == 1, res.err
    assert res.out == res.err + help_of(sandbox, word)


def assert_fatal(res, text):
    line = f"Fatal error: {text}\n"
    assert (res.rc, res.err, res.out) == (1, line, line)


# Markers of the errors that end a run before the command does its work:
# the option library quotes the option it complains about, the name checks
# say "incorrect format".
PARSE_FAILURES = ("option '", "mandatory option", "incorrect format")


def assert_options_accepted(sandbox, res, word):
    """The command line got the command to its work.  In a sandbox without
    domains or databases the work itself may well fail; what matters is that
    no option error, name error or help text came first."""
    assert help_of(sandbox, word) not in res.out
    assert not [m for m in PARSE_FAILURES if m in res.err], res.err


# ---------------------------------------------------------------------------
# Errors reported by the option library

GOOD_MAILNAME = ("--domain-name=example.com", "--mailname=john")


@pytest.mark.parametrize("args, option", [
    (("--add-mailname", *GOOD_MAILNAME, "--bogus-option"), "--bogus-option"),
    (("--add-mailname", "--domain=example.com", "--mailname=john"), "--domain"),
    (("--add-mailname", *GOOD_MAILNAME, "--domain-name=example.org"), "domain-name"),
    (("--add-mailname", "--domain-name=", "--mailname=john"), "domain-name"),
    (("--remove-mailname", *GOOD_MAILNAME, "--mail-addresses="), "mail-addresses"),
    (("--add-mailname", "--domain-name=example.com", "--mailname=jo hn"), "mailname"),
    (("--add-mailname", "--domain-name= example.com", "--mailname=john"), "domain-name"),
    (("--add-mailname", "--domain-name=example.com", "--mailname=john\t"), "mailname"),
    (("--remove-domain", "--domain-name=example.com",
      "--domain-aliases=a.example", "--domain-aliases=b.example"), "domain-aliases"),
    # The three commands that run the parser themselves.
    (("--add-alias", *GOOD_MAILNAME, "--alias=jd", "--bogus-option"), "--bogus-option"),
    (("--remove-alias", *GOOD_MAILNAME, "--alias="), "alias"),
    (("--del-domain-alias", "--domain-name=example.com",
      "--domain-alias-name=alias.example", "--set-reject"), "--set-reject"),
], ids=["unknown", "abbreviation", "repeated", "empty-value", "empty-list", "blank-in-name",
        "leading-blank", "trailing-tab",
        "domain-aliases-twice", "add-alias-unknown", "remove-alias-empty",
        "del-domain-alias-no-action"])
def test_option_error(sandbox, args, option):
    res = sandbox.run(*args)
    assert_option_error(sandbox, res, args[0])
    assert option in res.err


# ---------------------------------------------------------------------------
# Mandatory options


def missing_cases():
    for command in COMMANDS:
        names = mandatory_names(command)
        # With none given, the one declared last is reported.
        yield pytest.param(command.word, (), names[-1], id=f"{command.word}-none")
        if len(names) > 1:
            given = tuple(f"--{name}={SAMPLE[name]}" for name in names[1:])
            yield pytest.param(command.word, given, names[0], id=f"{command.word}-first")


@pytest.mark.parametrize("word, given, reported", list(missing_cases()))
def test_missing_mandatory_option(sandbox, word, given, reported):
    res = sandbox.run(word, *given)
    assert_option_error(sandbox, res, word)
    assert res.err == f'mandatory option "--{reported}" is not specified\n'


@pytest.mark.parametrize("args", [
    ("--add-mailname", "-h"),
    ("--rename-domain", "--help", "--old-domain-name=example.com"),
    ("--set-domain-disk-quota", "--disk-quota=5", "-h"),
])
def test_help_wins_over_missing_mandatory_option(sandbox, args):
    res = sandbox.run(*args)
    assert (res.rc, res.err) == (0, "")
    assert res.out == help_of(sandbox, args[0])


def test_invalid_name_is_checked_before_help(sandbox):
    res = sandbox.run("--add-mailname", "--mailname=bad..name", "--help")
    assert_fatal(res, f"std::runtime_error(bad..name{MAILNAME_BAD})")


# ---------------------------------------------------------------------------
# Name checks: the message quotes the value after lower-casing and IDN
# conversion, which is the only place those are visible from outside.

LONG_LABELS = ("X" * 63 + ".") * 4  # 256 characters: too long for a domain


@pytest.mark.parametrize("args, quoted, suffix", [
    (("--add-mailname", "--domain-name=example.com", "--mailname=Bad..Name"),
     "bad..name", MAILNAME_BAD),
    (("--set-password", "--domain-name=example.com", "--mailname=.John"), ".john", MAILNAME_BAD),
    (("--add-mailbox", "--domain-name=example.com", "--mailname=J\u00f6hn"),
     "j\u00f6hn", MAILNAME_BAD),
    (("--rename-mailname", "--domain-name=example.com", "--old-mailname=john",
      "--new-mailname=John."), "john.", MAILNAME_BAD),
    (("--add-alias", "--domain-name=example.com", "--mailname=john", "--alias=a:b"),
     "a:b", MAILNAME_BAD),
    (("--add-domain", f"--domain-name={LONG_LABELS}com"), LONG_LABELS.lower() + "com", DOMAIN_BAD),
    (("--rename-domain", "--old-domain-name=example.com",
      f"--new-domain-name=B\u00fccher.{LONG_LABELS}DE"),
     f"xn--bcher-kva.{LONG_LABELS.lower()}de", DOMAIN_BAD),
])
def test_invalid_name_is_fatal(sandbox, args, quoted, suffix):
    res = sandbox.run(*args)
    assert_fatal(res, f"std::runtime_error({quoted}{suffix})")


# ---------------------------------------------------------------------------
# Well-formed command lines get past option parsing.  (The command tests
# run many more, to their end.)

@pytest.mark.parametrize("args", [
    ("--add-mailname", "--domain-name", "b\u00fccher.example", "--mailname", "o'neil+tag_1&x-y.z"),
    ("--add-mailname", "--domain-name=example.com", f"--mailname={'a' * 245}",
     "--default-domain-quota=-1"),
    ("--set-password", "--domain-name=example.com", "--mailname=john",
     "--mail-addresses", "", "--mail-domain-disabled"),
    ("--remove-mailname", "--domain-name=example.com", "--mailname=john",
     "--mail-addresses=john,jd,johnny;mary", "--mail-addresses=mary,m"),
    ("--add-domain-alias", "--domain-name=example.com", "--domain-alias-name=Alias.Example",
     "--set-catchall", "--email=postmaster@example.com", "--domain-aliases", ""),
], ids=lambda args: args[0] if isinstance(args, tuple) else None)
def test_valid_options_are_accepted(sandbox, args):
    assert_options_accepted(sandbox, sandbox.run(*args), args[0])


@pytest.mark.parametrize("command", COMMANDS, ids=lambda c: c.word)
def test_mandatory_options_alone_are_enough(sandbox, command):
    given = [f"--{name}={SAMPLE[name]}" for name in mandatory_names(command)]
    assert_options_accepted(sandbox, sandbox.run(command.word, *given), command.word)
