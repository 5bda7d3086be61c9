#!/bin/bash
# Plants deliberate faults in the code one at a time and tells, for each,
# whether the test suite notices: a suite that passes with a fault in place
# does not guard that line.
#
#   scripts/fault-check.sh [-r REF] [-w DIR] [-m MARKS] [-b] [FAULT...]
#
# -r REF    the commit whose code and tests are checked (default HEAD)
# -w DIR    work directory (default /tmp/dravnik-faults): the copy of the
#           tree is DIR/tree and its build DIR/tree/build. The faults go into
#           that copy only, never into the work tree this script lives in.
#           Checking another REF in the same DIR rewrites only the files that
#           differ, so the rebuild is incremental.
# -m MARKS  pytest marker expression (default "not load": the load tests run
#           hundreds of programs and take minutes)
# -b        first run the suite with no fault: a fault only counts as caught
#           when the suite passes without it
# FAULT...  ids from the table below (default: all)
#
# Each fault is one sed expression on one file. The unit tests (ctest) run
# first and the program tests (pytest) only when they pass; both stop at
# the first failure. Output: one line per fault, "caught" with the first
# failing test, "missed", "not-applied" (the expression no longer matches
# the code) or "build-failed".
set -uo pipefail

ref=HEAD
work=/tmp/dravnik-faults
marks="not load"
baseline=0
while getopts "r:w:m:b" opt; do
  case $opt in
    r) ref=$OPTARG ;;
    w) work=$OPTARG ;;
    m) marks=$OPTARG ;;
    b) baseline=1 ;;
    *) sed -n '2,24s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))

# id|file|sed expression|what the fault does
faults=(
  "lock-shared#src/qmail/lock.cc#s/O_TRUNC, LOCK_EX, use_lock_dir/O_TRUNC, LOCK_SH, use_lock_dir/#blocking lock taken shared: two runs hold it at once"
  "edit-unlocked#src/qmail/line_file.cc#s/ScopedLock lock(mk_lock(path, 1));/ScopedLock lock(mk_lock((std::string(path) + \".x\").c_str(), 1));/#line-file edits lock another file: missing lock"
  "no-fsync#src/util/atomic_file.cc#s/if (fsync(fd_.get()) != 0 || fd_.close() != 0)/if (fd_.close() != 0)/#new file contents not synced before the rename"
  "domain-dir-mode#src/qmail/mail_domains.cc#s/fchmod(dir.get(), 0700)/fchmod(dir.get(), 0750)/#domain directory mode 0750 instead of 0700"
  "domain-dir-owner#src/qmail/mail_domains.cc#s/fchown(dir.get(), uid, gid)/fchown(dir.get(), 0, gid)/#domain directory left owned by root"
  "no-undo-mailname#src/qmail/mailnames.cc#s/^  rm_mailname(mailname, domain);$/  (void)mailname, (void)domain;/#failed mail name add leaves what it made: undo dropped"
  "mailbox-owner#src/qmail/mailnames.cc#s/chown_nofollow(path.c_str(), user.uid, user.gid)/chown_nofollow(path.c_str(), 0, user.gid)/#mailbox directories left owned by root"
  "dotqmail-mode#src/qmail/delivery.cc#s/kDotqmailMode = 0600/kDotqmailMode = 0644/#.qmail files readable by all"
  "default-mode#src/qmail/nonexisting_mail.cc#s/file.set_mode(0600)/file.set_mode(0644)/#.qmail-default readable by all"
  "no-sighup#src/qmail/qmail_control.cc#s/return send_sig(\"qmail-send\", SIGHUP);/return 0;/#qmail-send is not told to re-read its files"
  "quota-off-by-one#src/qmail/maildirpp.cc#s/return total > limit;/return total >= limit;/#a mailbox exactly at its quota counts as over it"
  "label-off-by-one#src/util/names.cc#s/++label_length > kMaxLabelLength/++label_length >= kMaxLabelLength/#a 63-character domain label is refused"
  "rename-host-flip#src/qmail/domain_rename.cc#s/strcasecmp(new_domain.c_str(), host) == 0/strcasecmp(new_domain.c_str(), host) != 0/#domain rename: test for the machine's own name inverted"
  "message-text#src/maildata/domain_mail_ops.cc#s/Unable to clone auth record for %s@%s\", name/Unable to copy auth record for %s@%s\", name/#wrong text of a failure message"
  "json-escape#src/maildata/json_parser.cc#s/case 'n': return '\\\\n';/case 'n': return 'n';/#JSON \\n escape read as a plain n"
  "cipher-padding#src/mailauth/cipher.cc#s/EVP_CIPHER_CTX_set_padding(\\*ctx, 0);/EVP_CIPHER_CTX_set_padding(*ctx, 1);/#zero-padding ciphers padded as PKCS"
)

here=$(cd "$(dirname "$0")/.." && pwd)
tree=$work/tree
build=$tree/build
mkdir -p "$work" || exit 1
case $(realpath -m "$tree") in
  "$here" | "$here"/*) echo "fault-check: $tree is inside the work tree" >&2; exit 2 ;;
esac

# The copy: REF exported, then only the files that differ written over the
# previous copy, so that a rewritten file is newer than its objects and an
# unchanged one is left alone; files REF no longer has are removed.
rm -rf "$work/export" && mkdir -p "$work/export" || exit 1
git -C "$here" archive "$ref" | tar -x -C "$work/export" || exit 1
mkdir -p "$tree"
(cd "$work/export" && find . -type f -print0) |
  while IFS= read -r -d '' f; do
    cmp -s "$work/export/$f" "$tree/$f" ||
      { mkdir -p "$(dirname "$tree/$f")" && cp "$work/export/$f" "$tree/$f"; } || exit 1
  done || exit 1
(cd "$tree" && find . -path ./build -prune -o -type f -print0) |
  while IFS= read -r -d '' f; do
    [ -e "$work/export/$f" ] || rm -f "$tree/$f"
  done
echo "fault-check: $(git -C "$here" rev-parse --short "$ref") in $tree"

if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >"$work/cmake.log" 2>&1 ||
    { echo "fault-check: cmake failed, see $work/cmake.log" >&2; exit 1; }
fi

build_tree() { nice ninja -C "$build" >"$work/build.log" 2>&1; }

# Runs the suite until its first failure; prints the failing test, if any.
run_suite() {
  if ! ctest --test-dir "$build" --stop-on-failure --output-on-failure \
      >"$work/ctest.log" 2>&1; then
    local failed
    failed=$(grep -m1 -oE '[0-9]+ - [^ ]+ \(Failed|[0-9]+ - [^ ]+ \(SEGFAULT|[0-9]+ - [^ ]+ \(Timeout' \
      "$work/ctest.log" | sed -E 's/^[0-9]+ - //; s/ \(.*//')
    echo "ctest:${failed:-?}"
    return 1
  fi
  if ! (cd "$tree" && DRAVNIK=$build/src/main/dravnik DRAVNIK_SETUP=$build/src/setup/dravnik-setup \
      CIPHER_DRIVER=$build/tests/drivers/cipher_driver PYTHONDONTWRITEBYTECODE=1 \
      /usr/bin/python3 -m pytest -x -q -p no:cacheprovider -m "$marks" tests \
      >"$work/pytest.log" 2>&1); then
    local failed
    failed=$(grep -m1 -oE '^FAILED [^ ]+|^ERROR [^ ]+' "$work/pytest.log" | sed -E 's/^[A-Z]+ tests\///')
    echo "pytest:${failed:-?}"
    return 1
  fi
  return 0
}

build_tree || { echo "fault-check: the unchanged copy does not build, see $work/build.log" >&2; exit 1; }
if [ "$baseline" = 1 ]; then
  if failed=$(run_suite); then
    echo "fault-check: the suite passes with no fault"
  else
    echo "fault-check: the suite fails with no fault ($failed); see $work/*.log" >&2
    exit 1
  fi
fi

caught=0 missed=0 other=0
printf '%-18s %-13s %s\n' FAULT RESULT "FIRST FAILING TEST"
for entry in "${faults[@]}"; do
  IFS='#' read -r id file expr what <<<"$entry"
  if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx -- "$id"; then
    continue
  fi
  target=$tree/$file
  cp "$target" "$work/original" || exit 1
  sed -i -e "$expr" "$target"
  if cmp -s "$target" "$work/original"; then
    result=not-applied detail=""
  elif ! build_tree; then
    result=build-failed detail="see $work/build.log"
    cp "$work/build.log" "$work/build-$id.log"
  elif detail=$(run_suite); then
    result=missed
  else
    result=caught
  fi
  # Put back as a new write, so that the next build recompiles it.
  cat "$work/original" >"$target"
  case $result in
    caught) caught=$((caught + 1)) ;;
    missed) missed=$((missed + 1)) ;;
    *) other=$((other + 1)) ;;
  esac
  printf '%-18s %-13s %s\n' "$id" "$result" "$detail"
  echo "  ($what)"
done
build_tree
echo "fault-check: $caught caught, $missed missed, $other not run"
