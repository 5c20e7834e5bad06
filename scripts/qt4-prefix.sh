#!/usr/bin/env bash
# Builds Qt 4.8.7's QtCore and QtNetwork once per tarball and target into a cache folder
# outside the clone, and prints the install prefix. Later calls reuse it.
#
#   bash scripts/qt4-prefix.sh [native|armhf]      -> prints e.g. /var/cache/ads_ethernet/qt-4.8.7-ae6f3b028fc1df59-native
#
# The cache key is the tarball's sha256, so a changed tarball builds anew. ADS_QT4_CACHE
# moves the cache (default /var/cache/ads_ethernet). Concurrent callers wait on a lock.
set -euo pipefail
target=${1:-native}
case "$target" in native|armhf) ;; *) echo "qt4-prefix.sh: target must be native or armhf, not '$target'" >&2; exit 2;; esac
here=$(cd "$(dirname "$0")/.." && pwd)
qt4dir=${ADS_QT4_SOURCE:-$here/../shared/qt4}
tarball=$qt4dir/qt-4.8.7-core-network.tar.xz
[ -f "$tarball" ] || { echo "qt4-prefix.sh: no Qt 4.8.7 source at $tarball" >&2; exit 1; }
cache=${ADS_QT4_CACHE:-/var/cache/ads_ethernet}
key=$(sha256sum "$tarball" | cut -c1-16)
prefix=$cache/qt-4.8.7-$key-$target
mkdir -p "$cache"
exec 9>"$cache/.lock-$target"
flock 9
if [ ! -f "$prefix/.complete" ]; then
  if [ "$target" = armhf ] && ! command -v arm-linux-gnueabihf-g++ >/dev/null; then
    DEBIAN_FRONTEND=noninteractive apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends crossbuild-essential-armhf >/dev/null
  fi
  rm -rf "$prefix"
  start=$(date +%s)
  if [ "$target" = armhf ]; then
    bash "$qt4dir/build-qt4.sh" "$prefix" armhf >&2
  else
    bash "$qt4dir/build-qt4.sh" "$prefix" >&2
  fi
  touch "$prefix/.complete"
  echo "qt4-prefix.sh: built Qt 4.8.7 ($target) in $(( $(date +%s) - start )) s" >&2
fi
echo "$prefix"
