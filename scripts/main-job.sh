#!/usr/bin/env bash
# The reference host against the bundled PLC simulator: installs what is needed, builds the
# driver plugin, the simulator and the host into build/, starts the simulator (its program
# running) on a free loopback port with a route table that does not know this panel, and
# commissions it from zero: discovery, the probe (no route), add-route, the probe again. Then
# it polls a demo screen through the driver for about fifteen seconds with one word write, one
# bit write and a recipe download and read-back, checks in the simulator's memory that the
# writes landed and prints the figures.
# Usage: bash scripts/main-job.sh [seconds]     Exit status 0 when everything worked.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${ADS_BUILD_DIR:-$here/build}
seconds=${1:-15}

# Only the compiler, CMake and Qt are needed here: when the installer fails on a package of the
# test suite, go on and let the build tell whether something essential is missing.
if ! bash "$here/scripts/install-deps.sh"; then
  echo "main-job: scripts/install-deps.sh failed; trying to build with what is installed" >&2
fi
cmake -S "$here" -B "$build" >/dev/null
cmake --build "$build" -j"$(nproc)" --target ads_ethernet plcsim adshost

plugin=$build/src/libads_ethernet.so
plcsim=$build/tools/plcsim/plcsim
adshost=$build/tools/adshost/adshost
for f in "$plugin" "$plcsim" "$adshost"; do
  [[ -e $f ]] || { echo "main-job: $f was not built" >&2; exit 1; }
done

work=$(mktemp -d)
source "$here/scripts/lib/plcsim.sh"
trap 'stop_plcsim || true; rm -rf "$work"' EXIT

# The driver sends as its own IPv4 address (the first that contains the first two numbers of
# the PLC's Net ID) followed by .1.1. The simulated PLC gets a Net ID that makes the driver pick
# this machine's first address, so that the route added below is the one a real panel needs.
own=
for a in $(hostname -I 2>/dev/null); do
  [[ $a =~ ^[0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$ && $a != 127.* ]] && { own=$a; break; }
done
if [[ -n $own ]]; then
  plc_netid=$(cut -d. -f1-2 <<<"$own").77.77.1.1
  route_for=()
else
  # No address but loopback: the driver finds none and sends as 0.0.0.0.1.1.
  plc_netid=192.168.1.100.1.1
  route_for=(--local-netid 0.0.0.0.1.1 --local-address 127.0.0.1)
  echo "main-job: this machine has no IPv4 address but loopback; the route is for 0.0.0.0.1.1" >&2
fi

# A route table that knows another panel only: this one gets no answer until its route is added.
if ! start_plcsim "$plcsim" --listen 127.0.0.1:0 --control 127.0.0.1:0 --log "$work/plcsim.log" \
  --netid "$plc_netid" --route 10.9.8.7.1.1 --route-file "$work/routes" --hostname plcsim-main-job; then
  echo "main-job: plcsim did not start" >&2
  exit 1
fi
listen=127.0.0.1:$PLCSIM_PORT
control=127.0.0.1:$PLCSIM_CONTROL_PORT
echo "plcsim (pid $PLCSIM_PID) listening on $listen, control on $control, UDP service on port $PLCSIM_UDP_PORT," \
  "AMS Net ID $PLCSIM_NETID"

# Commissioning from zero (docs/COMMISSIONING.md): find the PLC, see the probe fail for the
# missing route, add the route, probe again.
echo "adshost --discover"
"$adshost" --discover --plc 127.0.0.1 --udp-port "$PLCSIM_UDP_PORT" --timeout-ms 3000
echo "adshost --probe (before the route)"
probe_status=0
"$adshost" --probe --plc "$listen" --netid "$plc_netid" --ams-port 851 --udp-port "$PLCSIM_UDP_PORT" \
  --timeout-ms 500 >"$work/probe-before.out" 2>&1 || probe_status=$?
cat "$work/probe-before.out"
if ((probe_status != 4)) || ! grep -q '^to add the route: adshost --add-route' "$work/probe-before.out"; then
  echo "main-job: the probe before the route ended with $probe_status, expected 4 and the add-route command" >&2
  exit 1
fi
echo "adshost --add-route"
# The simulator's password is a fresh device's usual one; never on the command line.
MAIN_JOB_PLC_PASSWORD=1 "$adshost" --add-route --plc 127.0.0.1 --udp-port "$PLCSIM_UDP_PORT" \
  --user Administrator --password-env MAIN_JOB_PLC_PASSWORD --route-name main-job "${route_for[@]}"
echo "adshost --probe (with the route)"
"$adshost" --probe --plc "$listen" --netid "$plc_netid" --ams-port 851 --timeout-ms 2000

ctl() { plcsim_ctl "$1"; }

# Memory the screen shows besides the simulated program's counter, toggling bit and sine.
[[ $(ctl "set 0xF030 10 efbe3412") == ok ]]
[[ $(ctl "set 0xF030 3 80") == ok ]]
[[ $(ctl "set 0x4020 100 0100020003000400") == ok ]]
[[ $(ctl "set 0x4020 20 f0") == ok ]]   # the bit write sets bit 3: f0 becomes f8
[[ $(ctl "state") == "ok run" ]]

echo "adshost: polling for $seconds seconds"
status=0
"$adshost" --driver "$plugin" --plc "$listen" --netid "$plc_netid" --ams-port 851 \
  --watch I_W:0 --watch I_bit:0.0:4 \
  --watch Q_W:10:2 --watch Q_bit:3.7 \
  --watch M_W:0 --watch M_bit:2.0 --watch M_W:100:4 --watch M_bit:20.0:8 \
  --write M_W:10=0x1234 --write M_bit:20.3=1 \
  --recipe M_W:200:2=0x1111,0x2222 --recipe Q_W:40:1=0x3333 \
  --duration "$seconds" --timeout-ms 500 --interval-ms 100 | tee "$work/adshost.out" || status=$?
if ((status != 0)); then
  echo "main-job: adshost ended with status $status" >&2
fi

failed=0
check() {  # name, control command, expected reply
  local got
  got=$(ctl "$2")
  if [[ ${got,,} == "${3,,}" ]]; then
    echo "check $1: ok ($2 -> $got)"
  else
    echo "check $1: FAILED ($2 -> '$got', expected '$3')"
    failed=1
  fi
}
check "word write M_W:10=0x1234 landed" "get 0x4020 10 2" "ok 3412"
check "bit write M_bit:20.3=1 landed, bits 20.0-20.2 and 20.4-20.7 kept" "get 0x4020 20 1" "ok f8"
check "recipe M_W:200:2 downloaded" "get 0x4020 200 4" "ok 11112222"
check "recipe Q_W:40:1 downloaded" "get 0xF030 40 2" "ok 3333"
grep -q "(matches the download)" "$work/adshost.out" || { echo "check recipe read-back: FAILED"; failed=1; }
echo "plcsim counters: $(ctl counters)"
echo "plcsim UDP service: $(ctl udp-counters); routes: $(ctl routes)"

figures=$(grep '^figures: ' "$work/adshost.out" || true)
[[ -n $figures ]] || { echo "main-job: adshost printed no figures" >&2; failed=1; }
echo "$figures"

stop_status=0
stop_plcsim || stop_status=$?
echo "plcsim stopped (exit status $stop_status)"
((stop_status == 0)) || failed=1
((status == 0)) || failed=1
if ((failed)); then
  echo "main-job: FAILED"
  exit 1
fi
echo "main-job: all checks passed"
