#!/bin/sh
# intf_SetDriverPropertyPage on real interfaces.
#
# Each case runs the probe in a fresh private network namespace (unshare -n) in which the
# loopback interface is up and a veth pair v0/v1 carries the case's made-up addresses.
# No traffic is sent. Exit 0: all cases as expected; 1: a case failed; 77: namespaces or
# veth interfaces are not available here (reported to CTest as skipped, never as passed).
#
# Usage: netns_property_page.sh PROBE

probe=$1
if [ -z "$probe" ] || [ ! -x "$probe" ]; then
    echo "usage: $0 PROBE (the property_page_probe executable)" >&2
    exit 1
fi

skip() {
    echo "SKIPPED: $*"
    exit 77
}

[ "$(uname -s)" = Linux ] || skip "network namespaces need Linux"
command -v unshare >/dev/null 2>&1 || skip "unshare(1) is not installed"
command -v ip >/dev/null 2>&1 || skip "ip(8) is not installed"
limit=""
if command -v timeout >/dev/null 2>&1; then
    limit="timeout 20"
fi

if ! why=$($limit unshare -n true 2>&1); then
    skip "cannot create a network namespace (unshare -n): $why"
fi
if ! why=$($limit unshare -n sh -c 'ip link add v0 type veth peer name v1' 2>&1); then
    skip "cannot create a veth pair inside a network namespace: $why"
fi

# The namespace side: loopback up, veth pair up, addresses on v0 in the order given,
# then the probe. Arguments: probe, settings, preset source IP, addresses (CIDR).
inner='
set -e
probe=$1; settings=$2; preset=$3; shift 3
ip link set lo up
ip link add v0 type veth peer name v1
for a in "$@"; do
    case $a in
        *:*) ip addr add "$a" dev v0 nodad ;;
        *)   ip addr add "$a" dev v0 ;;
    esac
done
ip link set v1 up
ip link set v0 up
exec "$probe" "$settings" "$preset"
'

errfile=$(mktemp 2>/dev/null) || errfile=/tmp/netns_probe_err.$$
trap 'rm -f "$errfile"' EXIT

failures=0
cases=0

run_case() {
    name=$1; settings=$2; preset=$3; expected=$4
    shift 4
    cases=$((cases + 1))
    echo "--- $name"
    echo "    settings: $settings; addresses: lo 127.0.0.1, v0 $*"
    if ! got=$($limit unshare -n sh -c "$inner" netns-case "$probe" "$settings" "$preset" "$@" 2>"$errfile"); then
        echo "    probe or namespace setup failed:"
        sed 's/^/    | /' "$errfile"
        failures=$((failures + 1))
        return
    fi
    sed 's/^/    walked /' "$errfile"
    if [ "$got" = "$expected" ]; then
        echo "    ok: $got"
    else
        echo "    FAILED"
        echo "    expected: $expected"
        echo "    got:      $got"
        failures=$((failures + 1))
    fi
}

# Loopback is skipped: the veth address is taken.
run_case "loopback and 192.168.1.20" \
    "2_0,192.168.1.100.1.1,801" 0.0.0.0 \
    "sourceIp=192.168.1.20 targetAmsNetId=192.168.1.100.1.1 targetAmsPort=801" \
    192.168.1.20/24 fd00:192:168::5/64

# 10.0.0.5 comes first but holds neither 192 nor 168.
run_case "10.0.0.5 and 192.168.1.20" \
    "2_0,192.168.1.100.1.1,801" 0.0.0.0 \
    "sourceIp=192.168.1.20 targetAmsNetId=192.168.1.100.1.1 targetAmsPort=801" \
    10.0.0.5/24 192.168.1.20/24

# No address qualifies: the panel address stays as it was.
run_case "only 10.0.0.5" \
    "2_0,192.168.1.100.1.1,801" 9.9.9.9 \
    "sourceIp=9.9.9.9 targetAmsNetId=192.168.1.100.1.1 targetAmsPort=801" \
    10.0.0.5/24

# Net ID 5.1...: 10.0.5.1 contains both 5 and 1; 192.168.1.20 has no 5.
run_case "Net ID 5.1.2.3.1.1 with 10.0.5.1 and 192.168.1.20" \
    "2_0,5.1.2.3.1.1,851" 0.0.0.0 \
    "sourceIp=10.0.5.1 targetAmsNetId=5.1.2.3.1.1 targetAmsPort=851" \
    192.168.1.20/24 fd00:5:1::1/64 10.0.5.1/24

echo "$cases cases, $failures failed"
[ "$failures" -eq 0 ]
