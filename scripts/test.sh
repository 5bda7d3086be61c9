#!/bin/bash
# Every test of dravnik: the unit tests (CTest) and the tests of the real
# program in its sandbox (pytest).  Exits non-zero if the build or either
# runner fails; pytest runs even after a unit-test failure.
set -uo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh || exit 1

cmake -S . -B build -G Ninja || exit 1
if ! cmake --build build; then
  echo "test.sh: the build failed" >&2
  exit 1
fi

logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

ctest --test-dir build --output-on-failure --no-tests=error 2>&1 | tee "$logs/ctest"
ctest_status=${PIPESTATUS[0]}

# Nothing may be written into the work tree: no bytecode, no pytest cache.
PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m pytest -q -p no:cacheprovider tests 2>&1 |
  tee "$logs/pytest"
pytest_status=${PIPESTATUS[0]}   # 5 (no tests collected) is a failure too

# The fuzz targets, each once over its seed inputs (a crash is a regression),
# then both runners again on the sanitizer build.
bash scripts/fuzz.sh --check 2>&1 | tee "$logs/fuzz"
fuzz_status=${PIPESTATUS[0]}
bash scripts/test-sanitized.sh 2>&1 | tee "$logs/sanitized"
sanitized_status=${PIPESTATUS[0]}

echo
echo "==== summary ===="
ctest_line=$(grep -E '^[0-9]+% tests passed' "$logs/ctest" | tail -n 1)
pytest_line=$(grep -E ' in [0-9.]+s' "$logs/pytest" | tail -n 1)
echo "${ctest_line:-ctest: no summary (status $ctest_status)}"
echo "${pytest_line:-pytest: no summary (status $pytest_status)}"
grep -E '^fuzz check: [0-9]+ seed inputs' "$logs/fuzz" ||
  echo "fuzz check: failed (status $fuzz_status)"
grep -E '^sanitized [a-z]+: ' "$logs/sanitized" ||
  echo "sanitized: no summary (status $sanitized_status)"

[ "$ctest_status" -eq 0 ] && [ "$pytest_status" -eq 0 ] &&
  [ "$fuzz_status" -eq 0 ] && [ "$sanitized_status" -eq 0 ]
