#!/usr/bin/env bash
# Installs the dependencies, builds the driver, the tools and the tests against Qt 5, and
# runs every test. Usage: bash scripts/run-tests.sh [build-dir] [extra cmake options...]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
shift || true
bash "$here/scripts/install-deps.sh"
cmake -S "$here" -B "$build" "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 300
