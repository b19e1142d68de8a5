#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and uses it as a host would, knowing nothing of
# the source tree: a CMake project finds it with find_package(ferritcore 10), and the same C source
# is compiled with cc and pkg-config. Both programs run and must get the cache's answer.
#   check-install.sh [BUILD_DIR]   (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# The versioned names, and the SONAME that a host records.
libdir=$prefix/lib
[ "$(readlink "$libdir/libferritcore.so")" = libferritcore.so.10 ] || {
  echo "check-install: libferritcore.so does not link to libferritcore.so.10" >&2; exit 1; }
[ "$(readlink "$libdir/libferritcore.so.10")" = libferritcore.so.10.10.0 ] || {
  echo "check-install: libferritcore.so.10 does not link to libferritcore.so.10.10.0" >&2; exit 1; }
readelf -d "$libdir/libferritcore.so.10.10.0" | grep -q 'Library soname: \[libferritcore.so.10\]' || {
  echo "check-install: the SONAME is not libferritcore.so.10" >&2; exit 1; }
for header in include/ferritcore/*.h; do
  [ -f "$prefix/$header" ] || { echo "check-install: $header was not installed" >&2; exit 1; }
done

# The consumer is copied out, so that nothing it builds can reach into the source tree.
cp -r tests/install/consumer "$work/consumer"

echo "-- find_package(ferritcore 10)"
cmake -S "$work/consumer" -B "$work/consumer-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >"$work/consumer-configure.log" 2>&1 || {
  cat "$work/consumer-configure.log"; exit 1; }
ninja -C "$work/consumer-build" >"$work/consumer-build.log" 2>&1 || {
  cat "$work/consumer-build.log"; exit 1; }
# The imported target gives the build its run path, so the program runs as built.
(cd "$work" && FERRIT_LOG_LEVEL=1 "$work/consumer-build/consumer")

echo "-- cc \$(pkg-config --cflags --libs ferritcore)"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion ferritcore)" = 10.10.0 ] || {
  echo "check-install: pkg-config reports $(pkg-config --modversion ferritcore)" >&2; exit 1; }
# shellcheck disable=SC2046  # pkg-config's output is a list of flags
cc -std=c11 -Wall -Wextra -Werror -o "$work/consumer-pc" "$work/consumer/consumer.c" \
  $(pkg-config --cflags --libs ferritcore)
(cd "$work" && FERRIT_LOG_LEVEL=1 LD_LIBRARY_PATH=$libdir "$work/consumer-pc")
echo "check-install: the installed prefix serves both consumers"
