#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) when
# needed and runs each for a bounded time. Fails on any finding (crash, sanitizer report,
# leak, time-out, out-of-memory) and prints executions per second, coverage and corpus size.
#
# Usage: bash scripts/run-fuzz.sh [target...]
#        (default: fuzz_reply fuzz_address fuzz_udp_request fuzz_udp_answer)
# Environment: FUZZ_SECONDS (default 60 per target), FUZZ_BUILD_DIR (default build-fuzz),
#              FUZZ_JOBS (build jobs, default nproc).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$here/build-fuzz}
seconds=${FUZZ_SECONDS:-60}
jobs=${FUZZ_JOBS:-$(nproc)}
targets=("$@")
((${#targets[@]})) || targets=(fuzz_reply fuzz_address fuzz_udp_request fuzz_udp_answer)

if [[ ! -f $build/CMakeCache.txt ]] || ! grep -q '^ADS_FUZZ:BOOL=ON' "$build/CMakeCache.txt"; then
  CC=clang CXX=clang++ cmake -S "$here" -B "$build" -DADS_FUZZ=ON -DADS_BUILD_TOOLS=OFF >/dev/null
fi
cmake --build "$build" --target "${targets[@]}" -j"$jobs" >/dev/null

status=0
summary=()
for t in "${targets[@]}"; do
  exe=$build/fuzz/$t
  seeds=$here/fuzz/corpus/$t
  work=$build/fuzz/corpus-$t          # grows run by run; the committed seeds stay untouched
  artifacts=$build/fuzz/artifacts/$t
  log=$build/fuzz/$t.log
  mkdir -p "$work" "$artifacts"
  rm -f "$artifacts"/*
  extra=()
  [[ $t == fuzz_reply ]] && extra+=(-max_len=2100)
  [[ $t == fuzz_udp_* ]] && extra+=(-max_len=2100)  # a datagram of the UDP service: 2 KiB and a little more
  echo "== $t: ${seconds}s"
  rc=0
  "$exe" "$work" "$seeds" "${extra[@]}" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2560 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" >"$log" 2>&1 || rc=$?
  last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  cov=$(sed -nE 's/.* cov: ([0-9]+).*/\1/p' <<<"$last")
  ft=$(sed -nE 's/.* ft: ([0-9]+).*/\1/p' <<<"$last")
  execs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+).*/\1/p' "$log" | tail -n 1)
  eps=$(sed -nE 's/^stat::average_exec_per_sec: *([0-9]+).*/\1/p' "$log" | tail -n 1)
  corpus=$(find "$work" -type f | wc -l)
  findings=$(find "$artifacts" -type f | wc -l)
  line="$t: runs ${execs:-?}, exec/s ${eps:-?}, cov ${cov:-?}, ft ${ft:-?}, corpus $corpus files, findings $findings, exit $rc"
  echo "$line"
  echo "   last stats line: $last"
  summary+=("$line")
  if ((rc != 0 || findings != 0)); then
    status=1
    echo "!! $t found something; log: $log"
    grep -E 'ERROR|SUMMARY|runtime error|contract broken|Test unit written' "$log" | head -n 20 || true
  fi
done
echo "== summary"
printf '%s\n' "${summary[@]}"
exit $status
