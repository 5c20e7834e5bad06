#!/usr/bin/env bash
# adshost names the source AMS Net ID the driver sends as, and warns when no address of the
# machine matches the PLC's Net ID (the driver then sends as 0.0.0.0.1.1), in text and in
# --json. Each case runs in a fresh private network namespace (unshare -n) with loopback up
# and, when given, a veth pair carrying made-up addresses; plcsim listens on 127.0.0.1 there
# and knows one route, for 192.168.1.20.1.1, so it answers only frames from that Net ID:
# what adshost prints is checked against what the driver put on the wire.
# Exit 0: as expected; 1: a case failed; 77: namespaces are not available (skipped).
#
#   netns_adshost_source.sh ADSHOST PLUGIN PLCSIM
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)

if [[ ${1:-} == --inside ]]; then
    # In the namespace: addresses, plcsim, adshost in text and in JSON.
    shift
    adshost=$1 plugin=$2 plcsim=$3 mode=$4
    shift 4
    source "$here/../../scripts/lib/plcsim.sh"
    ip link set lo up || exit 1
    if (($# > 0)); then
        ip link add v0 type veth peer name v1 || exit 1
        for a in "$@"; do ip addr add "$a" dev v0 || exit 1; done
        ip link set v1 up && ip link set v0 up || exit 1
    fi
    trap 'stop_plcsim >/dev/null 2>&1 || true' EXIT
    start_plcsim "$plcsim" --listen 127.0.0.1:0 --no-program --route 192.168.1.20.1.1 || exit 1
    args=(--driver "$plugin" --plc "127.0.0.1:$PLCSIM_PORT" --netid 192.168.1.100.1.1 --ams-port 851
        --watch M_W:0 --cycles 5 --retries 1 --timeout-ms 300 --quiet)
    [[ $mode == json ]] && args+=(--json)
    timeout 30 "$adshost" "${args[@]}"
    echo "status=$?"
    exit 0
fi

adshost=${1:?usage: netns_adshost_source.sh ADSHOST PLUGIN PLCSIM} plugin=${2:?} plcsim=${3:?}
skip() { echo "SKIPPED: $*"; exit 77; }
command -v unshare >/dev/null || skip "unshare(1) is not installed"
command -v ip >/dev/null || skip "ip(8) is not installed"
why=$(timeout 20 unshare -n sh -c 'ip link add v0 type veth peer name v1' 2>&1) \
    || skip "cannot create a veth pair in a network namespace: $why"

failures=0
check() {  # name, output, expected line (a fixed string, the whole line)
    if grep -qxF -- "$3" <<<"$2"; then echo "    ok: $3"; else
        echo "    FAILED: no line: $3"; failures=$((failures + 1)); fi
}
run() {  # mode, addresses...
    timeout 60 unshare -n bash "$0" --inside "$adshost" "$plugin" "$plcsim" "$@" 2>&1
}

echo "--- loopback only: no address matches 192 and 168"
out=$(run text)
echo "$out" | sed 's/^/    | /'
check text "$out" "warning: source AMS Net ID 0.0.0.0.1.1: no IPv4 address of this machine (loopback aside) contains 192 and 168, the first two numbers of --netid 192.168.1.100.1.1: the driver sends as 0.0.0.0.1.1 and no PLC has a route for that; give the panel an address on the PLC's network"
check text "$out" "status=4"
out=$(run json)
echo "$out" | sed 's/^/    | /'
check json "$out" '{"type":"source","netid":"0.0.0.0.1.1","address":null,"matched":false,"warning":"no IPv4 address of this machine (loopback aside) contains 192 and 168, the first two numbers of --netid 192.168.1.100.1.1: the driver sends as 0.0.0.0.1.1 and no PLC has a route for that; give the panel an address on the PLC'"'"'s network"}'
check json "$out" "status=4"

echo "--- 10.0.0.5 and 192.168.1.20: the second matches"
out=$(run text 10.0.0.5/24 192.168.1.20/24)
echo "$out" | sed 's/^/    | /'
check text "$out" "source AMS Net ID 192.168.1.20.1.1 (this machine's address 192.168.1.20 contains 192 and 168, the first two numbers of --netid)"
check text "$out" "status=0"
out=$(run json 10.0.0.5/24 192.168.1.20/24)
echo "$out" | sed 's/^/    | /'
check json "$out" '{"type":"source","netid":"192.168.1.20.1.1","address":"192.168.1.20","matched":true}'
check json "$out" "status=0"

echo "$failures failed"
[[ $failures -eq 0 ]]
