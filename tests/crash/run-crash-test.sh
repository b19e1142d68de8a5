#!/usr/bin/env bash
# The long run of the install crash test, by hand: 1,000 kill points for each kind of pack (the CI
# run takes 200), over a pack of 320 files so that the disk install has more distinct steps than
# points (the packed one writes a few pages per file and has fewer).
# Usage: tests/crash/run-crash-test.sh [BUILD_DIR] [POINTS] [FILES]
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
points=${2:-1000}
files=${3:-320}
ninja -C "$build" install_crash_test >/dev/null
FERRIT_CRASH_POINTS=$points FERRIT_CRASH_FILES=$files "$build/tests/install_crash_test"
