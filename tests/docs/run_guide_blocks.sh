#!/usr/bin/env bash
# Runs the programs and commands of a guide (see extract_blocks.py) against the simulator on
# 127.0.0.1. The programs were built from the guide as it was when CMake configured; a guide
# changed since then fails here until the build is run again.
#
#   run_guide_blocks.sh GUIDE BLOCKS_DIR PROGRAMS_DIR PLUGIN PLCSIM ADSHOST_DIR EXAMPLE_DIR
set -uo pipefail
guide=$1 blocks=$2 programs=$3 plugin=$4 plcsim=$5 adshost_dir=$6 example_dir=$7
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../../scripts/lib/plcsim.sh"
work=$(mktemp -d)
trap 'stop_plcsim >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
failures=0
fail() { echo "FAILED: $*"; failures=$((failures + 1)); }

python3 "$here/extract_blocks.py" "$guide" "$work/blocks" >"$work/list" || { echo "FAILED: unmarked blocks (above)"; exit 1; }
cat "$work/list"
[[ -s $work/list ]] || fail "no runnable block in $guide"
diff -r "$work/blocks" "$blocks" >/dev/null || fail "the guide changed since the build: build again (cmake --build)"

start_plcsim "$plcsim" --listen 127.0.0.1:0 --control 127.0.0.1:0 --no-program || exit 1
export DRIVER=$plugin PLC_HOST=127.0.0.1 PLC_PORT=$PLCSIM_PORT PLC=127.0.0.1:$PLCSIM_PORT
export PATH=$adshost_dir:$example_dir:$PATH

for src in "$work"/blocks/program_*.cpp; do
    [[ -e $src ]] || continue
    name=$(basename "$src" .cpp)
    exe=$programs/guide_$name
    args=$(cat "$work/blocks/$name.args")
    echo "--- $name ($exe $args)"
    [[ -x $exe ]] || { fail "$name was not built"; continue; }
    eval "set -- $args"
    if out=$(timeout 60 "$exe" "$@" 2>&1); then echo "$out" | sed 's/^/    | /'; else
        echo "$out" | sed 's/^/    | /'; fail "$name ended with status $?"; fi
done
for cmd in "$work"/blocks/command_*.sh; do
    [[ -e $cmd ]] || continue
    echo "--- $(basename "$cmd" .sh):"
    sed 's/^/    $ /' "$cmd"
    if out=$(timeout 120 bash -eo pipefail "$cmd" 2>&1); then echo "$out" | sed 's/^/    | /'; else
        echo "$out" | sed 's/^/    | /'; fail "$(basename "$cmd" .sh) ended with status $?"; fi
done
if [[ $failures -ne 0 ]]; then echo "$failures FAILED"; exit 1; fi
echo "every block of $(basename "$guide") ran"
