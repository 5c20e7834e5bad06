#!/usr/bin/env bash
# The differential check: the driver as it was before the rewrite of its inside (the
# baseline commit) and as it is in this working tree, driven side by side by
# tests/differential with the same seeded host actions and PLC replies, faults included;
# every result the host or the PLC can observe must be identical.
#
# Usage: scripts/run-differential.sh [--seeds N] [--steps M] [--first-seed S]
#                                    [--baseline COMMIT] [--after-plugin PATH] [--work DIR]
#   --seeds N          seeds to run (default 20: the short setting for CI; 200 is the long one)
#   --steps M          host actions per seed (default 2000)
#   --first-seed S     first seed (default 1); with --seeds 1 it replays one seed
#   --baseline COMMIT  the BEFORE build (default: tests/differential/BASELINE)
#   --after-plugin P   take this plugin (or the plugin of this build folder) as the AFTER
#                      build instead of building the working tree
#   --work DIR         build folders (default ${TMPDIR:-/tmp}/ads-differential); the baseline
#                      build there is kept and reused for the same commit
#   --qt6              build the two plugins and the harness against Qt 6 (default Qt 5)
#
# The BEFORE plugin is built from `git archive` of the baseline commit with a plugin-only
# CMake build (-DADS_BUILD_TESTS=OFF -DADS_BUILD_TOOLS=OFF); the AFTER plugin the same way
# from the working tree; the harness from tests/differential of the working tree.
# Exit status: the harness's (0 identical, 1 a difference), 2 when something cannot be built.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
seeds=20
steps=2000
first=1
baseline=""
after_plugin=""
work=${TMPDIR:-/tmp}/ads-differential
jobs=${ADS_DIFF_JOBS:-2}
qt=()
flavour=""

die() {
  echo "run-differential: $*" >&2
  exit 2
}
source "$root/scripts/lib/plugin-build.sh"

while (($#)); do
  case "$1" in
    --seeds) seeds=${2:?--seeds needs a number}; shift 2 ;;
    --steps) steps=${2:?--steps needs a number}; shift 2 ;;
    --first-seed) first=${2:?--first-seed needs a number}; shift 2 ;;
    --baseline) baseline=${2:?--baseline needs a commit}; shift 2 ;;
    --after-plugin) after_plugin=${2:?--after-plugin needs a path}; shift 2 ;;
    --work) work=${2:?--work needs a folder}; shift 2 ;;
    --qt6) qt=(-DADS_QT6=ON); flavour=-qt6; shift ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) die "unknown argument: $1 (see --help)" ;;
  esac
done

if [[ -z "$baseline" ]]; then
  baseline=$(tr -d ' \n\r' < "$root/tests/differential/BASELINE")
fi
git -C "$root" rev-parse --git-dir > /dev/null 2>&1 \
  || die "$root is not a git clone: the baseline commit $baseline cannot be taken from it"
if ! full=$(git -C "$root" rev-parse --verify --quiet "$baseline^{commit}"); then
  die "baseline commit $baseline is not in this clone's history (a shallow clone? run: git fetch --unshallow)"
fi

mkdir -p "$work"
started=$SECONDS

# ---------------------------------------------------------------- BEFORE: the baseline
base=$work/base-$full
if [[ ! -f "$base/src/CMakeLists.txt" ]]; then
  rm -rf "$base/src"
  mkdir -p "$base/src"
  git -C "$root" archive "$full" | tar -x -C "$base/src"
fi
grep -q 'ADS_BUILD_TESTS' "$base/src/CMakeLists.txt" && grep -q 'ADS_BUILD_TOOLS' "$base/src/CMakeLists.txt" \
  || die "baseline $baseline has no ADS_BUILD_TESTS/ADS_BUILD_TOOLS options: no plugin-only build"
echo "run-differential: building the BEFORE plugin from ${full:0:12}"
build_plugin_only "$base/src" "$base/build$flavour" "the baseline" "${qt[@]}"
before_plugin=$base/build$flavour/src/libads_ethernet.so
[[ -f "$before_plugin" ]] || die "no baseline plugin at $before_plugin"

# ---------------------------------------------------------------- AFTER: the working tree
if [[ -z "$after_plugin" ]]; then
  echo "run-differential: building the AFTER plugin from the working tree $root"
  build_plugin_only "$root" "$work/after$flavour" "the working tree" "${qt[@]}"
  after_plugin=$work/after$flavour/src/libads_ethernet.so
fi
if [[ -d "$after_plugin" ]]; then
  after_plugin=$after_plugin/src/libads_ethernet.so
fi
[[ -f "$after_plugin" ]] || die "no AFTER plugin at $after_plugin"

# ---------------------------------------------------------------- the harness
cmake -S "$root/tests/differential" -B "$work/harness$flavour" "${qt[@]}" > "$work/harness-configure.log" 2>&1 \
  || { cat "$work/harness-configure.log" >&2; die "the harness does not configure"; }
cmake --build "$work/harness$flavour" -j"$jobs" > "$work/harness-build.log" 2>&1 \
  || { tail -40 "$work/harness-build.log" >&2; die "the harness does not build"; }
built=$SECONDS
echo "run-differential: builds ready in $((built - started)) s; BEFORE $before_plugin, AFTER $after_plugin"

set +e
"$work/harness$flavour/differential" --before "$before_plugin" --after "$after_plugin" \
  --seeds "$seeds" --steps "$steps" --first-seed "$first"
rc=$?
set -e
echo "run-differential: harness ran $((SECONDS - built)) s (exit $rc)"
exit $rc
