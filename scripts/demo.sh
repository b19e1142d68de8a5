#!/usr/bin/env bash
# Sets everything up and runs the main job as a user sees it: a web app is published as packs
# with `ferrit publish`, nginx serves the static tree on loopback, the package's open() starts the
# library and installs the packs, nginx stops, and headless Chromium loads the app with every
# request answered from the packs through the package's servePage; then a second version arrives
# as an increment, and the network's faults (a server gone mid-download, a damaged zip, a bad
# signature, a slow server) leave the installed version serving; the site goes back to version
# one by an increment, and last one line of the app's 11 MB script changes and arrives as a
# patched increment. Prints one line per step with the page load times, then how soon two pages
# are ready from packs against nginx.
# The sample app through the command-line tool alone: scripts/demo-sample.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
echo "== building the library's Node module and the ferrit tool"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRIT_WERROR=ON >/dev/null
ninja -C build ferrit ferritcore_node >/dev/null
echo "== the story (nginx, headless Chromium, the package's open() and servePage)"
export FERRITCORE_ADDON="$PWD/build/node/ferritcore.node"
export FERRIT_BUILD="$PWD/build"
export FERRIT_LOG_LEVEL=${FERRIT_LOG_LEVEL:-1}
export PUPPETEER_SKIP_DOWNLOAD=1
export FERRIT_INSPECTOR_SCREENSHOT="$PWD/build/inspector.png"
set +e
node tests/e2e/story.test.js 2>&1 | sed -nE \
  -e '/^# [0-9.]+ s: (closed |nginx stopped)/d' \
  -e 's/^# ([0-9.]+ s: .*)$/  \1/p' \
  -e 's/^# (page of .*)$/  load time, \1/p' \
  -e 's/^ +ok [0-9]+ - (.*)$/  passed: \1/p' \
  -e 's/^ +not ok [0-9]+ - (.*)$/  FAILED: \1/p' \
  -e 's/^# (pass|fail) ([0-9]+)$/  \1 \2/p'
status=${PIPESTATUS[0]}
echo "== page ready: from packs, from nginx on loopback, from nginx behind 100 ms"
node tests/e2e/pageready.test.js 2>&1 | sed -nE \
  -e 's/^(story|bundle) page (.*)$/  \1 page \2/p' \
  -e 's/^ *not ok [0-9]+ - (.*)$/  FAILED: \1/p'
ready=${PIPESTATUS[0]}
[ "$status" -ne 0 ] || status=$ready
set -e
echo "== the inspector page's screenshot: build/inspector.png"
exit "$status"
