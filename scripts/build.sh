#!/usr/bin/env bash
# Configures and builds one flavour of the tree: build.sh DIR [cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
shift
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRIT_WERROR=ON "$@" >/dev/null
ninja -C "$dir" >/dev/null
