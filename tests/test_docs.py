"""The manual pages and the bash completion, held against the programs.

The command words and options are those that test_cli_dispatch_help.py
holds the programs' own help to, so a command or option added to the code
and not to doc/ or dist/bash-completion/ fails here.  The manual is read as
man renders it, as an operator sees it (and copies from it): the examples of
dravnik.8 are run in a sandbox."""

import functools
import itertools
import json
import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path

import pytest

from sandbox import REPO, Sandbox
from test_cli_dispatch_help import COMMAND_ROWS, COMMANDS, expected_options
from test_domain_commands import AUTH_DB, query

DRAVNIK = Sandbox.default_dravnik()
MANUAL = REPO / "doc" / "dravnik.8"
COMPLETION = REPO / "dist" / "bash-completion" / "dravnik"

# An option as written in running text: "--domain-name=domain", "[-h|--help]".
OPTION = re.compile(r"(?<![\w-])(--?[A-Za-z][\w-]*)")

COMMAND_WORDS = [word for row in COMMAND_ROWS for word in row[0].split(", ")]
OPERATING_WORDS = [c.word for c in COMMANDS]

# The package's other programs: {option: takes a value}, as their help,
# manual and completion name them.
STANDARD = {"-h": False, "--help": False, "--version": False}
PROGRAMS = {
    "dravnik-setup": {"--check": False, "--force": False, "--create-accounts": False,
                      **STANDARD},
    "dravnik-audit": {"--repair": False, "--json": False, "--sizes": False,
                      "--drift-bytes": True, "--lock-wait": True, "--metrics": True, **STANDARD},
    "dravnik-export": {"--domain": True, **STANDARD},
}


def program(name):
    """The built program, or the one the environment names (DRAVNIK_SETUP, ...)."""
    variable = name.upper().replace("-", "_")
    return os.environ.get(variable) or str(
        Path(DRAVNIK).parent.parent / name.split("-")[1] / name)


def command_options(word):
    """{option: takes a value} of a command."""
    (command,) = [c for c in COMMANDS if c.word == word]
    options = {}
    for short, name, takes_value, _ in expected_options(command):
        options["--" + name] = takes_value
        if short:
            options["-" + short] = takes_value
    return options


# -- the manual pages -------------------------------------------------------

def need(tool):
    if shutil.which(tool) is None:
        pytest.skip("%s is not installed (scripts/install-deps.sh installs it)" % tool)


@functools.lru_cache(maxsize=None)
def rendered(page):
    """The page as man shows it, wide enough that no option is broken."""
    need("man")
    env = dict(os.environ, MANWIDTH="200", LC_ALL="C.UTF-8")
    env.pop("MAN_KEEP_FORMATTING", None)
    result = subprocess.run(["man", "-l", "-E", "UTF-8", "-P", "cat", str(page)],
                            capture_output=True, text=True, env=env)
    assert result.returncode == 0, result.stderr
    return re.sub(r".\x08", "", result.stdout)


def blocks(lines, indent):
    """{heading: its lines} for the headings at exactly `indent` blanks."""
    found, current = {}, None
    for line in lines:
        depth = len(line) - len(line.lstrip(" "))
        if line.strip() and depth <= indent:
            current = line.strip() if depth == indent else None
            if current is not None:
                found[current] = []
        elif current is not None:
            found[current].append(line)
    return found


def section(page, name):
    return blocks(rendered(page).splitlines(), 0)[name]


@pytest.mark.parametrize("word", OPERATING_WORDS)
def test_manual_shows_each_command_with_exactly_its_options(word):
    entry = blocks(section(MANUAL, "COMMANDS"), 3).get(word)
    assert entry is not None, "dravnik.8 has no subsection for %s" % word
    synopsis = " ".join(entry[:entry.index("")]) if "" in entry else " ".join(entry)
    shown = set(OPTION.findall(synopsis)) - {word}
    assert shown == set(command_options(word))


def test_manual_names_every_command_word():
    text = rendered(MANUAL)
    missing = [w for w in COMMAND_WORDS if not re.search(r"(?<![\w-])%s(?![\w-])" % w, text)]
    assert not missing


def examples():
    """The example blocks of dravnik.8 as one shell script, prompts removed."""
    lines = [line[11:] for line in section(MANUAL, "EXAMPLES") if line.startswith(" " * 11)]
    return "\n".join(line[2:] if line.startswith("# ") else line for line in lines) + "\n"


def test_manual_examples_run(mail_sandbox):
    sb = mail_sandbox
    script = "set -e\ndravnik() { %s \"$@\"; }\n" % shlex.quote(str(DRAVNIK)) + examples()
    result = sb.run_raw(["/bin/bash", "-c", script])
    assert result.rc == 0, result
    assert int(result.out) > 0  # --get-mailbox-size: at least @attachments itself
    home = "/var/qmail/mailnames/example.org/john"
    limit = sb.read(home + "/Maildir/maildirsize").split("S", 1)[0]
    assert 0 < int(limit) <= 104857600
    assert "=example.org-info:popuser" in sb.read("/var/qmail/users/assign")
    # The password reached the program and followed the renames.
    rows = query(sb, AUTH_DB, "SELECT users.name, userPassword FROM users JOIN domains"
                 " ON dom_id = domains.id WHERE domains.name = 'example.org' ORDER BY 1")
    assert [name for name, _ in rows] == ["info", "john"]
    assert all(password.startswith("$AES-256-CBC:PKCS$") for _, password in rows)


def test_manual_session_data_example_is_accepted(mail_sandbox):
    text = section(MANUAL, "SESSION MAIL DATA")
    start = text.index("           {")
    document = "\n".join(text[start:text.index("           }", start) + 1])
    domain = json.loads(document)["domain"]["name"]
    result = mail_sandbox.run("--add-domain", "--domain-name=" + domain, "--wait-stdin",
                              stdin=document)
    assert result.rc == 0, result


# -- bash completion ---------------------------------------------------------

def complete(completion, function, *words):
    """COMPREPLY for the command line `words`, the last one being completed."""
    script = ('source "$1"; shift; f=$1; shift; COMP_WORDS=("$@"); '
              'COMP_CWORD=$(($# - 1)); "$f"; printf "%s\\n" "${COMPREPLY[@]}"')
    result = subprocess.run(["bash", "--norc", "--noprofile", "-c", script, "bash",
                             str(completion), function, *words],
                            capture_output=True, text=True)
    assert result.returncode == 0 and result.stderr == "", result
    return [w for w in result.stdout.splitlines() if w]


def offered(words):
    """{option: takes a value} of completions, "--domain-name=" taking one."""
    return {w.rstrip("="): w.endswith("=") for w in words}


@pytest.mark.parametrize("word", OPERATING_WORDS)
def test_completion_offers_each_commands_options(word):
    words = complete(COMPLETION, "_dravnik", "dravnik", word, "")
    assert len(words) == len(set(words))
    assert offered(words) == command_options(word)


# An option given is not offered again, unless it may come again, nor one
# that cannot go with it.
@pytest.mark.parametrize("name, given, left", [
    ("dravnik-setup", ("--check", "--"), {"--help", "--version"}),
    ("dravnik-audit", ("--lock-wait=3", "--"), {"--repair", "--json", "--sizes", "--drift-bytes",
                                                "--metrics", "--help", "--version"}),
    ("dravnik-export", ("--domain=a.test", "--help", "-"), {"--domain", "-h", "--version"}),
])
def test_help_manual_and_completion_name_exactly_the_options(name, given, left):
    options = PROGRAMS[name]
    result = subprocess.run([program(name), "--help"], capture_output=True, text=True)
    assert result.returncode == 0, result
    usage, listing = result.stdout.split("\n\n")[0], result.stdout.split("Options:\n")[1]
    assert set(OPTION.findall(usage)) == set(options)
    entries = re.findall(r"^  (?:-\w \[ )?(--[\w-]+)(?: \])?( arg)?", listing, re.M)
    assert {n: bool(arg) for n, arg in entries} == {o: v for o, v in options.items()
                                                    if o.startswith("--")}
    tags = [line.strip() for line in section(REPO / "doc" / (name + ".8"), "OPTIONS")
            if line.startswith("       -")]
    assert {w.rstrip(",").split("=")[0] for tag in tags
            for w in itertools.takewhile(lambda w: w.startswith("-"), tag.split())} == set(options)
    completion = REPO / "dist" / "bash-completion" / name
    function = "_" + name.replace("-", "_")
    assert offered(complete(completion, function, name, "-")) == options
    assert offered(complete(completion, function, name, *given)) == {o: options[o] for o in left}
