#!/bin/bash
# Builds dravnik and runs a short session with it in a private sandbox.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build
PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 scripts/demo.py "$@"
