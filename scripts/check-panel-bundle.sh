#!/usr/bin/env bash
# Checks a panel bundle (ads_ethernet-<version>-<arch>-qt4.tar.gz, made by the panel-bundle
# target): exactly the six files; the plugin stripped, without RPATH, exporting exactly the
# nineteen intf_ entry points of the header and nothing else; the header and the guide as in
# the sources; a README naming the Qt version and the GLIBC_ version the plugin needs; and the
# plugin from the bundle loaded (dlopen + intf_getVersion) by LOADER, under qemu-arm for armhf.
#
#   check-panel-bundle.sh TARBALL LOADER
#
# Environment: ADS_BUNDLE_QT_LIBDIR  the Qt 4.8 libraries the plugin is loaded with (required)
#              ADS_BUNDLE_SYSROOT    armhf: the sysroot for qemu-arm -L (C library, libstdc++)
set -euo pipefail
tarball=${1:?usage: check-panel-bundle.sh TARBALL LOADER}
loader=${2:?usage: check-panel-bundle.sh TARBALL LOADER}
qtlib=${ADS_BUNDLE_QT_LIBDIR:?ADS_BUNDLE_QT_LIBDIR must name the Qt 4.8 library folder}
here=$(cd "$(dirname "$0")/.." && pwd)
failures=0
fail() { echo "FAILED: $*"; failures=$((failures + 1)); }
ok() { echo "ok: $*"; }

[ -f "$tarball" ] || { echo "FAILED: no bundle at $tarball (cmake --build <dir> --target panel-bundle)"; exit 1; }
name=$(basename "$tarball" .tar.gz)
case "$name" in
  ads_ethernet-*-armhf-qt4) arch=armhf ;;
  ads_ethernet-*-qt4) arch=native ;;
  *) echo "FAILED: $name is not named ads_ethernet-<version>-<arch>-qt4.tar.gz"; exit 1 ;;
esac
version=${name#ads_ethernet-}
version=${version%%-*}

echo "--- contents of $(basename "$tarball")"
tar -tzvf "$tarball"
expected="$name/README
$name/doc/HOST_INTEGRATION.md
$name/include/ads_ethernet.h
$name/include/ads_ethernet_host.h
$name/include/ads_ethernet_loader.h
$name/lib/libads_ethernet.so"
files=$(tar -tzf "$tarball" | grep -v '/$' | sort)
if [ "$files" = "$expected" ]; then ok "exactly README, doc/HOST_INTEGRATION.md, the three headers of include/, lib/libads_ethernet.so"
else fail "files in the bundle:"; echo "$files" | sed 's/^/    /'; fi

work=$(mktemp -d /tmp/panel-bundle-check.XXXXXX)
trap 'rm -rf "$work"' EXIT
tar -xzf "$tarball" -C "$work"
b=$work/$name
plugin=$b/lib/libads_ethernet.so
[ -f "$plugin" ] || { echo "FAILED: no plugin in the bundle"; exit 1; }

desc=$(file -b "$plugin")
echo "--- file: $desc"
case "$desc" in *"not stripped"*) fail "the plugin is not stripped" ;; *stripped*) ok "stripped" ;; *) fail "file(1) does not call the plugin stripped" ;; esac
if [ "$arch" = armhf ]; then
  case "$desc" in *"ELF 32-bit LSB shared object, ARM, EABI5"*) ok "32-bit ARM EABI5 shared object" ;; *) fail "not a 32-bit ARM shared object" ;; esac
  readelf=arm-linux-gnueabihf-readelf
else
  case "$desc" in *"ELF"*"shared object"*) ok "ELF shared object" ;; *) fail "not an ELF shared object" ;; esac
  readelf=readelf
fi

dyn=$($readelf -d -W "$plugin")
if echo "$dyn" | grep -qE '\((RPATH|RUNPATH)\)'; then fail "the plugin carries an RPATH/RUNPATH: $(echo "$dyn" | grep -E 'RPATH|RUNPATH')"
else ok "no RPATH or RUNPATH"; fi
for lib in libQtCore.so.4 libQtNetwork.so.4; do
  echo "$dyn" | grep -q "(NEEDED).*\[$lib\]" && ok "linked to $lib" || fail "not linked to $lib"
done

# Exports: every defined dynamic symbol, against the header's entry points.
exported=$($readelf --dyn-syms -W "$plugin" | awk '$7 != "UND" && $5 == "GLOBAL" && ($4 == "FUNC" || $4 == "OBJECT") {sub(/@.*/, "", $8); print $8}' | sort)
declared=$(grep -oE '^ADS_EXPORT [^(]*\bintf_[A-Za-z]+\(' "$b/include/ads_ethernet.h" | grep -oE 'intf_[A-Za-z]+' | sort)
n_exported=$(echo "$exported" | grep -c . || true)
n_declared=$(echo "$declared" | grep -c . || true)
if [ "$n_exported" -eq 19 ] && [ "$exported" = "$declared" ]; then ok "exports exactly the 19 intf_ entry points of the header"
else fail "exports ($n_exported) differ from the header's 19 entry points ($n_declared):"; diff <(echo "$declared") <(echo "$exported") | sed 's/^/    /' || true; fi

for h in ads_ethernet.h ads_ethernet_host.h ads_ethernet_loader.h; do
  cmp -s "$b/include/$h" "$here/src/$h" && ok "$h as src/$h" || fail "$h differs from src/$h"
done
# The host header has one function type per exported entry point, and no other.
typed=$(grep -oE '^typedef [^(]*\(\*intf_[A-Za-z]+_fn\)' "$b/include/ads_ethernet_host.h" | grep -oE 'intf_[A-Za-z]+' | sort)
if [ "$typed" = "$exported" ]; then ok "ads_ethernet_host.h types each of the 19 entry points"
else fail "the host header's entry-point types differ from the exports:"; diff <(echo "$exported") <(echo "$typed") | sed 's/^/    /' || true; fi
cmp -s "$b/doc/HOST_INTEGRATION.md" "$here/docs/HOST_INTEGRATION.md" && ok "guide as docs/HOST_INTEGRATION.md" || fail "guide differs from docs/HOST_INTEGRATION.md"

# The README must name the Qt it was built with and the C library the plugin really needs.
glibc=$($readelf --version-info -W "$plugin" | grep -oE 'Name: GLIBC_[0-9.]+' | sed 's/Name: GLIBC_//' | sort -V | tail -n 1)
qt=$(grep -m1 -oE '^#define QT_VERSION_STR +"[0-9.]+"' "$qtlib/../include/QtCore/qglobal.h" | grep -oE '[0-9.]+' | tail -n 1)
echo "--- README"
sed 's/^/    /' "$b/README"
grep -q "Qt $qt" "$b/README" && ok "README names Qt $qt" || fail "README does not name Qt $qt"
[ "$qt" = 4.8.7 ] || fail "the Qt library folder holds Qt $qt, not 4.8.7"
if [ -n "$glibc" ] && grep -q "GLIBC_$glibc\b" "$b/README" && grep -q "C library $glibc or newer" "$b/README"; then ok "README names the C library it needs: glibc $glibc (GLIBC_$glibc)"
else fail "README does not name the plugin's highest GLIBC_ version ($glibc)"; fi

# Load it as a panel runtime does, with the panel's Qt on the library path.
echo "--- loading the plugin from the bundle"
if [ "$arch" = armhf ]; then
  sysroot=${ADS_BUNDLE_SYSROOT:?ADS_BUNDLE_SYSROOT must name the armhf sysroot}
  run=(qemu-arm -L "$sysroot" -E "LD_LIBRARY_PATH=$qtlib" "$loader")
else
  run=(env "LD_LIBRARY_PATH=$qtlib" "$loader")
fi
if out=$("${run[@]}" "$plugin" "$version" 2>&1); then
  echo "    $out"
  ok "loaded; intf_getVersion() = $version"
else
  echo "$out" | sed 's/^/    /'
  fail "the plugin from the bundle did not load or gave another version"
fi

if [ "$failures" -ne 0 ]; then
  echo "panel bundle check: $failures FAILED"
  exit 1
fi
echo "panel bundle check: $(basename "$tarball") passed"
