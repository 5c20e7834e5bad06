#!/usr/bin/env bash
# Proof that the truth test can fail: each mutant of tests/truth/mutants.tsv is this tree's
# adshost with one change of the kind the truth test exists for (a write reported done before
# the PLC's reply, octal numbers, a stale value shown as fresh, exit 0 after failures). Each is
# built (adshost only, in one reused build folder) and run through the truth test; the test
# must report a false claim for every mutant.
#
# Usage: scripts/check-truth-mutants.sh [--seeds N] [--work DIR] [--only NAME]
# Default: 40 seeds per mutant. Exit 0: every mutant caught; 1: one was not; 2: a build failed.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
seeds=40
work=${TMPDIR:-/tmp}/ads-truth-mutants
only=""
die() {
  echo "check-truth-mutants: $*" >&2
  exit 2
}
while (($#)); do
  case "$1" in
    --seeds) seeds=${2:?--seeds needs a number}; shift 2 ;;
    --work) work=${2:?--work needs a folder}; shift 2 ;;
    --only) only=${2:?--only needs a mutant name}; shift 2 ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) die "unknown argument: $1 (see --help)" ;;
  esac
done

mkdir -p "$work/src"
# This tree as it stands (committed or not), copied once; each mutant changes one file.
(cd "$root" && git ls-files -z --cached --others --exclude-standard | xargs -0 tar -c) | tar -x -C "$work/src"
build=$work/build
launcher=()
command -v ccache > /dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$work/src" -B "$build" -DADS_BUILD_TESTS=OFF -DADS_BUILD_BENCH=OFF "${launcher[@]}" > "$work/configure.log" 2>&1 \
  || { tail -30 "$work/configure.log" >&2; die "does not configure"; }
cmake --build "$build" -j2 --target ads_ethernet plcsim > "$work/build.log" 2>&1 \
  || { tail -30 "$work/build.log" >&2; die "plugin or plcsim does not build"; }

caught=0
missed=0
started=$SECONDS
while IFS=$'\t' read -r name file from to what; do
  [[ -z "$name" || "$name" == \#* ]] && continue
  [[ -n "$only" && "$name" != "$only" ]] && continue
  t0=$SECONDS
  # Every file of adshost back to this tree's, then the one change.
  cp "$root"/tools/adshost/*.cpp "$root"/tools/adshost/*.h "$work/src/tools/adshost/"
  target=$work/src/$file
  from=${from//'\n'/$'\n'}
  to=${to//'\n'/$'\n'}
  content=$(cat "$target"; printf x)
  content=${content%x}
  rest=${content//"$from"/}
  n=$(((${#content} - ${#rest}) / ${#from}))
  [[ "$n" == 1 ]] || die "mutant $name: the text to replace occurs $n times in $file, not once"
  printf '%s' "${content/"$from"/"$to"}" > "$target"
  cmake --build "$build" -j2 --target adshost > "$work/build-$name.log" 2>&1 \
    || { tail -30 "$work/build-$name.log" >&2; die "mutant $name does not build"; }
  set +e
  out=$(python3 "$root/tests/truth/truth.py" --adshost "$build/tools/adshost/adshost" \
    --driver "$build/src/libads_ethernet.so" --plcsim "$build/tools/plcsim/plcsim" --seeds "$seeds" --stop-at-first 2>&1)
  rc=$?
  set -e
  where=$(grep -m1 -A1 -E '^seed [0-9]+ .*false claim' <<< "$out" | tr '\n' ' ' || true)
  if [[ $rc == 1 && -n "$where" ]]; then
    caught=$((caught + 1))
    echo "mutant $name ($what): caught in $((SECONDS - t0)) s: $where"
  else
    missed=$((missed + 1))
    echo "mutant $name ($what): NOT CAUGHT (exit $rc) in $((SECONDS - t0)) s"
    tail -3 <<< "$out"
  fi
done < "$root/tests/truth/mutants.tsv"
cp "$root"/tools/adshost/*.cpp "$root"/tools/adshost/*.h "$work/src/tools/adshost/"

echo "check-truth-mutants: $caught caught, $missed not caught, in $((SECONDS - started)) s"
[[ $missed == 0 && $caught -gt 0 ]]
