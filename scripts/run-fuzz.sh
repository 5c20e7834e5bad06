#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) when
# needed and runs each for a bounded time, or for a number of inputs. Fails on any finding
# (crash, sanitizer report, leak, time-out, out-of-memory) and prints inputs run, inputs per
# second, total time, coverage and corpus size.
#
# Usage: bash scripts/run-fuzz.sh [--runs N] [--no-asan] [target...]
#        (default: fuzz_reply fuzz_address fuzz_udp_request fuzz_udp_answer)
#   --runs N     run N inputs per target (e.g. 10000000, the long run of docs/PERFORMANCE.md);
#                the time bound then defaults to 4 hours per target
#   --no-asan    fuzz with UndefinedBehaviorSanitizer alone (a build of its own, several times
#                more inputs per second), then run every input of the grown corpus once more
#                under AddressSanitizer: each input that reached new code is checked for memory
#                errors, the inputs in between are not
# Environment: FUZZ_SECONDS (time bound per target: default 60, with --runs 14400),
#              FUZZ_RUNS (as --runs), FUZZ_BUILD_DIR (default build-fuzz),
#              FUZZ_UBSAN_BUILD_DIR (default build-fuzz-ubsan), FUZZ_JOBS (build jobs, default nproc).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$here/build-fuzz}
runs=${FUZZ_RUNS:-}
asan=1
while (($#)); do
  case $1 in
    --runs) runs=${2:?--runs needs a number of inputs}; shift 2 ;;
    --no-asan) asan=0; shift ;;
    *) break ;;
  esac
done
[[ -z $runs || $runs =~ ^[1-9][0-9]*$ ]] || { echo "run-fuzz: --runs needs a positive number, not '$runs'" >&2; exit 2; }
seconds=${FUZZ_SECONDS:-$([[ -n $runs ]] && echo 14400 || echo 60)}
jobs=${FUZZ_JOBS:-$(nproc)}
targets=("$@")
((${#targets[@]})) || targets=(fuzz_reply fuzz_address fuzz_udp_request fuzz_udp_answer)

configure() {  # folder, sanitizers
  if [[ ! -f $1/CMakeCache.txt ]] || ! grep -q '^ADS_FUZZ:BOOL=ON' "$1/CMakeCache.txt"; then
    CC=clang CXX=clang++ cmake -S "$here" -B "$1" -DADS_FUZZ=ON -DADS_BUILD_TOOLS=OFF -DADS_FUZZ_SANITIZERS="$2" >/dev/null
  fi
  cmake --build "$1" --target "${targets[@]}" -j"$jobs" >/dev/null
}
configure "$build" address,undefined
fuzz_build=$build
if ((!asan)); then
  fuzz_build=${FUZZ_UBSAN_BUILD_DIR:-$here/build-fuzz-ubsan}
  configure "$fuzz_build" undefined
fi

status=0
summary=()
for t in "${targets[@]}"; do
  exe=$fuzz_build/fuzz/$t
  seeds=$here/fuzz/corpus/$t
  work=$build/fuzz/corpus-$t          # grows run by run; the committed seeds stay untouched
  artifacts=$build/fuzz/artifacts/$t
  log=$build/fuzz/$t.log
  mkdir -p "$work" "$artifacts"
  rm -f "$artifacts"/*
  extra=()
  [[ $t == fuzz_reply ]] && extra+=(-max_len=2100)
  [[ $t == fuzz_udp_* ]] && extra+=(-max_len=2100)  # a datagram of the UDP service: 2 KiB and a little more
  [[ -n $runs ]] && extra+=(-runs="$runs")
  echo "== $t: ${runs:+$runs inputs, at most }${seconds}s$( ((asan)) || echo ', UndefinedBehaviorSanitizer alone')"
  rc=0
  started=$(date +%s.%N)
  "$exe" "$work" "$seeds" "${extra[@]}" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2560 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" >"$log" 2>&1 || rc=$?
  took=$(awk -v a="$started" -v b="$(date +%s.%N)" 'BEGIN { printf "%.0f", b - a }')
  last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  cov=$(sed -nE 's/.* cov: ([0-9]+).*/\1/p' <<<"$last")
  ft=$(sed -nE 's/.* ft: ([0-9]+).*/\1/p' <<<"$last")
  execs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+).*/\1/p' "$log" | tail -n 1)
  eps=$(sed -nE 's/^stat::average_exec_per_sec: *([0-9]+).*/\1/p' "$log" | tail -n 1)
  corpus=$(find "$work" -type f | wc -l)
  findings=$(find "$artifacts" -type f | wc -l)
  line="$t: runs ${execs:-?}, exec/s ${eps:-?}, time ${took}s, cov ${cov:-?}, ft ${ft:-?}, corpus $corpus files, findings $findings, exit $rc"
  if ((!asan && rc == 0 && findings == 0)); then
    # Every input of the corpus (the seeds and what the run added) once under AddressSanitizer.
    rc=0
    replay=()
    for a in "${extra[@]}"; do [[ $a == -runs=* ]] || replay+=("$a"); done
    "$build/fuzz/$t" "$work" "$seeds" -runs=0 "${replay[@]}" -timeout=25 -rss_limit_mb=2560 \
      -artifact_prefix="$artifacts/" >"$log.asan" 2>&1 || rc=$?
    findings=$(find "$artifacts" -type f | wc -l)
    replayed=$(sed -nE 's/^INFO: seed corpus: files: ([0-9]+).*/\1/p' "$log.asan" | tail -n 1)
    line+="; corpus under AddressSanitizer: ${replayed:-?} inputs, findings $findings, exit $rc"
    if ((rc != 0)); then log=$log.asan; fi
  fi
  echo "$line"
  echo "   last stats line: $last"
  summary+=("$line")
  if [[ -n $runs && ${execs:-0} -lt $runs ]]; then
    status=1
    echo "!! $t ran ${execs:-0} of $runs inputs before the time bound of ${seconds}s"
  fi
  if ((rc != 0 || findings != 0)); then
    status=1
    echo "!! $t found something; log: $log"
    grep -E 'ERROR|SUMMARY|runtime error|contract broken|Test unit written' "$log" | head -n 20 || true
  fi
done
echo "== summary"
printf '%s\n' "${summary[@]}"
exit $status
