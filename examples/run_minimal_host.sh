#!/usr/bin/env bash
# Runs the example host against the simulator and checks that its write landed.
set -euo pipefail
host=$1 plugin=$2 plcsim=$3
out=$(mktemp); pid=""
trap '[[ -n "$pid" ]] && kill "$pid" 2>/dev/null; rm -f "$out"; true' EXIT
"$plcsim" --listen 127.0.0.1:0 --control 127.0.0.1:0 --no-program > "$out" &
pid=$!
for _ in $(seq 50); do [[ $(wc -l < "$out") -ge 2 ]] && break; sleep 0.1; done
port=$(sed -n '1s/.*:\([0-9]*\)$/\1/p' "$out"); cport=$(sed -n '2s/.*:\([0-9]*\)$/\1/p' "$out")
"$host" "$plugin" 127.0.0.1 "$port" 192.168.1.100.1.1 851 20
answer=$(exec 3<>/dev/tcp/127.0.0.1/$cport; printf 'get 0x4020 10 2\nquit\n' >&3; head -1 <&3)
echo "simulator: $answer"
[[ "$answer" == "ok 3412" ]] || { echo "FAIL: the write did not land"; exit 1; }
kill "$pid"; wait "$pid" || true; pid=""
