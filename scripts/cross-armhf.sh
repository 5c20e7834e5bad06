#!/usr/bin/env bash
# Cross-builds the driver, its tests and the tools for the ARM panel (arm-linux-gnueabihf),
# then runs the driver's unit tests and the ABI test under qemu-arm through CTest.
#
#   bash scripts/cross-armhf.sh        # against Debian's armhf Qt 5, in build-armhf/build
#   bash scripts/cross-armhf.sh qt4    # against Qt 4.8.7 for armhf (the panel's Qt), in
#                                      # build-qt4-armhf; also makes and checks the panel bundle
#                                      # and runs the end-to-end tests: adshost, the example
#                                      # host, the plugin and the C++ e2e test programs for
#                                      # armhf under qemu-arm against a plcsim built for this
#                                      # machine (build-qt4-armhf-host)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:-qt5}
case "$mode" in qt5|qt4) ;; *) echo "usage: cross-armhf.sh [qt5|qt4]" >&2; exit 2;; esac
export DEBIAN_FRONTEND=noninteractive
need=()
command -v arm-linux-gnueabihf-g++ >/dev/null || need+=(crossbuild-essential-armhf)
command -v qemu-arm >/dev/null || need+=(qemu-user)
if ((${#need[@]})); then apt-get update -qq; apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null; fi
bash "$here/scripts/make-armhf-sysroot.sh" "$here/build-armhf/apt"
options=(-DADS_BUILD_TESTS=ON -DADS_BUILD_TOOLS=ON)
if [ "$mode" = qt4 ]; then
  # Qt 4.8.7 for armhf, built once into a cache folder outside the clone; the sysroot gives
  # GoogleTest and the C and C++ runtimes only.
  build=$here/build-qt4-armhf
  options+=(-DADS_QT4=ON -DADS_QT4_PREFIX="$(bash "$here/scripts/qt4-prefix.sh" armhf)")
  labels='unit|abi|bundle|e2e'
  # plcsim has no Qt and stays on this machine; only the other end of the wire is armhf.
  host=$here/build-qt4-armhf-host
  cmake -S "$here" -B "$host" -DADS_BUILD_TESTS=OFF -DADS_BUILD_BENCH=OFF >/dev/null
  cmake --build "$host" -j"$(nproc)" --target plcsim
  options+=(-DADS_HOST_PLCSIM="$host/tools/plcsim/plcsim")
else
  build=$here/build-armhf/build
  labels='unit|abi'
fi
cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/armhf-toolchain.cmake" \
      -DADS_ARMHF_SYSROOT="$here/build-armhf/apt/sysroot" "${options[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
start=$(date +%s.%N)
ctest --test-dir "$build" --no-tests=error --output-on-failure -j"$(nproc)" --timeout 600 -L "$labels"
end=$(date +%s.%N)
printf 'armhf %s: plugin %s bytes (stripped %s bytes); %s tests under qemu-arm took %.1f s\n' "$mode" \
  "$(stat -c %s "$build/src/libads_ethernet.so")" \
  "$(arm-linux-gnueabihf-strip -o "$build/libads_ethernet.stripped.so" "$build/src/libads_ethernet.so" && stat -c %s "$build/libads_ethernet.stripped.so")" \
  "${labels//|/, }" "$(echo "$end - $start" | bc)"
