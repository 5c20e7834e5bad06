#!/usr/bin/env bash
# Commissioning from zero across a real link: a "panel" network namespace (10.77.0.1 on v0)
# and a "PLC" namespace (10.77.0.2 on v1) joined by a veth pair. plcsim runs on the PLC side
# with a route table that does not know the panel; on the panel side adshost finds it by
# broadcast discovery, sees the driver's polling go unanswered, adds the route and polls.
# A stopped PLC does not answer a broadcast search but still answers one addressed to it.
#
# Exit 0: every check passed; 1: a check failed; 77: namespaces or veth pairs are not
# available here (reported to CTest as skipped, never as passed). No traffic leaves the two
# namespaces, which the test creates and which end with it.
#
# Usage: netns_discovery.sh PLCSIM ADSHOST PLUGIN
set -u

skip() {
  echo "SKIPPED: $*"
  exit 77
}

if [[ ${1:-} != --panel ]]; then
  plcsim=${1:-} adshost=${2:-} plugin=${3:-}
  if [[ ! -x $plcsim || ! -x $adshost || ! -e $plugin ]]; then
    echo "usage: $0 PLCSIM ADSHOST PLUGIN" >&2
    exit 1
  fi
  [[ $(uname -s) == Linux ]] || skip "network namespaces need Linux"
  for tool in unshare nsenter ip timeout; do
    command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed"
  done
  why=$(timeout 20 unshare -n true 2>&1) || skip "cannot create a network namespace (unshare -n): $why"
  why=$(timeout 20 unshare -n sh -c 'ip link add v0 type veth peer name v1' 2>&1) ||
    skip "cannot create a veth pair inside a network namespace: $why"
  # The rest runs inside the panel's namespace, bounded in time as a whole.
  exec timeout -k 5 100 unshare -n bash "$0" --panel "$plcsim" "$adshost" "$plugin"
fi

shift
plcsim=$1 adshost=$2 plugin=$3
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../../scripts/lib/plcsim.sh"

work=$(mktemp -d "${TMPDIR:-/tmp}/netns_discovery.XXXXXX")
holder=
cleanup() {
  stop_plcsim 3 >/dev/null 2>&1 || true
  [[ -n $holder ]] && kill "$holder" 2>/dev/null && wait "$holder" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

failures=0
check() {  # name, expected exit status, output file, text the output must hold (or "")
  local name=$1 want=$2 got=$3 file=$4 text=$5
  if [[ $got != "$want" ]]; then
    echo "FAILED: $name: exit status $got, expected $want"
    sed 's/^/    | /' "$file"
    failures=$((failures + 1))
  elif [[ -n $text ]] && ! grep -qF -- "$text" "$file"; then
    echo "FAILED: $name: no '$text' in:"
    sed 's/^/    | /' "$file"
    failures=$((failures + 1))
  else
    echo "ok: $name"
  fi
}

ip link set lo up
ip link add v0 type veth peer name v1

# The PLC's namespace is held by a sleeping process; the veth end moves into it.
unshare -n sleep 90 &
holder=$!
own=$(readlink /proc/self/ns/net)
for ((i = 0; i < 100; i++)); do
  [[ $(readlink "/proc/$holder/ns/net" 2>/dev/null) != "$own" ]] && break
  sleep 0.05
done
plc() { nsenter -t "$holder" -n "$@"; }
ip link set v1 netns "$holder" || { echo "FAILED: cannot move v1 into the PLC's namespace"; exit 1; }
plc ip link set lo up
plc ip addr add 10.77.0.2/24 brd + dev v1
plc ip link set v1 up
ip addr add 10.77.0.1/24 brd + dev v0
ip link set v0 up

# plcsim on the PLC side, through a wrapper so that start_plcsim's PID is plcsim's own.
printf '#!/bin/sh\nexec nsenter -t %s -n "%s" "$@"\n' "$holder" "$plcsim" >"$work/plcsim-in-plc-namespace"
chmod +x "$work/plcsim-in-plc-namespace"
password=$work/password
printf 'commission-me\n' >"$password"
if ! start_plcsim "$work/plcsim-in-plc-namespace" --listen 10.77.0.2:48898 --control 10.77.0.2:0 \
  --udp-port 48899 --netid 10.77.0.2.1.1 --route 10.77.0.99.1.1 --hostname plc-77 --password-file "$password" \
  --no-program; then
  echo "FAILED: plcsim did not start in the PLC's namespace"
  exit 1
fi
echo "plcsim (pid $PLCSIM_PID) on 10.77.0.2:48898, UDP $PLCSIM_UDP_PORT: $(sed -n 4p "$PLCSIM_DIR/stdout")"
ctl() {
  local reply=
  exec 3<>"/dev/tcp/10.77.0.2/$PLCSIM_CONTROL_PORT" || return 1
  printf '%s\n' "$1" >&3
  read -r -t 3 reply <&3 || true
  exec 3>&-
  printf '%s\n' "$reply"
}

run() {  # output file, then adshost's arguments; sets status
  local out=$1
  shift
  status=0
  timeout -k 2 20 "$adshost" "$@" >"$out" 2>&1 || status=$?
}

run "$work/discover" --discover --timeout-ms 1500
check "broadcast discovery from the panel side finds the PLC" 0 "$status" "$work/discover" \
  'device 10.77.0.2: AMS Net ID 10.77.0.2.1.1, host name "plc-77", runtime 3.1.4024, OS Windows NT 10.0.17763'
check "it was sent to the link's broadcast address" 0 "$status" "$work/discover" \
  "device-info request sent to 10.77.0.255 (v0), UDP port 48899"

poll=(--driver "$plugin" --plc 10.77.0.2:48898 --netid 10.77.0.2.1.1 --watch M_W:0 --cycles 3 --timeout-ms 200
  --retries 1)
run "$work/poll-before" "${poll[@]}"
check "without the route the driver's polling is not answered" 4 "$status" "$work/poll-before" \
  "no route for this panel's AMS Net ID 10.77.0.1.1.1"

export NETNS_DISCOVERY_PASSWORD=commission-me
run "$work/add-route" --add-route --plc 10.77.0.2 --user Administrator --password-env NETNS_DISCOVERY_PASSWORD \
  --route-name panel-77
check "add-route asks for the Net ID the driver sends" 0 "$status" "$work/add-route" \
  'route "panel-77" for AMS Net ID 10.77.0.1.1.1 (address 10.77.0.1, static) accepted by 10.77.0.2'
if grep -q commission-me "$work/add-route"; then
  echo "FAILED: the password is in adshost's output"
  failures=$((failures + 1))
fi

run "$work/poll-after" "${poll[@]}"
check "with the route the driver's polling is answered" 0 "$status" "$work/poll-after" "value M_W:0 = 0x0000"

[[ $(ctl "state stop") == ok ]] || { echo "FAILED: plcsim's control port"; failures=$((failures + 1)); }
run "$work/discover-stopped" --discover --timeout-ms 800
check "a stopped PLC does not answer a broadcast search" 4 "$status" "$work/discover-stopped" \
  "no device answered the device-info request"
run "$work/discover-unicast" --discover --plc 10.77.0.2 --timeout-ms 1500
check "a stopped PLC answers a search addressed to it" 0 "$status" "$work/discover-unicast" \
  "device 10.77.0.2: AMS Net ID 10.77.0.2.1.1"
echo "plcsim: $(ctl udp-counters)"
[[ $(ctl udp-counters) == *" stopped=1" ]] || { echo "FAILED: the unanswered broadcast is not counted"; failures=$((failures + 1)); }

stop_status=0
stop_plcsim 3 || stop_status=$?
((stop_status == 0)) || { echo "FAILED: plcsim ended with status $stop_status"; failures=$((failures + 1)); }
echo "$failures failed"
((failures == 0))
