#!/usr/bin/env bash
# Builds a private armhf sysroot (Qt 5, GoogleTest, libc) from Debian's armhf packages,
# leaving the system's dpkg untouched (adding armhf as a dpkg architecture breaks apt here).
# Usage: make-armhf-sysroot.sh [DIR]   (default: build-armhf/apt); the sysroot is DIR/sysroot.
set -euo pipefail
R=${1:-$(cd "$(dirname "$0")/.." && pwd)/build-armhf/apt}
if [[ -f "$R/sysroot/.complete" ]]; then echo "sysroot present: $R/sysroot"; exit 0; fi
mkdir -p "$R/etc/sources.list.d" "$R/lists/partial" "$R/debs/partial" "$R/sysroot"
: > "$R/status"
# The system's Debian sources without the security suite (its armhf index is not mirrored).
if [[ -f /etc/apt/sources.list.d/debian.sources ]]; then
  awk 'BEGIN{RS="";ORS="\n\n"} !/-security/' /etc/apt/sources.list.d/debian.sources \
    > "$R/etc/sources.list.d/debian.sources"
else
  grep -v -- '-security' /etc/apt/sources.list > "$R/etc/sources.list.d/debian.list"
fi
A=(-o APT::Architecture=armhf -o APT::Architectures::=armhf -o "Dir::State::status=$R/status"
   -o "Dir::State::lists=$R/lists" -o "Dir::Cache::archives=$R/debs" -o Dir::Etc::sourcelist=/dev/null
   -o "Dir::Etc::sourceparts=$R/etc/sources.list.d" -o Debug::NoLocking=1 -o APT::Sandbox::User=root)
apt-get "${A[@]}" update -qq
apt-get "${A[@]}" install -y -qq --download-only --no-install-recommends \
    libqt5core5a libqt5network5 libgtest-dev libc6 libstdc++6 >/dev/null
( cd "$R/debs" && apt-get "${A[@]}" download qtbase5-dev qt5-qmake qtbase5-dev-tools >/dev/null )  # headers, CMake files, mkspecs
for d in "$R"/debs/*.deb; do dpkg -x "$d" "$R/sysroot"; done
touch "$R/sysroot/.complete"
echo "sysroot ready: $R/sysroot"
