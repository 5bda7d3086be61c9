"""pytest set-up: every test that asks for `sandbox` gets a fresh one.

The sandbox runs the real dravnik as root inside bubblewrap, so the session
refuses to start without either; and after each test it checks that the
host's own /var/qmail, /etc/zon, ... are exactly as they were before the
session, so that a leak out of the sandbox fails loudly."""

import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

# The sandbox is a tool of the package (scripts/), shared with the demo and
# the benchmarks.
sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "scripts"))

import sandbox as sandbox_module  # noqa: E402


def pytest_configure(config):
    config.addinivalue_line("markers", "load: hundreds of runs in one sandbox, killed at "
                            "random or started at once (test_under_load.py)")


def pytest_sessionstart(session):
    problems = []
    if not os.access(sandbox_module.BWRAP, os.X_OK):
        problems.append("bubblewrap is missing (%s); run scripts/install-deps.sh"
                        % sandbox_module.BWRAP)
    if not os.access(sandbox_module.PYTHON, os.X_OK):
        problems.append("%s is missing; run scripts/install-deps.sh" % sandbox_module.PYTHON)
    if os.geteuid() != 0:
        problems.append("the sandbox runs dravnik as root: run the tests as root")
    dravnik = sandbox_module.Sandbox.default_dravnik()
    if not os.access(dravnik, os.X_OK):
        problems.append("dravnik binary not found at %s: build it first "
                        "(cmake -S . -B build -G Ninja && ninja -C build) or set DRAVNIK"
                        % dravnik)
    if problems:
        raise pytest.UsageError("cannot run the sandbox tests:\n  " + "\n  ".join(problems))


def assert_host_unchanged(before):
    after = sandbox_module.host_fingerprint()
    changed = [p for p in sorted(set(before) | set(after)) if before.get(p) != after.get(p)]
    assert not changed, "a sandboxed run changed the host at: %s" % ", ".join(changed)


@pytest.fixture(scope="session", autouse=True)
def host_before():
    """The host as it was before the session; checked again at its end, for
    the tests that make sandboxes of their own."""
    before = sandbox_module.host_fingerprint()
    yield before
    assert_host_unchanged(before)


@pytest.fixture
def sandbox(host_before):
    """A fresh sandbox, removed after the test."""
    box = sandbox_module.Sandbox()
    try:
        yield box
    finally:
        box.cleanup()
    assert_host_unchanged(host_before)


@pytest.fixture
def mail_sandbox(sandbox):
    """A fresh sandbox with the authentication and handlers databases."""
    sandbox.init_databases()
    return sandbox


def sandbox_copy(root):
    """A sandbox on a copy of a prepared sandbox's tree `root` (a module's
    costly set-up, made once), removed after the test; for a fixture to
    `yield from`."""
    directory = Path(tempfile.mkdtemp(prefix="dravnik-copy-"))
    try:
        subprocess.run(["cp", "-a", "--", str(root), str(directory / "root")], check=True)
        box = sandbox_module.Sandbox(directory)
        box.keep = False  # goes with the test, with any file system it mounted
        try:
            yield box
        finally:
            box.cleanup()
    finally:
        if directory.exists():
            shutil.rmtree(directory)


STRACE = "/usr/bin/strace"


def traced(sb, argv, *strace_args, env=None):
    """Runs `argv` in the sandbox under strace with `strace_args` (its path
    filter and fault injection), its trace on standard error. A sanitized
    program's leak check cannot run under ptrace and would fail every such
    run, so it is turned off for these (the same runs are checked untraced
    elsewhere)."""
    env = dict(env or {}, ASAN_OPTIONS="detect_leaks=0")
    return sb.run_raw([STRACE, "-f", "-o", "/dev/stderr", *strace_args, *map(str, argv)], env=env)
