#!/usr/bin/env bash
# Proof that the differential check can fail: each mutant of tests/differential/mutants.tsv
# is the baseline driver with one small change of the kind a rewrite could get wrong (a bit
# mask, a comparison, a limit). It is built as a plugin and run as the AFTER build against
# the unchanged baseline with the short setting; the check must report a difference (exit 1
# with a DIFFERENCE line, or a crash of the mutant) for every mutant.
#
# Usage: scripts/check-differential-mutants.sh [--seeds N] [--steps M] [--baseline COMMIT]
#                                              [--work DIR] [--only NAME]
# Defaults as scripts/run-differential.sh (20 seeds x 2000 steps, baseline from
# tests/differential/BASELINE). Exit 0: every mutant caught; 1: one was not; 2: a build failed.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
seeds=20
steps=2000
baseline=""
work=${TMPDIR:-/tmp}/ads-differential
only=""
jobs=${ADS_DIFF_JOBS:-2}

die() {
  echo "check-differential-mutants: $*" >&2
  exit 2
}
source "$root/scripts/lib/plugin-build.sh"

while (($#)); do
  case "$1" in
    --seeds) seeds=${2:?--seeds needs a number}; shift 2 ;;
    --steps) steps=${2:?--steps needs a number}; shift 2 ;;
    --baseline) baseline=${2:?--baseline needs a commit}; shift 2 ;;
    --work) work=${2:?--work needs a folder}; shift 2 ;;
    --only) only=${2:?--only needs a mutant name}; shift 2 ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) die "unknown argument: $1 (see --help)" ;;
  esac
done

if [[ -z "$baseline" ]]; then
  baseline=$(tr -d ' \n\r' < "$root/tests/differential/BASELINE")
fi
git -C "$root" rev-parse --git-dir > /dev/null 2>&1 || die "$root is not a git clone"
if ! full=$(git -C "$root" rev-parse --verify --quiet "$baseline^{commit}"); then
  die "baseline commit $baseline is not in this clone's history (a shallow clone? run: git fetch --unshallow)"
fi
mkdir -p "$work"

caught=0
missed=0
started=$SECONDS
while IFS=$'\t' read -r name file from to what; do
  [[ -z "$name" || "$name" == \#* ]] && continue
  [[ -n "$only" && "$name" != "$only" ]] && continue
  [[ -n "$file" && -n "$from" && -n "$to" ]] || die "mutant $name: incomplete line in mutants.tsv"
  t0=$SECONDS
  dir=$work/mutant-$name
  rm -rf "$dir/src"
  mkdir -p "$dir/src"
  git -C "$root" archive "$full" | tar -x -C "$dir/src"
  target=$dir/src/$file
  [[ -f "$target" ]] || die "mutant $name: no file $file in the baseline"
  # "\n" in the two texts stands for a line break.
  from=${from//'\n'/$'\n'}
  to=${to//'\n'/$'\n'}
  content=$(cat "$target"; printf x)
  content=${content%x}
  rest=${content//"$from"/}
  n=$(((${#content} - ${#rest}) / ${#from}))
  [[ "$n" == 1 ]] || die "mutant $name: the text to replace occurs $n times in $file, not once"
  printf '%s' "${content/"$from"/"$to"}" > "$target"
  cmp -s "$target" <(git -C "$root" show "$full:$file") && die "mutant $name: nothing was changed"
  build_plugin_only "$dir/src" "$dir/build" "mutant $name"

  set +e
  out=$(bash "$root/scripts/run-differential.sh" --baseline "$full" --work "$work" \
    --after-plugin "$dir/build/src/libads_ethernet.so" --seeds "$seeds" --steps "$steps" 2>&1)
  rc=$?
  set -e
  where=$(grep -m1 -E 'DIFFERENCE at seed|: the child crashed' <<< "$out" || true)
  if [[ $rc == 1 && -n "$where" ]]; then
    caught=$((caught + 1))
    where=${where#differential: }
    echo "mutant $name: caught (${where#DIFFERENCE at }; $((SECONDS - t0)) s): $what"
    grep -m2 -E '^    (before|after)  ?\(' <<< "$out" | cut -c1-200 | sed 's/^/    /'
  else
    missed=$((missed + 1))
    echo "mutant $name: NOT CAUGHT (exit $rc) in $seeds seeds x $steps steps: $what"
    tail -5 <<< "$out" | sed 's/^/    /'
    [[ $rc == 2 ]] && die "the differential run for mutant $name could not start"
  fi
done < "$root/tests/differential/mutants.tsv"

total=$((caught + missed))
((total > 0)) || die "no mutant was run"
echo "differential mutants: $total mutants, $caught caught, $missed missed ($((SECONDS - started)) s)"
((missed == 0))
