"""The Debian package: built from the build tree with CPack, its contents
checked, then installed, used and purged with dpkg at the real paths, with
its maintainer scripts, in a sandbox that holds private copies of the dpkg
database and the system directories it installs into (taken from the host,
so that the dependencies are found installed).  The host's local dpkg
configuration (which may exclude manual pages) and its stat overrides (which
name groups the sandbox lacks) are left out."""

import gzip
import hashlib
import os
import shutil
import stat
import subprocess

import pytest

from sandbox import REPO, Sandbox
from test_domain_commands import session

BUILD = REPO / "build"
VERSION = "0.1.0"

PROGRAMS = ("dravnik", "dravnik-setup", "dravnik-audit", "dravnik-batch", "dravnik-auth",
            "dravnik-export")
FILES = {  # installed path -> (mode, source in the work tree)
    "/usr/lib/tmpfiles.d/dravnik.conf": ("-rw-r--r--", "dist/tmpfiles.d/dravnik.conf"),
    **{"/usr/sbin/" + p: ("-rwxr-xr-x", None) for p in PROGRAMS},
    **{"/usr/share/man/man8/%s.8.gz" % p: ("-rw-r--r--", "doc/%s.8" % p) for p in PROGRAMS},
    **{"/usr/share/bash-completion/completions/" + p: ("-rw-r--r--", "dist/bash-completion/" + p)
       for p in PROGRAMS},
    **{"/etc/dovecot/conf.d/" + f: ("-rw-r--r--", "dist/dovecot/" + f)
       for f in ("auth-dravnik-checkpassword.conf.ext", "auth-dravnik-lua.conf.ext",
                 "dravnik-auth.lua")},
}
SYSTEM_DIRS = sorted({os.path.dirname(p) for p in FILES})
HOST_COPIES = ("/var/lib/dpkg", *SYSTEM_DIRS)
DPKG = ["dpkg", "--log=/dev/null"]
LOCK_DIR = "/run/lock/files"


@pytest.fixture(scope="module")
def deb(tmp_path_factory):
    """The package, made by CPack from the build tree into a scratch directory."""
    config = BUILD / "CPackConfig.cmake"
    if not config.exists():
        pytest.fail("%s is missing: configure the build first" % config)
    out = tmp_path_factory.mktemp("deb")
    result = subprocess.run(["cpack", "-G", "DEB", "--config", str(config), "-B", str(out)],
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stdout + result.stderr
    (package,) = out.glob("*.deb")
    assert package.name == "dravnik_%s_%s.deb" % (
        VERSION, subprocess.check_output(["dpkg", "--print-architecture"], text=True).strip())
    return package


def _host_state():
    """What installing could have changed on the host."""
    with open("/var/lib/dpkg/status", "rb") as f:
        status = hashlib.sha256(f.read()).hexdigest()
    return status, {d: sorted(os.listdir(d)) for d in SYSTEM_DIRS}


def test_install_run_and_remove(deb):
    host = _host_state()
    sb = Sandbox(host_copies=HOST_COPIES)
    try:
        if os.path.isdir("/etc/dpkg/dpkg.cfg.d"):
            sb.hide("/etc/dpkg/dpkg.cfg.d")
        sb.write("/var/lib/dpkg/statoverride", "")
        shutil.copyfile(deb, sb.path("/run/sandbox/dravnik.deb"))
        # The maintainer script restores the lock directory's mode.
        os.chmod(sb.path(LOCK_DIR), 0o700)

        # Triggers are deferred: the one this package sets off re-indexes the
        # manual pages as the user "man", which the sandbox has no account for.
        def dpkg(*args):
            r = sb.run_raw(DPKG + ["--no-triggers", *args])
            assert r.rc == 0, r
            return r

        def status():
            return sb.run_raw(["dpkg-query", "-W", "-f=${Version} ${db:Status-Abbrev}",
                               "dravnik"]).out.strip()

        dpkg("-i", "/run/sandbox/dravnik.deb")
        assert status() == VERSION + " ii"
        for path, (mode, source) in FILES.items():
            assert stat.filemode(sb.path(path).stat().st_mode) == mode, path
            if source:
                data = sb.path(path).read_bytes()
                assert (gzip.decompress(data) if path.endswith(".gz") else data) == \
                    (REPO / source).read_bytes(), path
        assert sb.path(LOCK_DIR).stat().st_mode & 0o777 == 0o755

        # The installed programs prepare the host and then do their work.
        r = sb.run_raw(["/usr/sbin/dravnik-setup"])
        assert r.rc == 0, r
        r = sb.run_raw(["/usr/sbin/dravnik", "--add-domain", "--domain-name=example.com",
                        "--wait-stdin"], stdin=session())
        assert r.rc == 0, r
        assert sb.read("/var/qmail/control/rcpthosts").splitlines() == ["example.com"]

        dpkg("--purge", "dravnik")
        assert status() == ""
        for d in SYSTEM_DIRS:
            assert sorted(os.listdir(sb.path(d))) == host[1][d], d
        # Mail data outlives the package.
        assert sb.exists("/var/lib/tavix/mail/auth/passwd.db")
    finally:
        sb.cleanup()
    assert _host_state() == host
