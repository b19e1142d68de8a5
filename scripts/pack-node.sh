#!/usr/bin/env bash
# Makes the installable package of the Node module: the files of node/ and the built addon, packed
# with `npm pack`. Prints the tarball's path.
#   pack-node.sh BUILD_DIR OUT_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:?build folder}" && pwd)
mkdir -p "${2:?output folder}"
out=$(cd "$2" && pwd)
addon="$build/node/ferritcore.node"
[ -f "$addon" ] || { echo "pack-node: $addon is missing; build the target ferritcore_node" >&2; exit 1; }
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cp node/package.json node/index.js node/index.d.ts node/README.md "$addon" "$stage/"
(cd "$stage" && npm pack --silent --pack-destination "$out") | tail -n 1 | sed "s#^#$out/#"
