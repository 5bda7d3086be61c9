#!/bin/bash
# The unit tests and the black-box suite once more, on programs built with
# AddressSanitizer and UndefinedBehaviorSanitizer in build-asan/.  A finding
# (memory error, leak, undefined behaviour) ends the program with status 86
# (cmake/sanitizer_defaults.cc), which fails the test that ran it.
#
# Run by scripts/test.sh after the plain build's tests; ends with one summary
# line per stage, each starting with "sanitized".
set -uo pipefail
cd "$(dirname "$0")/.."

build=build-asan
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

# A debug build: assertions stay on, and the optimiser's time is saved
# (the tests spend theirs starting processes and sandboxes, not computing).
start=$SECONDS
if ! { cmake -S . -B "$build" -G Ninja -DDRAVNIK_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug &&
       cmake --build "$build"; } >"$logs/build" 2>&1; then
  tail -n 40 "$logs/build"
  echo "sanitized build: FAILED"
  exit 1
fi
build_time=$((SECONDS - start))

# In parallel: every sandboxed test has a sandbox of its own, and the
# instrumented programs spend most of their time starting up.
start=$SECONDS
ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$(nproc)" 2>&1 |
  tee "$logs/ctest"
ctest_status=${PIPESTATUS[0]}
ctest_time=$((SECONDS - start))

# The black-box tests take the programs from these variables.  The package
# test is left out: it packages the plain build, which the first run checked.
export DRAVNIK=$PWD/$build/src/main/dravnik
export DRAVNIK_SETUP=$PWD/$build/src/setup/dravnik-setup
export CIPHER_DRIVER=$PWD/$build/tests/drivers/cipher_driver
PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m pytest -q -p no:cacheprovider \
  --ignore=tests/test_package.py tests 2>&1 | tee "$logs/pytest"
pytest_status=${PIPESTATUS[0]}

echo
ctest_line=$(grep -E '^[0-9]+% tests passed' "$logs/ctest" | tail -n 1)
pytest_line=$(grep -E ' in [0-9.]+s' "$logs/pytest" | tail -n 1)
echo "sanitized build: ${build_time}s"
echo "sanitized ctest: ${ctest_line:-no summary (status $ctest_status)} (${ctest_time}s)"
echo "sanitized pytest: ${pytest_line:-no summary (status $pytest_status)}"

[ "$ctest_status" -eq 0 ] && [ "$pytest_status" -eq 0 ]
