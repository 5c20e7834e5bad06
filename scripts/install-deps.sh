#!/usr/bin/env bash
# Installs what building and testing the driver needs on a fresh Debian 12 machine (as root).
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
packages=(
  build-essential cmake pkg-config
  qtbase5-dev qt6-base-dev libgl-dev         # Qt 5 (default) and Qt 6 builds
  libgtest-dev googletest libbenchmark-dev   # tests and benchmarks
  libcli11-dev                              # command lines of the tools (header-only)
  clang libclang-rt-14-dev                   # fuzzing and sanitizers
  iproute2 util-linux                        # network namespaces in tests
  python3                                   # the tshark conformance check
  valgrind help2man dpkg-dev bc            # benchmarks, man pages, packaging
  gnuplot-nox                               # the figures of docs/PERFORMANCE.md (scripts/make-figures.sh)
  tshark                                    # every frame checked by a protocol analyser
  crossbuild-essential-armhf qemu-user      # the ARM panel build and its tests
  file                                      # the panel bundle check (is the plugin stripped)
  universal-ctags                           # function lengths in scripts/measure-code.sh
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# Node.js may come from elsewhere than Debian: install Debian's only when there is none.
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)   # a third-party ADS client in tests
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  # tshark asks whether non-root users may capture: no.
  echo 'wireshark-common wireshark-common/install-setuid boolean false' | debconf-set-selections
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
echo "dependencies present"
