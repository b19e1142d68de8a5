#!/usr/bin/env bash
# Packs the Node module, installs the tarball into an empty folder and loads it from there.
#   check-node-package.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tarball=$(bash scripts/pack-node.sh "${1:?build folder}" "$work/dist")
mkdir "$work/app"
cd "$work/app"
npm init -y >/dev/null
npm install --no-audit --no-fund --silent "$tarball"
FERRIT_LOG_LEVEL=1 node -e "
const ferrit = require('ferritcore');
const names = Object.keys(ferrit);
if (names.length !== 19 || names[0] !== 'setProxyNative' || names[18] !== 'inspect') throw new Error(names.join());
if (typeof ferrit.getAccessAPINative() !== 'bigint') throw new Error('no table');
console.log('installed package loads: ' + names.length + ' functions');
"
