#!/usr/bin/env bash
# Runs the Node module's tests (node --test) against the addon of a build folder.
#   test-node.sh [BUILD_DIR]   (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
for module in ferritcore ferritcore_probe; do
  [ -f "$build/node/$module.node" ] || { echo "test-node: $build/node/$module.node is missing" >&2; exit 1; }
done
export FERRITCORE_ADDON="$build/node/ferritcore.node"
export FERRITCORE_PROBE="$build/node/ferritcore_probe.node"
export FERRIT_LOG_LEVEL=${FERRIT_LOG_LEVEL:-1}
node --test node/test/*.test.js

# The declarations against the README's example (the compiler comes from scripts/setup.sh).
tsc=node/typecheck/node_modules/.bin/tsc
if [ -x "$tsc" ]; then
  "$tsc" -p node/typecheck && echo "typecheck: index.d.ts and the example agree"
else
  echo "test-node: $tsc is missing (scripts/setup.sh installs it); typecheck skipped" >&2
  exit 1
fi

# The package as a user installs it.
bash scripts/check-node-package.sh "$build"
