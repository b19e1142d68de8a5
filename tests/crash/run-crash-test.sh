#!/usr/bin/env bash
# The long run of the install crash test, by hand: 1,000 kill points for each kind of pack (the CI
# run takes 200). Usage: tests/crash/run-crash-test.sh [BUILD_DIR] [POINTS]
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
points=${2:-1000}
ninja -C "$build" install_crash_test >/dev/null
FERRIT_CRASH_POINTS=$points "$build/tests/install_crash_test"
