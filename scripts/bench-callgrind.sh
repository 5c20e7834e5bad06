#!/usr/bin/env bash
# Instruction counts of the driver's hot paths under callgrind (see docs/PERFORMANCE.md).
#
#   bash scripts/bench-callgrind.sh [build-dir]
#   bash scripts/bench-callgrind.sh --panel qt5|qt4 [out-dir]
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
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
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
  ${CXX:-g++} -O2 -std=c++14 -I"$here/src" -I"$here/bench" "${qtflags[@]}" "$here/bench/callgrind_cycle.cpp" \
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
