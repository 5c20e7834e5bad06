#!/usr/bin/env bash
# Endurance run: the fault soak (tests/soak) for a fixed number of requests with every fault
# kind of the simulator at 5 % while a second thread writes, in rounds that each end with
# the write queue drained, a full refresh and the soak's checks (no write lost, the cache
# equal to the PLC's memory, untouched bits untouched). Meanwhile the resident memory and
# the open descriptors of the host (the soak program: session, driver, wire tap) and of
# plcsim are sampled every few seconds (not while the soak checks a round) and at each round's
# end; the run fails when either grows after the warm-up (by more than 1 MiB, or by any
# descriptor).
#
# Usage: bash scripts/run-endurance.sh [--requests N] [--out DIR] [soak options...]
#   --requests N   requests in all (default 1000000, at least 10000); rounds of N/50 (at least
#                  2,000, at most 20,000 requests); warm-up N/10 (at least 8,000)
#   --out DIR      where the samples and the figures line go (default build-endurance/out):
#                  DIR/samples.txt (seconds requests round round_end host_rss_kib host_fds
#                  plcsim_rss_kib plcsim_fds), DIR/soak.txt (the soak's figures line)
#   Further options go to the soak (later ones win), e.g. --seed 3 --fault-prob 0.02.
# Environment: ENDURANCE_BUILD_DIR (default build-endurance; a Release build is configured
#              when the folder is new), ENDURANCE_JOBS (build jobs, default nproc).
# Exit status: the soak's (0 = every check held and nothing grew).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${ENDURANCE_BUILD_DIR:-$here/build-endurance}
jobs=${ENDURANCE_JOBS:-$(nproc)}
requests=1000000
out=
rest=()
while (($#)); do
  case $1 in
    --requests) requests=${2:?--requests needs a number}; shift 2 ;;
    --out) out=${2:?--out needs a folder}; shift 2 ;;
    *) rest+=("$1"); shift ;;
  esac
done
[[ $requests =~ ^[0-9]+$ ]] && ((requests >= 10000)) || { echo "run-endurance: --requests takes a number >= 10000" >&2; exit 2; }
out=${out:-$build/out}
mkdir -p "$out"

if [[ ! -f $build/CMakeCache.txt ]]; then
  cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release -DADS_BUILD_TOOLS=ON -DADS_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" --target soak -j"$jobs" >/dev/null
exe=$build/tests/soak/soak
[[ -x $exe ]] || { echo "run-endurance: no soak program in $build" >&2; exit 2; }

round=$((requests / 50))
((round < 2000)) && round=2000
((round > 20000)) && round=20000
((round > requests)) && round=$requests
# Every request may wait for a fault: a generous wall-clock limit (the soak ends with its
# figures printed when it is reached, and that is a failure here).
max_seconds=$((600 + requests / 100))
# The warm-up: a tenth of the run, at least 8,000 requests (the host's bounded records, such as
# its newest 4,096 exchanges, are full by then).
warmup=$((requests / 10))
((warmup < 8000)) && warmup=8000
sample_seconds=5
((requests <= 50000)) && sample_seconds=1

# Short reply time-out and delays: the same fault paths as the soak's defaults (a delayed reply
# within and beyond the time-out, split replies), about twice as many requests per second.
args=(--requests "$requests" --round-requests "$round" --fault-prob 0.05 --seed 1 --max-seconds "$max_seconds"
  --reply-timeout-ms 10 --delay-short-ms 3 --delay-long-ms 20 --split-pause-ms 2
  --warmup-requests "$warmup" --samples "$out/samples.txt" --sample-seconds "$sample_seconds")
echo "== $exe ${args[*]} ${rest[*]}"
set +e
"$exe" "${args[@]}" "${rest[@]}" | tee "$out/soak.txt"
rc=${PIPESTATUS[0]}
set -e
if grep -q "wall-clock limit reached" "$out/soak.txt"; then
  echo "run-endurance: the wall-clock limit came before the last request" >&2
  rc=1
fi
if ((rc == 0)); then echo "== endurance passed (samples: $out/samples.txt)"; else echo "== endurance FAILED (exit $rc)"; fi
exit $rc
