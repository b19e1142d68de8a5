#!/usr/bin/env bash
# Runs the browser story (tests/e2e, node --test) against a build folder: nginx and headless
# Chromium from the system, puppeteer-core and the two pinned releases from tests/e2e's lock file
# (scripts/setup.sh installs them all), the Node module and the ferrit tool of the build.
#   test-e2e.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
for file in node/ferritcore.node tools/ferrit; do
  [ -e "$build/$file" ] || { echo "test-e2e: $build/$file is missing" >&2; exit 1; }
done
# The two pinned releases came to the lock file after puppeteer-core: a tree installed before
# them has the one and not the others.
for module in puppeteer-core release-old release-new; do
  [ -f "tests/e2e/node_modules/$module/package.json" ] ||
    { echo "test-e2e: $module is missing (scripts/setup.sh installs it)" >&2; exit 1; }
done
export FERRITCORE_ADDON="$build/node/ferritcore.node"
export FERRIT_BUILD="$build"
export FERRIT_LOG_LEVEL=${FERRIT_LOG_LEVEL:-1}
export PUPPETEER_SKIP_DOWNLOAD=1
node --test tests/e2e/*.test.js
