#!/bin/bash
# Builds the libFuzzer targets of fuzz/ with clang in build-fuzz/ and then
#
#   scripts/fuzz.sh [SECONDS [TARGET...]]
#       fuzzes each target (all of them by default) for SECONDS (default 60),
#       all at once, one process each;
#   scripts/fuzz.sh --check
#       runs each target once over every input of its seed corpus, as the
#       test command does: a crash there is a regression.
#
# The seed corpora in fuzz/corpus/ are only read. What a run discovers goes
# to build-fuzz/corpus/<target>/ (kept, so the next run goes on from there),
# inputs that crash to build-fuzz/crashes/<target>/, and the output of each
# run to build-fuzz/logs/<target>.log. Exits non-zero when a target fails.
set -uo pipefail
cd "$(dirname "$0")/.."

all_targets=(session_json maildirsize names auth_request)
build=build-fuzz

# Quiet unless it fails; the whole output stays in build-fuzz/build.log.
build_fuzzers() {
  local log="$build/build.log"
  mkdir -p "$build"
  if ! { cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DDRAVNIK_FUZZ=ON &&
         cmake --build "$build" --target fuzzers; } >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "fuzz.sh: the fuzz build failed (full output in $log)" >&2
    return 1
  fi
}

fuzzer() { echo "$build/fuzz/$1_fuzzer"; }

# One line in all, unless a target fails: then its line and the end of its
# output.
check_seeds() {
  local status=0 total=0 target log inputs
  mkdir -p "$build/logs"
  for target in "${all_targets[@]}"; do
    log="$build/logs/$target.check.log"
    inputs=(fuzz/corpus/"$target"/*)
    total=$((total + ${#inputs[@]}))
    if ! "$(fuzzer "$target")" "${inputs[@]}" >"$log" 2>&1; then
      echo "fuzz check: $target FAILED (full output in $log)"
      tail -n 30 "$log"
      status=1
    fi
  done
  if [ "$status" -eq 0 ]; then
    echo "fuzz check: $total seed inputs of ${#all_targets[@]} targets ran clean" \
      "(${SECONDS}s with the build)"
  fi
  return "$status"
}

# The figures of one finished run: time, executions, coverage, findings.
summarise() {
  local target=$1 seconds=$2 log="$build/logs/$1.log" last execs crashes
  last=$(grep -E '^#[0-9]+' "$log" | grep -E 'cov: ' | tail -n 1)
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  crashes=$(find "$build/crashes/$target" -type f | wc -l)
  printf '%-13s %5ss  execs %-10s %s  crash inputs %s\n' "$target" "$seconds" \
    "${execs:-?}" "$(echo "$last" | grep -oE 'cov: [0-9]+ ft: [0-9]+ corp: [^ ]+')" \
    "$crashes"
}

fuzz_for() {
  local seconds=$1 status=0 target start rc interrupted=0
  shift
  local targets=("$@")
  local -A pids
  # An interrupt is passed on as SIGTERM, on which the fuzzers stop and
  # still print their final figures.
  trap 'interrupted=1; kill -TERM "${pids[@]}" 2>/dev/null' INT TERM
  for target in "${targets[@]}"; do
    mkdir -p "$build/corpus/$target" "$build/crashes/$target" "$build/logs"
    "$(fuzzer "$target")" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$build/crashes/$target/" \
      "$build/corpus/$target" "fuzz/corpus/$target" \
      >"$build/logs/$target.log" 2>&1 &
    pids[$target]=$!
  done
  echo "fuzz: ${targets[*]} for ${seconds}s each (logs in $build/logs/)"
  start=$SECONDS
  for target in "${targets[@]}"; do
    # The trap ends a wait early, while the fuzzer is still stopping.
    while :; do
      wait "${pids[$target]}"
      rc=$?
      kill -0 "${pids[$target]}" 2>/dev/null || break
    done
    if [ "$rc" -ne 0 ] && [ "$interrupted" -eq 0 ]; then
      echo "fuzz: $target FAILED; see $build/logs/$target.log" >&2
      status=1
    fi
  done
  echo
  [ "$interrupted" -eq 0 ] || { echo "fuzz: interrupted"; status=1; }
  echo "==== fuzz summary ($((SECONDS - start))s wall) ===="
  for target in "${targets[@]}"; do
    summarise "$target" "$seconds"
  done
  return "$status"
}

if ! command -v clang++ >/dev/null; then
  echo "fuzz.sh: clang++ is missing; run scripts/install-deps.sh" >&2
  exit 1
fi

if [ "${1:-}" = --check ]; then
  build_fuzzers || exit 1
  check_seeds
  exit
fi

seconds=${1:-60}
case $seconds in
  '' | *[!0-9]*) echo "usage: $0 [SECONDS [TARGET...]] | --check" >&2; exit 2 ;;
esac
shift $(($# > 0 ? 1 : 0))
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")
for target in "${targets[@]}"; do
  if [[ " ${all_targets[*]} " != *" $target "* ]]; then
    echo "fuzz.sh: no target $target (targets: ${all_targets[*]})" >&2
    exit 2
  fi
done

build_fuzzers || exit 1
fuzz_for "$seconds" "${targets[@]}"
