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

echo
echo "==== summary ===="
ctest_line=$(grep -E '^[0-9]+% tests passed' "$logs/ctest" | tail -n 1)
pytest_line=$(grep -E ' in [0-9.]+s' "$logs/pytest" | tail -n 1)
echo "${ctest_line:-ctest: no summary (status $ctest_status)}"
echo "${pytest_line:-pytest: no summary (status $pytest_status)}"

[ "$ctest_status" -eq 0 ] && [ "$pytest_status" -eq 0 ]
