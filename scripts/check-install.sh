#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and uses it as a host would, knowing nothing of
# the source tree: a CMake project finds it with find_package(ferritcore 11), and the same C source
# is compiled with cc and pkg-config. Both programs run and must get the cache's answer.
# Then the C example (examples/c-host) is built both ways and run against a tree published with
# the build's `ferrit` and served on loopback: the pack is installed and served; against a tree
# signed by another key, the update is refused in words and nothing is installed.
#   check-install.sh [BUILD_DIR]   (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
tool=$build/tools/ferrit
[ -x "$tool" ] || { echo "check-install: $tool is missing; build the target ferrit" >&2; exit 1; }
work=$(mktemp -d)
servers=()
cleanup() {
  for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# The versioned names, and the SONAME that a host records.
libdir=$prefix/lib
[ "$(readlink "$libdir/libferritcore.so")" = libferritcore.so.11 ] || {
  echo "check-install: libferritcore.so does not link to libferritcore.so.11" >&2; exit 1; }
[ "$(readlink "$libdir/libferritcore.so.11")" = libferritcore.so.11.0.0 ] || {
  echo "check-install: libferritcore.so.11 does not link to libferritcore.so.11.0.0" >&2; exit 1; }
readelf -d "$libdir/libferritcore.so.11.0.0" | grep -q 'Library soname: \[libferritcore.so.11\]' || {
  echo "check-install: the SONAME is not libferritcore.so.11" >&2; exit 1; }
for header in include/ferritcore/*.h; do
  [ -f "$prefix/$header" ] || { echo "check-install: $header was not installed" >&2; exit 1; }
done

# The consumer is copied out, so that nothing it builds can reach into the source tree.
cp -r tests/install/consumer "$work/consumer"

echo "-- find_package(ferritcore 11)"
cmake -S "$work/consumer" -B "$work/consumer-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >"$work/consumer-configure.log" 2>&1 || {
  cat "$work/consumer-configure.log"; exit 1; }
ninja -C "$work/consumer-build" >"$work/consumer-build.log" 2>&1 || {
  cat "$work/consumer-build.log"; exit 1; }
# The imported target gives the build its run path, so the program runs as built.
(cd "$work" && FERRIT_LOG_LEVEL=1 "$work/consumer-build/consumer")

echo "-- cc \$(pkg-config --cflags --libs ferritcore)"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion ferritcore)" = 11.0.0 ] || {
  echo "check-install: pkg-config reports $(pkg-config --modversion ferritcore)" >&2; exit 1; }
# shellcheck disable=SC2046  # pkg-config's output is a list of flags
cc -std=c11 -Wall -Wextra -Werror -o "$work/consumer-pc" "$work/consumer/consumer.c" \
  $(pkg-config --cflags --libs ferritcore)
(cd "$work" && FERRIT_LOG_LEVEL=1 LD_LIBRARY_PATH=$libdir "$work/consumer-pc")
echo "check-install: the installed prefix serves both consumers"

# ---- The C example, copied out like the consumer.
cp -r examples/c-host "$work/c-host"
echo "-- examples/c-host with find_package(ferritcore 11)"
cmake -S "$work/c-host" -B "$work/c-host-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >"$work/c-host-configure.log" 2>&1 || {
  cat "$work/c-host-configure.log"; exit 1; }
ninja -C "$work/c-host-build" >"$work/c-host-build.log" 2>&1 || {
  cat "$work/c-host-build.log"; exit 1; }
echo "-- examples/c-host with cc \$(pkg-config --cflags --libs ferritcore) -lcurl"
# shellcheck disable=SC2046  # pkg-config's output is a list of flags
cc -std=c11 -Wall -Wextra -Werror -o "$work/c-host-pc" "$work/c-host/c_host.c" \
  $(pkg-config --cflags --libs ferritcore) -lcurl
# Nothing of the source tree in what the example compiled against: every header it read comes
# from the prefix or the system.
# shellcheck disable=SC2046
cc -std=c11 -fsyntax-only -M -MF "$work/c-host-pc.d" "$work/c-host/c_host.c" \
  $(pkg-config --cflags ferritcore)
ninja -C "$work/c-host-build" -t deps >"$work/c-host-cmake.d"
for deps in "$work/c-host-pc.d" "$work/c-host-cmake.d"; do
  if grep -q "$PWD/" "$deps"; then
    echo "check-install: the C example read a file of the source tree:" >&2
    grep "$PWD/" "$deps" >&2; exit 1
  fi
  grep -q "$prefix/[^ ]*include/ferritcore/ferritcore.h" "$deps" || {
    echo "check-install: the C example did not read the installed ferritcore.h" >&2; exit 1; }
done

# The publisher's side: two keys, one page in one pack, published twice: signed by the key the
# example is given, and by the other one.
keys=$work/keys
mkdir -p "$keys" "$work/site/app"
"$tool" keygen "$keys/publisher.pem" "$keys/publisher.pub.pem" >/dev/null
"$tool" keygen "$keys/other.pem" "$keys/other.pub.pem" >/dev/null
printf '<!doctype html>\n<title>c host</title>\n<p>served from the pack</p>\n' \
  >"$work/site/app/index.html"
cat >"$work/manifest.json" <<'JSON'
{"app": {"key": "demo", "version": "1.0", "locale": "en-US"}, "zips": "packs/",
 "packs": [{"name": "demo", "folder": "app", "prefix": "https://app.example.com/", "priority": 9}]}
JSON
"$tool" publish --key "$keys/publisher.pem" --manifest "$work/manifest.json" \
  "$work/site" "$work/tree" >/dev/null
"$tool" publish --key "$keys/other.pem" --manifest "$work/manifest.json" \
  "$work/site" "$work/other-tree" >/dev/null

# Serves a tree on a free loopback port and sets `base` to its address: the server's first line
# says the port it took, read through a pipe (the read's timeout only guards against a hang). The
# servers are stopped on exit.
serve() {
  local fifo=$work/server-${#servers[@]}.port line=""
  mkfifo "$fifo"
  python3 -u -m http.server 0 --bind 127.0.0.1 --directory "$1" >"$fifo" 2>"$fifo.log" &
  servers+=($!)
  read -r -t 20 line <"$fifo" || true
  [[ $line =~ ^Serving\ HTTP\ on\ 127\.0\.0\.1\ port\ ([0-9]+) ]] || {
    echo "check-install: the HTTP server did not start: $line" >&2; cat "$fifo.log" >&2; exit 1; }
  base=http://127.0.0.1:${BASH_REMATCH[1]}/
}
serve "$work/tree"
good=$base
serve "$work/other-tree"
other=$base

url=https://app.example.com/index.html
run_example() { # BINARY ROOT SERVER -> the example's exit code; its output in $work/run.log
  local status=0
  (cd "$work" && LD_LIBRARY_PATH=$libdir timeout 60 "$1" --expect-file "$work/site/app/index.html" \
    --timeout 20 "$2" demo 1.0 "$keys/publisher.pub.pem" "$3" "$url") >"$work/run.log" 2>&1 ||
    status=$?
  return $status
}
for example in "$work/c-host-build/c-host" "$work/c-host-pc"; do
  name=$(basename "$example")
  root=$work/root-$name
  run_example "$example" "$root" "$good" || {
    echo "check-install: $name exited $? against the tree signed by its key:" >&2
    cat "$work/run.log" >&2; exit 1; }
  grep -q "^$url: $(stat -c %s "$work/site/app/index.html") bytes from the pack" "$work/run.log" || {
    echo "check-install: $name did not serve $url from the pack:" >&2; cat "$work/run.log" >&2; exit 1; }
  echo "$name: $(grep -m1 "^$url:" "$work/run.log")"

  # Another key: the example must fail with the refusal (exit 3) in words, and its fresh root
  # serves nothing.
  status=0
  run_example "$example" "$root-other" "$other" || status=$?
  if [ "$status" -ne 3 ] || ! grep -q "refused: .*verify failed" "$work/run.log" ||
    ! grep -q "^$url: not served" "$work/run.log"; then
    echo "check-install: $name exited $status against a tree signed by another key:" >&2
    cat "$work/run.log" >&2; exit 1
  fi
  echo "$name: $(grep -m1 -o "refused: .*" "$work/run.log")"
  echo "$name: $(grep -m1 "^$url:" "$work/run.log")"
done
echo "check-install: the C example installs and serves a signed pack and refuses another key"
