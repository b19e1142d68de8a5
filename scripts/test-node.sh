#!/usr/bin/env bash
# Runs the Node module's tests (node --test) against the addon of a build folder, then the type
# check of its declarations and the load of its installed package.
#   test-node.sh [BUILD_DIR] [--sanitized]
# --sanitized: the build has FERRIT_SANITIZE=ON; Node runs with the ASan runtime preloaded (leak
# checking off: Node keeps memory to its exit by design), and only the tests run.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
sanitized=${2:-}
for module in ferritcore ferritcore_probe; do
  [ -f "$build/node/$module.node" ] || { echo "test-node: $build/node/$module.node is missing" >&2; exit 1; }
done
# The signature tests publish their trees with the publisher's own tool.
[ -x "$build/tools/ferrit" ] || { echo "test-node: $build/tools/ferrit is missing" >&2; exit 1; }
export FERRITCORE_ADDON="$build/node/ferritcore.node"
export FERRITCORE_PROBE="$build/node/ferritcore_probe.node"
export FERRIT_TOOL="$build/tools/ferrit"
export FERRIT_LOG_LEVEL=${FERRIT_LOG_LEVEL:-1}

if [ "$sanitized" = "--sanitized" ]; then
  LD_PRELOAD="$(gcc -print-file-name=libasan.so) $(gcc -print-file-name=libubsan.so)" \
    ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    FERRIT_SANITIZED=1 FERRIT_MEMORY_CALLS=${FERRIT_MEMORY_CALLS:-20000} node --test node/test/*.test.js
  exit 0
fi

node --test node/test/*.test.js

# The declarations: the examples compile in strict mode and the misuses in must-fail/ are refused
# (the compiler and Node's types come from scripts/setup.sh; the check says so when they are missing).
node node/typecheck/check.js

# The package as a user installs it.
bash scripts/check-node-package.sh "$build"
