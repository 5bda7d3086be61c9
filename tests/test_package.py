"""The Debian package: built from debian/ with dpkg-buildpackage, checked
with lintian, then installed with apt-get, used, removed and purged at the
real paths, with its maintainer scripts, in a sandbox that holds private
copies of the dpkg database and the system directories it installs into
(taken from the host, so that the dependencies are found installed).  The
host's local dpkg configuration (which may exclude manual pages) and its
stat overrides (which name groups the sandbox lacks) are left out.

The package is built from a copy of the work tree under build/deb, which
dpkg-buildpackage writes beside; compiles go through ccache when it is
installed, so a build after a small change takes seconds."""

import gzip
import hashlib
import os
import re
import shlex
import shutil
import stat
import subprocess

import pytest

from sandbox import REPO, Sandbox
from test_domain_commands import session

BUILD = REPO / "build"
PACKAGE_BUILD = BUILD / "deb"

PROGRAMS = ("dravnik", "dravnik-setup", "dravnik-audit", "dravnik-batch", "dravnik-auth",
            "dravnik-export")
UNITS = ("dravnik-audit.service", "dravnik-audit.timer")
FILES = {  # installed path -> (mode, source in the work tree)
    "/usr/lib/tmpfiles.d/dravnik.conf": ("-rw-r--r--", "dist/tmpfiles.d/dravnik.conf"),
    **{"/usr/sbin/" + p: ("-rwxr-xr-x", None) for p in PROGRAMS},
    **{"/usr/share/man/man8/%s.8.gz" % p: ("-rw-r--r--", "doc/%s.8" % p) for p in PROGRAMS},
    **{"/usr/share/bash-completion/completions/" + p: ("-rw-r--r--", "dist/bash-completion/" + p)
       for p in PROGRAMS},
    **{"/etc/dovecot/conf.d/" + f: ("-rw-r--r--", "dist/dovecot/" + f)
       for f in ("auth-dravnik-checkpassword.conf.ext", "auth-dravnik-lua.conf.ext",
                 "dravnik-auth.lua")},
    "/usr/lib/systemd/system/dravnik-audit.timer": ("-rw-r--r--",
                                                    "dist/systemd/dravnik-audit.timer"),
    "/usr/lib/systemd/system/dravnik-audit.service": ("-rw-r--r--", None),
    "/usr/share/doc/dravnik/copyright": ("-rw-r--r--", "debian/copyright"),
}
# What the maintainer scripts change besides the package's files: the
# timer's enablement, kept by deb-systemd-helper.
SYSTEMD_STATE = ("/etc/systemd/system", "/var/lib/systemd")
HOST_COPIES = ("/var/lib/dpkg", "/usr/sbin", "/usr/share/man/man8",
               "/usr/share/bash-completion/completions", "/etc/dovecot/conf.d",
               "/usr/lib/tmpfiles.d", "/usr/lib/systemd/system", *SYSTEMD_STATE)
# Start empty: apt's own state, the package's documentation directory's
# parent (the host's is large and not needed) and the collector's directory.
METRICS_DIR = "/var/lib/prometheus/node-exporter"
PRIVATE_DIRS = ("/usr/share/doc", "/var/cache/apt", "/var/log/apt", "/var/lib/prometheus")
APT = ["apt-get", "-q", "-y", "-o", "Dir::State::extended_states=/run/sandbox/extended_states",
       "-o", "DPkg::Options::=--log=/dev/null"]
APT_TMP = "/run/sandbox/tmp"  # apt's temporary files; the sandbox's /tmp is the host's
LOCK_DIR = "/run/lock/files"
TIMER_LINK = "/etc/systemd/system/timers.target.wants/dravnik-audit.timer"


def project_version():
    text = (REPO / "CMakeLists.txt").read_text()
    return re.search(r"project\(dravnik VERSION ([0-9.]+)", text).group(1)


def changelog_version():
    return subprocess.check_output(["dpkg-parsechangelog", "-l", str(REPO / "debian/changelog"),
                                    "-S", "Version"], text=True).strip()


def test_programs_changelog_and_build_name_one_version():
    assert changelog_version() == project_version()
    for program in PROGRAMS[1:]:
        path = next(BUILD.glob("src/*/" + program))
        r = subprocess.run([str(path), "--version"], capture_output=True, text=True)
        assert (r.returncode, r.stdout, r.stderr) == (0, "%s %s\n" % (program, project_version()),
                                                      "")
    # dravnik's command words are fixed: --version is not one of them.
    r = subprocess.run([str(BUILD / "src/main/dravnik"), "--version"], capture_output=True,
                       text=True)
    assert r.returncode == 1 and "Error: invalid command --version" in r.stderr


def _copy_work_tree(target):
    """The files git tracks or would track, with their times, so that ccache
    and the build see unchanged files as unchanged."""
    if target.exists():
        shutil.rmtree(target)
    names = subprocess.check_output(["git", "ls-files", "-z", "-c", "-o", "--exclude-standard"],
                                    cwd=REPO).decode().split("\0")
    for name in filter(None, names):
        source = REPO / name
        if not source.is_file():  # deleted, not yet committed
            continue
        (target / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(source, target / name, follow_symlinks=False)


@pytest.fixture(scope="module")
def deb():
    """The package, made by dpkg-buildpackage from a copy of the work tree."""
    for tool in ("dpkg-buildpackage", "dh", "lintian"):
        if shutil.which(tool) is None:
            pytest.fail("%s is missing: run scripts/install-deps.sh" % tool)
    source = PACKAGE_BUILD / "dravnik"
    for old in PACKAGE_BUILD.glob("dravnik*_*"):
        old.unlink()
    _copy_work_tree(source)
    env = dict(os.environ, DEB_BUILD_OPTIONS="nocheck parallel=2")
    if shutil.which("ccache"):
        # debhelper gives the build a HOME of its own: name the cache itself.
        cache = subprocess.check_output(["ccache", "--get-config", "cache_dir"], text=True)
        env.update(CMAKE_CXX_COMPILER_LAUNCHER="ccache", CCACHE_DIR=cache.strip(),
                   CCACHE_BASEDIR=os.environ.get("CCACHE_BASEDIR", str(REPO.parent)))
    result = subprocess.run(["dpkg-buildpackage", "-us", "-uc", "-b"], cwd=source, env=env,
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stdout[-5000:] + result.stderr[-5000:]
    package = PACKAGE_BUILD / ("dravnik_%s_%s.deb" % (
        changelog_version(),
        subprocess.check_output(["dpkg", "--print-architecture"], text=True).strip()))
    assert package.exists(), sorted(p.name for p in PACKAGE_BUILD.iterdir())
    return package


def test_lintian_finds_no_error_and_no_warning(deb):
    result = subprocess.run(["lintian", "--fail-on", "error,warning", str(deb)],
                            capture_output=True, text=True)
    tags = [line for line in result.stdout.splitlines() if re.match(r"[EW]: ", line)]
    assert result.returncode == 0 and not tags, result.stdout + result.stderr


def test_control_fields(deb):
    def field(name):
        return subprocess.check_output(["dpkg-deb", "-f", str(deb), name], text=True).strip()

    depends = [d.strip() for d in field("Depends").split(",")]
    assert {"passwd", "psmisc"} <= set(depends)
    assert any(d.startswith("libsqlite3-0") for d in depends)  # found by dh_shlibdeps
    assert [r.strip() for r in field("Recommends").split(",")] == [
        "courier-base | dovecot-core", "dovecot-imapd", "dovecot-pop3d", "dovecot-auth-lua"]
    assert field("Version") == project_version()


def test_units_pass_systemd_analyze_verify(deb, tmp_path):
    """As packaged, the documentation they name included."""
    subprocess.run(["dpkg-deb", "-x", str(deb), str(tmp_path)], check=True)
    env = dict(os.environ, MANPATH=str(tmp_path / "usr/share/man"))
    result = subprocess.run(["systemd-analyze", "verify",
                             *(str(tmp_path / "lib/systemd/system" / u) for u in UNITS)],
                            capture_output=True, text=True, env=env)
    assert (result.returncode, result.stderr) == (0, ""), result
    timer = (tmp_path / "lib/systemd/system/dravnik-audit.timer").read_text()
    assert "OnCalendar=daily" in timer and "RandomizedDelaySec=" in timer
    service = (tmp_path / "lib/systemd/system/dravnik-audit.service").read_text()
    (start,) = [l for l in service.splitlines() if l.startswith("ExecStart=")]
    assert "--metrics=" in start and "--repair" not in start


def _host_state():
    """What installing could have changed on the host."""
    with open("/var/lib/dpkg/status", "rb") as f:
        status = hashlib.sha256(f.read()).hexdigest()
    return status, {d: sorted(os.listdir(d)) for d in HOST_COPIES if d != "/var/lib/dpkg"}


def _listing(sb, d):
    return sorted(os.listdir(sb.path(d)))


def _exec_start(sb):
    """The service's command line, as systemd splits it."""
    text = sb.read("/usr/lib/systemd/system/dravnik-audit.service")
    (line,) = [l for l in text.splitlines() if l.startswith("ExecStart=")]
    return shlex.split(line[len("ExecStart="):])


def test_install_run_and_remove(deb):
    host = _host_state()
    sb = Sandbox(host_copies=HOST_COPIES, private_dirs=PRIVATE_DIRS)
    try:
        if os.path.isdir("/etc/dpkg/dpkg.cfg.d"):
            sb.hide("/etc/dpkg/dpkg.cfg.d")
        # Re-indexing the manual pages runs as the user "man", which the
        # sandbox has no account for: man-db skips it without this flag.
        if os.path.exists("/var/lib/man-db/auto-update"):
            sb.hide("/var/lib/man-db/auto-update")
        sb.write("/var/lib/dpkg/statoverride", "")
        # apt's own directories keep what apt leaves there; the collector's
        # directory is the test's to make.
        before = {d: _listing(sb, d) for d in HOST_COPIES[1:] + PRIVATE_DIRS
                  if "/apt" not in d and d != "/var/lib/prometheus"}
        shutil.copyfile(deb, sb.path("/run/sandbox/" + deb.name))
        # The maintainer script restores the lock directory's mode.
        os.chmod(sb.path(LOCK_DIR), 0o700)

        os.makedirs(sb.path(APT_TMP))

        def run(*argv):
            r = sb.run_raw(list(argv), env={"TMPDIR": APT_TMP})
            assert r.rc == 0, r
            return r

        def status():
            return sb.run_raw(["dpkg-query", "-W", "-f=${Version} ${db:Status-Abbrev}",
                               "dravnik"]).out.strip()

        run(*APT, "install", "/run/sandbox/" + deb.name)
        assert status() == project_version() + " ii"
        for path, (mode, source) in FILES.items():
            assert stat.filemode(sb.path(path).stat().st_mode) == mode, path
            if source:
                data = sb.path(path).read_bytes()
                assert (gzip.decompress(data) if path.endswith(".gz") else data) == \
                    (REPO / source).read_bytes(), path
        conffiles = sb.read("/var/lib/dpkg/info/dravnik.conffiles").split()
        assert sorted(conffiles) == sorted(p for p in FILES if p.startswith("/etc/"))
        assert sb.path(LOCK_DIR).stat().st_mode & 0o777 == 0o755
        assert os.readlink(sb.path(TIMER_LINK)) == "/lib/systemd/system/dravnik-audit.timer"

        # The installed programs prepare the host and then do their work.
        run("/usr/sbin/dravnik-setup")
        assert run("/usr/sbin/dravnik-setup", "--check").rc == 0
        r = sb.run_raw(["/usr/sbin/dravnik", "--add-domain", "--domain-name=example.com",
                        "--wait-stdin"], stdin=session())
        assert r.rc == 0, r
        assert sb.read("/var/qmail/control/rcpthosts").splitlines() == ["example.com"]

        # The timer's service: the report alone without the collector, the
        # metrics too once its directory is there.
        r = run(*_exec_start(sb))
        assert r.out.splitlines()[-1] == "no findings" and os.listdir(
            sb.path("/var/lib/prometheus")) == []
        os.makedirs(sb.path(METRICS_DIR))
        r = run(*_exec_start(sb))
        assert r.out.splitlines()[-1] == "no findings"
        metrics = sb.read(METRICS_DIR + "/dravnik-audit.prom")
        assert "dravnik_audit_domains 1\n" in metrics
        assert "dravnik_audit_read_complete 1\n" in metrics

        # Removed, the package leaves its conffiles and no stale metrics.
        run(*APT, "remove", "dravnik")
        assert status() == project_version() + " rc"
        assert os.listdir(sb.path(METRICS_DIR)) == []
        assert sb.exists("/etc/dovecot/conf.d/dravnik-auth.lua")
        run(*APT, "purge", "dravnik")
        assert status() == ""
        for d, listing in before.items():
            assert _listing(sb, d) == listing, d
        # Mail data outlives the package.
        assert sb.exists("/var/lib/tavix/mail/auth/passwd.db")
        # Removing and purging again finds nothing to do.
        run("dpkg", "--log=/dev/null", "--purge", "dravnik")
    finally:
        sb.cleanup()
    assert _host_state() == host
