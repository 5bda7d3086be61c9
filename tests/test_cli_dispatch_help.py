"""Command dispatch and help texts of dravnik, checked from outside the binary.

The expected texts are written out here by hand, independently of the C++
sources: a drift in either place shows up as a failure.
"""

import re
from collections import namedtuple

import pytest

# ---------------------------------------------------------------------------
# Program-wide help texts

SHORT_USAGE = (
    "Usage: dravnik <COMMAND> <COMMAND OPTIONS...>\n"
    "\t for a complete list of commands use ``dravnik --help-commands''\n"
    "\t for help on syntax for a particular command use ``dravnik <COMMAND> --help''\n"
    "\t for legacy complete help use ``dravnik --help-legacy''\n"
)

# (command, usage of its options, description) in listing order.
COMMAND_ROWS = [
    ("--add-mailname",
     "--domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]",
     "adds mailname to the mail domain. Optionally sets the mailbox quota"),
    ("--remove-mailname", "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes mailname from the mail domain"),
    ("--rename-mailname",
     "--domain-name=<domain_name> --old-mailname=<old_mail_name> --new-mailname=<new_mail_name>",
     "renames a mailname in the mail domain. Optionally sets the mailbox password."),
    ("--add-mailbox", "--domain-name=<domain_name> --mailname=<mail_name>",
     "adds a mailbox for a given mailname. Sets the mailbox password."),
    ("--remove-mailbox", "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes a mailbox for a given mailname"),
    ("--set-password", "--domain-name=<domain_name> --mailname=<mail_name>",
     "sets the password for a mailname"),
    ("--add-alias", "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "adds an alias for mailname"),
    ("--remove-alias", "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "removes an alias for mailname"),
    ("--add-domain", "--domain-name=<domain_name> [--disk-quota=<quota>]", "adds mail domain"),
    ("--remove-domain", "--domain-name=<domain_name>", "removes mail domain"),
    ("--rename-domain", "--old-domain-name=<domain> --new-domain-name=<domain>",
     "renames mail domain"),
    ("--turn-on-domain", "--domain-name=<domain_name>", "enables mail domain"),
    ("--turn-off-domain", "--domain-name=<domain_name>", "disables mail domain"),
    ("--add-domain-alias", "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "adds alias for <domain_name>"),
    ("--del-domain-alias", "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "removes alias for <domain_name>"),
    ("--rename-domain-alias",
     "--domain-name=<domain_name> --old-domain-alias-name=<old_domain_alias_name>"
     " --new-domain-alias-name=<new_domain_alias_name>",
     "renames alias for <domain_name>"),
    ("--get-mailbox-size", "[--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>",
     "returns the size of mailbox for a mailname"),
    ("--set-mailbox-disk-quota",
     "--domain-name=<domain_name> --mailname=<mail_name> --disk-quota=<quota>",
     "sets the disk quota for a mailbox. Negative quota == Unlimited"),
    ("--set-domain-disk-quota", "--domain-name=<domain_name> --disk-quota=<quota>",
     "sets a disk space quota to a mail domain. Negative quota == Unlimited"),
    ("--help-commands", "", "displays dravnik commands list and exit"),
    ("--help-legacy", "", "displays legacy dravnik help and exit"),
    ("--help-stdin", "",
     "displays information about passing data to dravnik via standard input and exit"),
    ("-h, --help", "", "displays dravnik usage summary and exit"),
]

HELP_COMMANDS_TEXT = "Dravnik commands:\n" + "".join(
    f"{command:<26}{description}\n" for command, _, description in COMMAND_ROWS)

HELP_LEGACY_TEXT = "Usage: dravnik [OPTIONS]... \n" + "".join(
    f"  {command} {usage}\n        {description}\n"
    for command, usage, description in COMMAND_ROWS)

JSON_TEMPLATE = (
    '{\n\t"domain": {\n\t\t"name": "string",\n'
    '\t\t"mbox_quota": "int64 default=-1",\n'
    "\t\t\"mbox_quota_unit\": \"string default='B' enum='B|KB|MB|GB|TB'\",\n"
    '\t\t"dom_aliases": [ "string" ],\n'
    '\t\t"mails": [\n\t\t\t{\n\t\t\t\t"name": "string",\n'
    '\t\t\t\t"mbox_quota": "int64 default=-1",\n'
    "\t\t\t\t\"mbox_quota_unit\": \"string default='B' enum='B|KB|MB|GB|TB'\",\n"
    '\t\t\t\t"aliases": [ "string" ]\n\t\t\t}\n\t\t]\n\t}\n}'
)

HELP_STDIN_TEXT = (
    "Usage: dravnik <COMMAND> <COMMAND OPTIONS...>[--wait-stdin]\n"
    "\t [--domain-aliases=<alias1,alias2,...>]\n"
    "\t [--mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>]\n"
    "\t [--default-domain-quota=<quota>]\n"
    "\n"
    "Some commands will accept additional mail data passed via STDIN. Such commands\n"
    "usually have --wait-stdin option, as well as one or more additional\n"
    "options for passing similar data via command line, such as --domain-aliases, \n"
    "--mail-addresses and --default-domain-quota.\n"
    "\n"
    "Data passed via STDIN should be a valid JSON document with following structure:\n"
    + JSON_TEMPLATE + "\n"
)

# ---------------------------------------------------------------------------
# Per-command options, in declaration order: "name!" is mandatory.

OPTION_TEXTS = {
    "domain-name": "domain name", "mailname": "mailname", "disk-quota": "disk quota",
    "default-domain-quota": "domain disk mailbox quota, i.e. the default one",
    "wait-stdin": "wait for additional mail data from STDIN",
    "mail-domain-disabled": "the domain is disabled (currently unused)",
    "domain-aliases": "list of domain aliases",
    "mail-addresses": "list of mailnames together with their aliases",
    "old-mailname": "old mailname", "new-mailname": "new mailname", "alias": "alias email",
    "old-domain-name": "old domain name", "new-domain-name": "new domain name",
    "domain-alias-name": "domain alias name", "old-domain-alias-name": "old domain alias name",
    "new-domain-alias-name": "new domain alias name",
    "in-blocks": "count result in blocks rather than bytes",
    "set-catchall": "set a domain catchall address", "email": "domain alias name",
    "set-bounce": "set a domain bounce", "phrase": "phrase", "set-reject": "set domain reject flag",
}
SWITCHES = {"wait-stdin", "mail-domain-disabled", "in-blocks", "set-catchall", "set-bounce",
            "set-reject"}
MAIL_DATA = "domain-aliases mail-addresses wait-stdin"
NOT_EXISTING = "set-catchall email set-bounce phrase set-reject"

MA = "[--mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>]"
DA_MA = ("[--domain-aliases=<alias1,alias2,...>"
         " --mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>]")
ACTION = "<--set-bounce 'text'| --set-catchall 'email' | --set-reject>"
PASSWORD_LINES = (
    "\n        The noncrypted password is transferred in the environment variable ZON_PASSWORD,"
    "\n        or crypted password is transferred in the environment variable ZON_CRYPTED_PASSWORD")

Command = namedtuple("Command", "word purpose usage options")

COMMANDS = [
    Command("--add-mailname", "add a mailname",
            "--add-mailname --domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]"
            "\n\t[--default-domain-quota=<quota>] [--wait-stdin]",
            "domain-name! mailname! disk-quota default-domain-quota wait-stdin"),
    Command("--remove-mailname", "remove a mailname",
            "--remove-mailname --domain-name=<domain_name> --mailname=<mail_name>\n\t"
            + MA + " [--wait-stdin]", "domain-name! mailname! " + MAIL_DATA),
    Command("--rename-mailname", "rename a mailname",
            "--rename-mailname --domain-name=<domain_name> --old-mailname=<old_mail_name>"
            " --new-mailname=<new_mail_name> [--mail-domain-disabled|-D]\n\t"
            + MA + " [--wait-stdin]" + PASSWORD_LINES,
            "domain-name! old-mailname! new-mailname! mail-domain-disabled " + MAIL_DATA),
    Command("--add-mailbox", "add mailname's mailbox",
            "--add-mailbox --domain-name=<domain_name> --mailname=<mail_name>"
            " [--mail-domain-disabled|-D]\n\t" + MA + " [--wait-stdin]" + PASSWORD_LINES,
            "domain-name! mailname! mail-domain-disabled " + MAIL_DATA),
    Command("--remove-mailbox", "remove mailname's mailbox",
            "--remove-mailbox --domain-name=<domain_name> --mailname=<mail_name>\n\t"
            + MA + " [--wait-stdin]", "domain-name! mailname! " + MAIL_DATA),
    Command("--set-password", "set mailname's password",
            "--set-password --domain-name=<domain_name> --mailname=<mail_name>"
            " [--mail-domain-disabled|-D]\n\t" + MA + " [--wait-stdin]" + PASSWORD_LINES,
            "domain-name! mailname! mail-domain-disabled " + MAIL_DATA),
    Command("--add-alias", "add alias for a given mailname",
            "--add-alias --domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>\n\t"
            + DA_MA + " [--wait-stdin]", "domain-name! mailname! alias! " + MAIL_DATA),
    Command("--remove-alias", "remove alias for a given mailname",
            "--remove-alias --domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>\n\t"
            + DA_MA + " [--wait-stdin]", "domain-name! mailname! alias! " + MAIL_DATA),
    Command("--add-domain", "add a domain",
            "--add-domain --domain-name=<domain> [--disk-quota=quota] [--wait-stdin]",
            "domain-name! disk-quota wait-stdin"),
    Command("--remove-domain", "remove a domain",
            "--remove-domain --domain-name=<domain>\n\t" + DA_MA + " [--wait-stdin]",
            "domain-name! " + MAIL_DATA),
    Command("--rename-domain", "rename a domain",
            "--rename-domain --old-domain-name=<domain> --new-domain-name=<domain>",
            "old-domain-name! new-domain-name!"),
    Command("--turn-on-domain", "enable a domain",
            "--turn-on-domain --domain-name=<domain> " + ACTION + "\n\t" + DA_MA + " [--wait-stdin]",
            "domain-name! %s %s" % (MAIL_DATA, NOT_EXISTING)),
    Command("--turn-off-domain", "disable a domain",
            "--turn-off-domain --domain-name=<domain>\n\t" + DA_MA + " [--wait-stdin]",
            "domain-name! " + MAIL_DATA),
    Command("--add-domain-alias", "add a domain alias",
            "--add-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name> "
            + ACTION + "\n\t" + DA_MA + " [--wait-stdin]",
            "domain-name! domain-alias-name! %s %s" % (MAIL_DATA, NOT_EXISTING)),
    Command("--del-domain-alias", "remove a domain alias",
            "--del-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
            "domain-name! domain-alias-name! " + MAIL_DATA),
    Command("--rename-domain-alias", "rename a given domain alias",
            "--rename-domain-alias --domain-name=<domain_name>"
            " --old-domain-alias-name=<old_domain_alias_name>"
            " --new-domain-alias-name=<new_domain_alias_name> "
            + ACTION + "\n\t" + DA_MA + " [--wait-stdin]",
            "domain-name! old-domain-alias-name! new-domain-alias-name! %s %s"
            % (MAIL_DATA, NOT_EXISTING)),
    Command("--get-mailbox-size", "get mailbox size",
            "--get-mailbox-size [--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>",
            "in-blocks domain-name! mailname!"),
    Command("--set-mailbox-disk-quota", "set mailbox disk quota",
            "--set-mailbox-disk-quota --domain-name=<domain_name> --mailname=<mail_name>"
            " --disk-quota=<quota>\n\t[--default-domain-quota=<quota>] [--wait-stdin]",
            "domain-name! mailname! disk-quota! default-domain-quota wait-stdin"),
    Command("--set-domain-disk-quota", "set a domain disk quota",
            "--set-domain-disk-quota --domain-name=<domain> --disk-quota=quota\n\t"
            + MA + " [--wait-stdin]\n\tSpecify only mailnames without personal quota via --mail-addresses.",
            "domain-name! disk-quota! " + MAIL_DATA),
]


def mandatory_names(command):
    return [name[:-1] for name in command.options.split() if name.endswith("!")]


def expected_options(command):
    """(short, long, takes_value, text) of each option its help lists."""
    result = []
    for name in command.options.split():
        text = OPTION_TEXTS[name.rstrip("!")] + (" (mandatory)" if name.endswith("!") else "")
        short = "D" if name == "mail-domain-disabled" else None
        result.append((short, name.rstrip("!"), name not in SWITCHES, text))
    return result + [("h", "help", False, "displays this help message")]


# One option entry of the library's listing: "  --name arg   text" or
# "  -D [ --name ]   text"; a value placeholder is the one word glued to the
# name by a single blank.  Longer texts wrap onto indented continuation lines.
OPTION_LINE = re.compile(r"  (?:-(\w) \[ )?--([\w-]+)(?: \])?(?: (?! )(\S+))?(?:\s+(.*))?")


def listed_options(listing):
    """(short, long, takes_value, text) for each option entry of a listing."""
    entries = []
    for line in listing.split("\n"):
        match = OPTION_LINE.fullmatch(line)
        if match:
            entries.append([match[1], match[2], match[3] is not None, match[4] or ""])
        else:
            assert entries and line.startswith("   "), f"unexpected help line {line!r}"
            entries[-1][3] += " " + line
    return [(short, name, takes_value, " ".join(text.split()))
            for short, name, takes_value, text in entries]


# ---------------------------------------------------------------------------
# Dispatch and usage errors


@pytest.mark.parametrize("args, message", [
    ((), "no command specified"),
    (("--bogus",), "invalid command --bogus"),
    (("--ADD-MAILNAME",), "invalid command --ADD-MAILNAME"),
    (("add-mailname", "--domain-name=example.com"), "invalid command add-mailname"),
    (("--bogus", "--help"), "invalid command --bogus"),
    (("",), "invalid command "),
])
def test_usage_error_prints_short_usage_on_stderr(sandbox, args, message):
    res = sandbox.run(*args)
    assert (res.rc, res.out, res.err) == (1, "", f"Error: {message}\n" + SHORT_USAGE)


@pytest.mark.parametrize("word, text", [
    ("-h", SHORT_USAGE),
    ("--help", SHORT_USAGE),
    ("--help-commands", HELP_COMMANDS_TEXT),
    ("--help-legacy", HELP_LEGACY_TEXT),
    ("--help-stdin", HELP_STDIN_TEXT),
])
@pytest.mark.parametrize("extra", [(), ("--bogus", "--add-mailname", "x y")])
def test_help_command_prints_text_on_stdout(sandbox, word, text, extra):
    res = sandbox.run(word, *extra)
    assert (res.rc, res.out, res.err) == (0, text, "")


# ---------------------------------------------------------------------------
# Each command's own help


@pytest.mark.parametrize("flag", ["--help", "-h"])
@pytest.mark.parametrize("command", COMMANDS, ids=lambda c: c.word)
def test_command_help(sandbox, command, flag):
    res = sandbox.run(command.word, flag)
    head = f"{command.purpose}\nUsage: {command.usage}\nAllowed options to {command.purpose}:\n"
    assert (res.rc, res.err, res.out[:len(head)]) == (0, "", head)
    assert res.out.endswith("\n\n") and not res.out.endswith("\n\n\n"), \
        "help must end with exactly one empty line"
    listing = res.out[len(head):-2]
    assert listed_options(listing) == expected_options(command)

