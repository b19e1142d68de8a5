#!/usr/bin/env bash
# Runs the browser story (tests/e2e, node --test) against a build folder: nginx and headless
# Chromium from the system, puppeteer-core from tests/e2e's lock file (scripts/setup.sh installs
# all three), the Node module and the ferrit tool of the build.
#   test-e2e.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
for file in node/ferritcore.node tools/ferrit; do
  [ -e "$build/$file" ] || { echo "test-e2e: $build/$file is missing" >&2; exit 1; }
done
[ -f tests/e2e/node_modules/puppeteer-core/package.json ] ||
  { echo "test-e2e: puppeteer-core is missing (scripts/setup.sh installs it)" >&2; exit 1; }
export FERRITCORE_ADDON="$build/node/ferritcore.node"
export FERRIT_BUILD="$build"
export FERRIT_LOG_LEVEL=${FERRIT_LOG_LEVEL:-1}
export PUPPETEER_SKIP_DOWNLOAD=1
node --test tests/e2e/*.test.js
