#!/usr/bin/env bash
# Cross-builds the driver, its tests and the two tools for the ARM panel (arm-linux-gnueabihf)
# against Debian's armhf Qt 5, then runs the driver's unit tests and the ABI test under
# qemu-arm through CTest. Usage: bash scripts/cross-armhf.sh
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
export DEBIAN_FRONTEND=noninteractive
need=()
command -v arm-linux-gnueabihf-g++ >/dev/null || need+=(crossbuild-essential-armhf)
command -v qemu-arm >/dev/null || need+=(qemu-user)
if ((${#need[@]})); then apt-get update -qq; apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null; fi
bash "$here/scripts/make-armhf-sysroot.sh" "$here/build-armhf/apt"
build=$here/build-armhf/build
cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/armhf-toolchain.cmake" \
      -DADS_ARMHF_SYSROOT="$here/build-armhf/apt/sysroot" -DADS_BUILD_TESTS=ON -DADS_BUILD_TOOLS=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
start=$(date +%s.%N)
ctest --test-dir "$build" --no-tests=error --output-on-failure -j"$(nproc)" --timeout 600 -L 'unit|abi'
end=$(date +%s.%N)
printf 'armhf: plugin %s bytes (stripped %s bytes); unit and ABI tests under qemu-arm took %.1f s\n' \
  "$(stat -c %s "$build/src/libads_ethernet.so")" \
  "$(arm-linux-gnueabihf-strip -o /tmp/ads_armhf_stripped.so "$build/src/libads_ethernet.so" && stat -c %s /tmp/ads_armhf_stripped.so)" \
  "$(echo "$end - $start" | bc)"
