#!/usr/bin/env bash
# Runs the example host against the simulator: its word write, bit write and recipe land in
# the simulator's memory and are told as done; then a word write the PLC refuses (beyond its
# memory: ADS result 0x705, a reply of the good length that the driver accepts) is told as
# FAILED with that result, and the example ends with status 1.
#   run_minimal_host.sh MINIMAL_HOST PLUGIN PLCSIM [EMULATOR]
# EMULATOR ("qemu-arm -L SYSROOT") runs a host built for another machine.
set -euo pipefail
plugin=$2 plcsim=$3
read -r -a host <<<"${4:-} $1"
source "$(dirname "$0")/../scripts/lib/plcsim.sh"
trap 'stop_plcsim || true' EXIT
start_plcsim "$plcsim" --listen 127.0.0.1:0 --control 127.0.0.1:0 --no-program
fail() { echo "FAIL: $*"; exit 1; }
expect_line() { grep -qxF "$2" <<<"$1" || fail "no line '$2'"; }

plcsim_ctl "set 0x4020 0 7856" >/dev/null
echo "--- the actions land"
out=$(timeout 60 "${host[@]}" "$plugin" 127.0.0.1 "$PLCSIM_PORT" 192.168.1.100.1.1 851) || fail "exit status $? (expected 0)"
echo "$out"
expect_line "$out" "settings: 2_0,192.168.1.100.1.1,851"
expect_line "$out" "write M_W: done (ADS result 0)"
expect_line "$out" "write M_bit 3.1: done (ADS result 0)"
expect_line "$out" "recipe write: done (the driver lowered its flag after the PLC took every block)"
expect_line "$out" "recipe read: done (the driver lowered its flag after the PLC answered every block)"
expect_line "$out" "recipe read back: 0x0A0B 0x0C0D (matches)"
expect_line "$out" "M_W 0 = 0x5678"
# Paced: ten refreshes at one per 50 ms take at least 450 ms (a slow machine only adds).
ms=$(sed -n 's/^10 refreshes in \([0-9]*\) ms (scan interval 50 ms).*/\1/p' <<<"$out")
[[ -n $ms && $ms -ge 450 ]] || fail "ten refreshes not paced at 50 ms: '${ms}' ms"
requests=$(sed -n 's/.* ms (scan interval 50 ms), \([0-9]*\) requests.*/\1/p' <<<"$out")
[[ -n $requests && $requests -le 30 ]] || fail "$requests requests for ten refreshes and four actions"
[[ $(plcsim_ctl "get 0x4020 10 2") == "ok 3412" ]] || fail "the word write did not land"
[[ $(plcsim_ctl "get 0x4020 3 1") == "ok 02" ]] || fail "the bit write did not land"
[[ $(plcsim_ctl "get 0x4020 200 4") == "ok 0b0a0d0c" ]] || fail "the recipe did not land"

expect_line "$out" "reconnects: 0"

echo "--- the PLC does not answer the first request, then closes the connection instead of answering"
plcsim_ctl "fault noreply 1" >/dev/null
out=$(timeout 60 "${host[@]}" "$plugin" 127.0.0.1 "$PLCSIM_PORT" 192.168.1.100.1.1 851) || fail "exit status $? (expected 0)"
echo "$out"
expect_line "$out" "write M_W: done (ADS result 0)"
expect_line "$out" "recipe read back: 0x0A0B 0x0C0D (matches)"
expect_line "$out" "reconnects: 1"
plcsim_ctl "fault close 1" >/dev/null
out=$(timeout 60 "${host[@]}" "$plugin" 127.0.0.1 "$PLCSIM_PORT" 192.168.1.100.1.1 851) || fail "exit status $? (expected 0)"
echo "$out"
expect_line "$out" "write M_bit 3.1: done (ADS result 0)"
expect_line "$out" "recipe read back: 0x0A0B 0x0C0D (matches)"
expect_line "$out" "reconnects: 1"

echo "--- a write the PLC refuses"
status=0
out=$(timeout 60 "${host[@]}" "$plugin" 127.0.0.1 "$PLCSIM_PORT" 192.168.1.100.1.1 851 65535) || status=$?
echo "$out"
[[ $status == 1 ]] || fail "exit status $status (expected 1)"
expect_line "$out" "write M_W: FAILED (ADS result 0x705)"
expect_line "$out" "write M_bit 3.1: done (ADS result 0)"
expect_line "$out" "recipe read back: 0x0A0B 0x0C0D (matches)"
stop_plcsim
echo "PASS"
