#!/usr/bin/env bash
# Configures and builds one flavour of the tree: build.sh DIR [cmake options...]
# Quiet when it succeeds; on a failure the end of the compiler's output is printed, so that a
# red CI run says which file did not build and why.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
shift
mkdir -p "$dir"
# CMake reads CC and CXX only when a directory is first configured; a directory made earlier with
# another compiler would keep it. Naming them, resolved as CMake stores them, makes CC=clang mean
# clang in every directory (a change of compiler starts that directory's configuration afresh).
compilers=()
if [ -n "${CC:-}" ]; then compilers+=("-DCMAKE_C_COMPILER=$(command -v "$CC")"); fi
if [ -n "${CXX:-}" ]; then compilers+=("-DCMAKE_CXX_COMPILER=$(command -v "$CXX")"); fi
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRIT_WERROR=ON \
  ${compilers[@]+"${compilers[@]}"} "$@" \
  >"$dir/configure.log" 2>&1 || { tail -n 60 "$dir/configure.log"; exit 1; }
ninja -C "$dir" >"$dir/build.log" 2>&1 || {
  grep -E -A 12 'FAILED|error:' "$dir/build.log" | head -n 80 || tail -n 60 "$dir/build.log"
  exit 1
}
