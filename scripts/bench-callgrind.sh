#!/usr/bin/env bash
# Instruction counts of the driver's hot paths under callgrind (see docs/PERFORMANCE.md).
#
#   bash scripts/bench-callgrind.sh [build-dir]
#   bash scripts/bench-callgrind.sh --panel qt5|qt4 [out-dir]
#   bash scripts/bench-callgrind.sh --session [build-dir]
#
# Builds bench/callgrind_cycle in build-dir (default build-bench, Release), runs each scenario
# under valgrind --tool=callgrind with instrumentation switched on only around the measured
# part, and prints instructions per operation:
#   - per 128-byte cyclic read (intf_getSendFrame + intf_dealRcvFrame, 174-byte reply) at 100,
#     1,000 and 10,000 cached units, every byte changing / no byte changing;
#   - per intf_addrMerge of 10,000 keys in reverse order;
#   - per coalescing intf_setData of one word.
# Environment: CYCLES (default 200) cyclic reads per run; READ_UNITS (default "100 1000 10000")
# the cache sizes of the read runs; MERGE_KEYS (default "1000 10000"; empty: none) the
# key counts of the intf_addrMerge runs; KEEP=1 keeps the callgrind.out files
# (their paths are printed) for callgrind_annotate; ANNOTATE=1 prints the top functions of
# each read run; ADS_CALLGRIND_CMAKE_ARGS extra cmake options for a fresh build folder.
#
# --panel: the build of distributions and panel SDKs instead of CMake's Release flags:
# callgrind_cycle.cpp and every src/*.cpp compiled by hand with `g++ -O2 -std=c++14`, without
# QT_NO_DEBUG and NDEBUG (so Qt's assertions stay in), against Qt 5 (pkg-config) or against
# the Qt 4.8.7 prefix of scripts/qt4-prefix.sh (include/, lib/, rpath), in out-dir (default
# /tmp/ads-callgrind-panel-qt5 or -qt4). CXX picks the compiler (default g++).
#
# --session: the whole session, host and driver together: adshost (tools/adshost) polls a
# 400-byte screen (--watch M_W:0:200, one read block) against plcsim on 127.0.0.1; plcsim runs
# natively, adshost (--interval-ms 0: polling flat out) under callgrind, twice (SESSION_CYCLES,
# default "6000 12000" --cycles, i.e. whole refreshes of the screen: both runs past the first
# 4096 requests, after which the host's record of exchanges is full and reused). The
# instructions per request after start-up are the difference of the two totals divided by the
# difference of the requests (adshost's figures line); start-up, the handshake and the end are
# the same in both runs.
# SESSION_WATCH changes the screen (one or more addresses, separated by spaces: e.g. the
# end-to-end benchmark's screen of 500 words with gaps is "M_W:0:1 M_W:4:1 ... M_W:1996:1";
# take SESSION_CYCLES="400 800" for it); ANNOTATE=1 prints the top functions inside
# Session::step (a third run that collects only there), per request.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
if [ "${1:-}" = --session ]; then
  build=${2:-$here/build-bench}
  command -v valgrind >/dev/null || { echo "valgrind is not installed (apt-get install valgrind)" >&2; exit 1; }
  if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release -DADS_BUILD_TOOLS=ON >/dev/null
  fi
  cmake --build "$build" --target adshost plcsim ads_ethernet -j"$(nproc)" >"$build/session.build.log" 2>&1 ||
    { cat "$build/session.build.log" >&2; exit 1; }
  adshost=$(find "$build" -name adshost -type f -perm -u+x | head -n1)
  plcsim=$(find "$build" -name plcsim -type f -perm -u+x | head -n1)
  plugin=$(find "$build" -name 'libads_ethernet.so' -type f | head -n1)
  out=$(mktemp -d /tmp/ads-callgrind-session.XXXXXX)
  sim_pid=
  cleanup() {
    if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; fi
    [ "${KEEP:-0}" = 1 ] || rm -rf "$out"
  }
  trap cleanup EXIT
  "$plcsim" --listen 127.0.0.1:0 --port-file "$out/ports" --no-program >"$out/plcsim.log" 2>&1 &
  sim_pid=$!
  for _ in $(seq 100); do [ -s "$out/ports" ] && break; sleep 0.05; done
  port=$(sed -n 's/^ads_port=//p' "$out/ports")
  [ -n "$port" ] || { echo "plcsim did not start" >&2; cat "$out/plcsim.log" >&2; exit 1; }
  watch=${SESSION_WATCH:-M_W:0:200}
  read -r -a cycles <<<"${SESSION_CYCLES:-6000 12000}"
  [ "${#cycles[@]}" = 2 ] && [ "${cycles[1]}" -gt "${cycles[0]}" ] ||
    { echo "SESSION_CYCLES takes two counts, the second larger" >&2; exit 2; }
  watchArgs=()
  for w in $watch; do watchArgs+=(--watch "$w"); done
  session() {  # session CYCLES OUTFILE [callgrind options...]: prints the total instructions and the requests
    local n=$1 file=$2; shift 2
    valgrind --tool=callgrind --callgrind-out-file="$file" "$@" "$adshost" --driver "$plugin" \
      --plc "127.0.0.1:$port" "${watchArgs[@]}" --cycles "$n" --interval-ms 0 --quiet >"$file.log" 2>&1 ||
      { echo "adshost under callgrind failed:" >&2; cat "$file.log" >&2; exit 1; }
    local requests
    requests=$(sed -n 's/^figures: requests=\([0-9]*\).*/\1/p' "$file.log" | tail -n1)
    [ -n "$requests" ] || { echo "no figures line from adshost:" >&2; cat "$file.log" >&2; exit 1; }
    echo "$(awk '/^totals:/ {t = $2} /^summary:/ {s = $2} END {print (t != "" ? t : s)}' "$file") $requests"
  }
  read -r i1 r1 <<<"$(session "${cycles[0]}" "$out/callgrind.out.session1")"
  read -r i2 r2 <<<"$(session "${cycles[1]}" "$out/callgrind.out.session2")"
  per=$(( (i2 - i1) / (r2 - r1) ))
  echo "adshost: $adshost, screen: $(( ${#watchArgs[@]} / 2 )) --watch addresses, plcsim on 127.0.0.1:$port"
  label=$watch
  [ "${#watchArgs[@]}" -gt 2 ] && label="${watch%% *} and $(( ${#watchArgs[@]} / 2 - 1 )) more"
  printf 'session %-26s %12d instructions per request (host and driver; %s requests: %d, %s requests: %d)\n' \
    "$label" "$per" "$r1" "$i1" "$r2" "$i2"
  if [ "${ANNOTATE:-0}" = 1 ]; then
    file=$out/callgrind.out.step
    read -r _ n <<<"$(session "${cycles[1]}" "$file" --toggle-collect='adshost::Session::step*')"
    echo "inside Session::step, per request (inclusive; $n requests):"
    callgrind_annotate --inclusive=yes "$file" 2>/dev/null | sed -n '/^Ir/,$p' | sed -n '3,40p' |
      awk -v n="$n" '{ v = $1; gsub(/,/, "", v); if (v + 0 > 0) printf "%10.0f  %s\n", v / n, substr($0, index($0, $2)) }'
  fi
  [ "${KEEP:-0}" = 1 ] && echo "callgrind output kept in $out"
  exit 0
fi
panel=
if [ "${1:-}" = --panel ]; then
  panel=${2:-}
  case "$panel" in qt5|qt4) ;; *) echo "bench-callgrind.sh: --panel takes qt5 or qt4" >&2; exit 2;; esac
  build=${3:-/tmp/ads-callgrind-panel-$panel}
else
  build=${1:-$here/build-bench}
fi
cycles=${CYCLES:-200}

command -v valgrind >/dev/null || { echo "valgrind is not installed (apt-get install valgrind)" >&2; exit 1; }

if [ -n "$panel" ]; then
  mkdir -p "$build"
  if [ "$panel" = qt4 ]; then
    qt4=$(bash "$here/scripts/qt4-prefix.sh" native)
    qtflags=(-I"$qt4/include" -I"$qt4/include/QtCore" -I"$qt4/include/QtNetwork")
    qtlibs=(-L"$qt4/lib" -lQtCore -lQtNetwork -Wl,-rpath,"$qt4/lib")
  else
    read -r -a qtflags <<<"$(pkg-config --cflags Qt5Core Qt5Network) -fPIC"
    read -r -a qtlibs <<<"$(pkg-config --libs Qt5Core Qt5Network)"
  fi
  exe=$build/callgrind_cycle
  # shellcheck disable=SC2046
  # The benchmark's command line (adstool/cli.h) needs the tools' headers, CLI11 and the two
  # helpers it calls.
  ${CXX:-g++} -O2 -std=c++14 -I"$here/src" -I"$here/bench" -I"$here/tools/common/include" "${qtflags[@]}" \
    "$here/bench/callgrind_cycle.cpp" "$here/tools/common/src/hostport.cpp" "$here/tools/common/src/netid.cpp" \
    $(ls "$here"/src/*.cpp) -o "$exe" "${qtlibs[@]}" >"$build/callgrind_cycle.build.log" 2>&1 ||
    { cat "$build/callgrind_cycle.build.log" >&2; exit 1; }
else
  if [ ! -f "$build/CMakeCache.txt" ]; then
    # shellcheck disable=SC2086
    cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release -DADS_BUILD_TOOLS=OFF ${ADS_CALLGRIND_CMAKE_ARGS:-} >/dev/null
  fi
  cmake --build "$build" --target callgrind_cycle -j"$(nproc)" >"$build/callgrind_cycle.build.log" 2>&1 ||
    { cat "$build/callgrind_cycle.build.log" >&2; exit 1; }
  exe=$(find "$build" -name callgrind_cycle -type f -perm -u+x | head -n1)
fi
[ -n "$exe" ] || { echo "callgrind_cycle was not built (valgrind/callgrind.h missing?)" >&2; exit 1; }

out=$(mktemp -d /tmp/ads-callgrind.XXXXXX)
[ "${KEEP:-0}" = 1 ] || trap 'rm -rf "$out"' EXIT

# run NAME ARGS...: prints instructions per operation
run() {
  local name=$1; shift
  local file="$out/callgrind.out.$name"
  local log
  log=$(valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$file" "$exe" "$@" 2>/dev/null)
  local n total
  n=$(sed -n 's/.*cycles=\([0-9]*\).*/\1/p' <<<"$log")
  # "totals:" holds the instrumented part; "summary:" may be 0 when collection was toggled.
  total=$(awk '/^totals:/ {t = $2} /^summary:/ {s = $2} END {print (t != "" ? t : s)}' "$file")
  if [ -z "$n" ] || [ -z "$total" ]; then
    echo "$name: no result" >&2
    return 1
  fi
  printf '%-34s %12d instructions per operation   (%s)\n' "$name" "$((total / n))" "$log"
  if [ "${ANNOTATE:-0}" = 1 ]; then
    callgrind_annotate --inclusive=no "$file" 2>/dev/null | sed -n '/^Ir/,$p' | head -n 25
  fi
}

echo "callgrind_cycle: $exe"
for units in ${READ_UNITS:-100 1000 10000}; do
  run "read_units${units}_changing" read "$units" 1 "$cycles"
  run "read_units${units}_unchanged" read "$units" 0 "$cycles"
done
for keys in ${MERGE_KEYS-1000 10000}; do
  run "addrMerge_${keys}_reversed" merge "$keys" 1
  run "addrMerge_${keys}_ascending" merge "$keys" 0
done
run "setData_coalesce" setdata "$cycles"
if [ "${KEEP:-0}" = 1 ]; then
  echo "callgrind output kept in $out"
fi
