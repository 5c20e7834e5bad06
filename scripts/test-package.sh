#!/usr/bin/env bash
# Makes the Debian package from a configured build, unpacks it into a fresh prefix, builds a
# tiny host against it with find_package and with pkg-config, and runs the installed adshost
# against the installed plcsim for a few cycles. Usage: test-package.sh BUILD_DIR
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?build dir}" && pwd)
work=$(mktemp -d)
source "$repo/scripts/lib/plcsim.sh"
cleanup() { stop_plcsim || true; rm -rf "$work"; }
trap cleanup EXIT

(cd "$build" && cpack -G DEB -B "$work/pkg" >/dev/null)
deb=$(ls "$work"/pkg/*.deb)
echo "package: $(basename "$deb") ($(stat -c %s "$deb") bytes)"
depends=$(dpkg-deb -f "$deb" Depends)
echo "depends: $depends"
grep -q 'libqt5core5a' <<<"$depends" || { echo "FAIL: no Qt 5 runtime dependency"; exit 1; }
grep -q 'libqt5network5' <<<"$depends" || { echo "FAIL: no QtNetwork runtime dependency"; exit 1; }
if grep -qE -- '-dev|gtest|googletest|benchmark' <<<"$depends"; then echo "FAIL: a build-time dependency leaked"; exit 1; fi

prefix=$work/root
dpkg -x "$deb" "$prefix"
for f in usr/include/ads_ethernet.h usr/include/ads_ethernet_host.h usr/include/ads_ethernet_loader.h usr/bin/adshost usr/bin/plcsim usr/share/man/man1/adshost.1.gz usr/share/man/man1/plcsim.1.gz; do
  [[ -e "$prefix/$f" || -e "$prefix/${f%.gz}" ]] || { echo "FAIL: $f is not in the package"; exit 1; }
done
plugin=$(find "$prefix/usr/lib" -name libads_ethernet.so | head -1)
[[ -n "$plugin" ]] || { echo "FAIL: no plugin in the package"; exit 1; }
export LD_LIBRARY_PATH=$(dirname "$plugin")

# find_package
cmake -S "$repo/tests/package" -B "$work/tiny-cmake" -DCMAKE_PREFIX_PATH="$prefix/usr" >/dev/null
cmake --build "$work/tiny-cmake" >/dev/null
"$work/tiny-cmake/tiny_host" | head -1
# pkg-config
pcdir=$(dirname "$(find "$prefix/usr/lib" -name ads_ethernet.pc | head -1)")
g++ -std=c++17 -fPIC "$repo/tests/package/tiny_host.cpp" -o "$work/tiny-pc" \
    $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs ads_ethernet)
"$work/tiny-pc" | head -1
# the example host, from the installed host headers alone (it loads the plugin at run time)
g++ -std=c++11 -fPIC "$repo/examples/minimal_host.cpp" -o "$work/minimal-host-pc" \
    $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags ads_ethernet) $(PKG_CONFIG_PATH=$pcdir pkg-config --libs Qt5Core) -ldl
echo "example host built against the installed headers"

# the installed tools
"$prefix/usr/bin/adshost" --version | head -1
"$prefix/usr/bin/plcsim" --version | head -1
start_plcsim "$prefix/usr/bin/plcsim" --listen 127.0.0.1:0 --no-program || { echo "FAIL: the installed plcsim did not start"; exit 1; }
port=$PLCSIM_PORT
# No --driver: the installed adshost finds the plugin installed beside it.
timeout 60 "$prefix/usr/bin/adshost" --plc "127.0.0.1:$port" --netid 192.168.1.100.1.1 \
  --ams-port 851 --watch M_W:0:4 --watch M_bit:2.0 --cycles 5 --quiet | tail -3
stop_plcsim || true
echo "PASS: package installs, builds a host with find_package and pkg-config, and its tools run"
