#!/usr/bin/env bash
# The truth test by hand: every claim adshost makes, held against what plcsim shows
# (tests/truth/truth.py), over many seeds. CTest runs the short setting (label "truth").
#
# Usage: scripts/run-truth.sh [--build DIR] [--seeds N] [--first-seed N] [--wrapper CMD] [--verbose]
# Defaults: --build build (configured and built here when its tools are missing), --seeds 1000.
# Exit 0: no false claim; 1: at least one (each named with its seed and command line).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
args=()
seeds=1000
while (($#)); do
  case "$1" in
    --build) build=${2:?--build needs a folder}; shift 2 ;;
    --seeds) seeds=${2:?--seeds needs a number}; shift 2 ;;
    --first-seed|--wrapper|--max-seconds) args+=("$1" "${2:?$1 needs a value}"); shift 2 ;;
    --verbose) args+=("$1"); shift ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) echo "run-truth: unknown argument: $1 (see --help)" >&2; exit 2 ;;
  esac
done

if [[ ! -x $build/tools/adshost/adshost || ! -x $build/tools/plcsim/plcsim ]]; then
  cmake -S "$root" -B "$build" > /dev/null
  cmake --build "$build" -j2 --target adshost plcsim ads_ethernet
fi
exec python3 "$root/tests/truth/truth.py" --adshost "$build/tools/adshost/adshost" \
  --driver "$build/src/libads_ethernet.so" --plcsim "$build/tools/plcsim/plcsim" --seeds "$seeds" "${args[@]}"
