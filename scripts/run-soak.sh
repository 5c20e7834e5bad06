#!/usr/bin/env bash
# Runs the long fault soak: the reference host with the driver plugin against plcsim over
# loopback, seeded random faults of every kind while a second thread writes, then the
# consistency checks. Builds the soak program when needed and prints its figures line.
# Exit status: the soak's (0 = every check held).
#
# Usage: bash scripts/run-soak.sh [soak options...]
#   default options: --requests 30000 --fault-prob 0.02 --seed 1 --max-seconds 540
#   later options win, e.g.: bash scripts/run-soak.sh --requests 100000 --seed 5 --max-seconds 1800
#   A late reply that the driver accepted as the reply to another request is a mismatch
#   (the host must never let that happen); --tolerate-late-replies makes it a note.
# Environment: SOAK_BUILD_DIR (default build-soak), SOAK_JOBS (build jobs, default nproc),
#              SOAK_LOG (keep the simulator's request log in this file).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${SOAK_BUILD_DIR:-$here/build-soak}
jobs=${SOAK_JOBS:-$(nproc)}

if [[ ! -f $build/CMakeCache.txt ]]; then
  cmake -S "$here" -B "$build" -DADS_BUILD_TOOLS=ON >/dev/null
fi
cmake --build "$build" --target soak -j"$jobs" >/dev/null

exe=
for candidate in "$build/tests/soak/soak" "$build/soak"; do
  if [[ -x $candidate ]]; then exe=$candidate; break; fi
done
if [[ -z $exe ]]; then
  echo "run-soak: no soak program in $build (is tests/soak among the test folders?)" >&2
  exit 2
fi

args=(--requests 30000 --fault-prob 0.02 --seed 1 --max-seconds 540)
[[ -n ${SOAK_LOG:-} ]] && args+=(--log "$SOAK_LOG")
echo "== $exe ${args[*]} $*"
rc=0
"$exe" "${args[@]}" "$@" || rc=$?
if ((rc == 0)); then echo "== soak passed"; else echo "== soak FAILED (exit $rc)"; fi
exit $rc
