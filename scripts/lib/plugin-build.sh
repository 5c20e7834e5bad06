# Builds only the driver plugin of a source tree (no tests, no tools), for the differential
# check and its mutants. Source it; the caller defines die().
#
#   build_plugin_only SRC BUILD WHAT [cmake options...]   -> BUILD/src/libads_ethernet.so
#
# Logs go to BUILD/configure.log and BUILD/build.log; on failure their end is shown and
# die is called with "WHAT does not configure" or "WHAT does not build".
build_plugin_only() {
  local src=$1 build=$2 what=$3
  shift 3
  mkdir -p "$build"
  cmake -S "$src" -B "$build" "$@" -DADS_BUILD_TESTS=OFF -DADS_BUILD_TOOLS=OFF > "$build/configure.log" 2>&1 \
    || { cat "$build/configure.log" >&2; die "$what does not configure"; }
  cmake --build "$build" -j"${jobs:-2}" --target ads_ethernet > "$build/build.log" 2>&1 \
    || { tail -40 "$build/build.log" >&2; die "$what does not build"; }
}
