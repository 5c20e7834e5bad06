#!/usr/bin/env bash
# Runs the example host against the simulator and checks that its write landed.
set -euo pipefail
host=$1 plugin=$2 plcsim=$3
source "$(dirname "$0")/../scripts/lib/plcsim.sh"
trap 'stop_plcsim || true' EXIT
start_plcsim "$plcsim" --listen 127.0.0.1:0 --control 127.0.0.1:0 --no-program
"$host" "$plugin" 127.0.0.1 "$PLCSIM_PORT" 192.168.1.100.1.1 851 20
answer=$(plcsim_ctl "get 0x4020 10 2")
echo "simulator: $answer"
[[ "$answer" == "ok 3412" ]] || { echo "FAIL: the write did not land"; exit 1; }
stop_plcsim
