#!/usr/bin/env python3
"""A short session with dravnik as a control panel would drive it, in a
private sandbox: each step prints the command, what it printed, its exit
status, what qmail was asked to do and the files it changed.

The session is the table STEPS: each step is one run of the program, and
later steps see what earlier ones did.  A step whose exit status differs
from the expected one is reported, and makes the demo fail at the end."""

import argparse
import shlex
import sys
from dataclasses import dataclass, field
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests"))
from sandbox import Sandbox, SandboxError, changed_files, report  # noqa: E402


@dataclass
class Step:
    title: str
    args: list
    expect: int = 0                             # exit status
    env: dict = field(default_factory=dict)     # e.g. {"ZON_PASSWORD": "..."}
    stdin: str = None                           # JSON mail data, when the step reads it


STEPS = [
    Step("The short usage", ["--help"]),
    Step("The list of commands", ["--help-commands"]),
    Step("The options of one command", ["--add-mailname", "--help"]),
    Step("A mandatory option is missing",
         ["--add-mailname", "--domain-name=example.com"], expect=1),
    Step("An invalid domain name is refused",
         ["--add-domain", "--domain-name=exa_mple.com"], expect=1),
    Step("An unknown command", ["--add-everything"], expect=1),
]


def shown_command(step):
    words = ["%s=%s" % (k, shlex.quote(v)) for k, v in step.env.items()]
    words += ["dravnik"] + [shlex.quote(a) for a in step.args]
    line = "$ " + " ".join(words)
    if step.stdin is not None:
        line += " <<'EOF'\n" + step.stdin + ("" if step.stdin.endswith("\n") else "\n") + "EOF"
    return line


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--dir", help="keep the sandbox in DIR for inspection afterwards")
    opts = parser.parse_args()

    box = Sandbox(opts.dir)
    unexpected = []
    try:
        print("dravnik demo: sandbox in %s, host name %s\n" % (box.dir, box.hostname()))
        for number, step in enumerate(STEPS, start=1):
            print("=== %d. %s ===" % (number, step.title))
            print(shown_command(step), flush=True)
            before = box.snapshot()
            result = box.run(*step.args, env=step.env, stdin=step.stdin)
            report(box, result, changed_files(before, box.snapshot()))
            if result.rc != step.expect:
                print("!!! expected exit status %d" % step.expect)
                unexpected.append(number)
            print()
    except SandboxError as e:
        print("demo: %s" % e, file=sys.stderr)
        return 1
    finally:
        box.cleanup()

    if unexpected:
        print("demo: unexpected exit status in step(s) %s" % ", ".join(map(str, unexpected)))
        return 1
    print("demo: all %d steps ended as expected" % len(STEPS))
    return 0


if __name__ == "__main__":
    sys.exit(main())
