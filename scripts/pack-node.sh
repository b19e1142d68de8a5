#!/usr/bin/env bash
# Makes the installable package of the Node module: the files of node/ and the built addon,
# stripped of its symbols and debug sections (the build keeps them for debugging; a user needs
# neither, and they make most of its size), packed with `npm pack`. The package's "cpu" is the
# architecture the addon was built for, read from its ELF header. Checks that the stripped addon
# still loads from the staged package, refuses a tarball over the size limit, prints the sizes on
# stderr and the tarball's path on stdout.
#   pack-node.sh BUILD_DIR OUT_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:?build folder}" && pwd)
mkdir -p "${2:?output folder}"
out=$(cd "$2" && pwd)
addon="$build/node/ferritcore.node"
[ -f "$addon" ] || { echo "pack-node: $addon is missing; build the target ferritcore_node" >&2; exit 1; }
command -v strip >/dev/null || { echo "pack-node: strip is missing (Debian package binutils)" >&2; exit 1; }
# What a user downloads; the stripped addon alone is about 1.6 MB.
max_tarball_bytes=$((2 * 1024 * 1024))

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
for required in package.json LICENSE README.md index.js index.d.ts; do
  cp "node/$required" "$stage/"
done
# The package's own modules and the browser helper ship when they exist in this tree.
for optional in lib browser.js browser.d.ts; do
  [ -e "node/$optional" ] && cp -R "node/$optional" "$stage/"
done
strip --strip-unneeded -o "$stage/ferritcore.node" "$addon"

# The architecture in npm's words, from the ELF header's machine field (little-endian, offset 18).
cpu=$(node -e '
const fd = require("fs").openSync(process.argv[1], "r");
const header = Buffer.alloc(20);
require("fs").readSync(fd, header, 0, 20, 0);
const names = { 3: "ia32", 40: "arm", 62: "x64", 183: "arm64", 243: "riscv64" };
const name = header.toString("latin1", 1, 4) === "ELF" ? names[header.readUInt16LE(18)] : undefined;
if (!name) { console.error("pack-node: the addon is no ELF file of a known machine"); process.exit(1); }
console.log(name);' "$stage/ferritcore.node")
node -e '
const fs = require("fs");
const file = process.argv[1];
const manifest = JSON.parse(fs.readFileSync(file, "utf8"));
manifest.cpu = [process.argv[2]];
fs.writeFileSync(file, JSON.stringify(manifest, null, 2) + "\n");' "$stage/package.json" "$cpu"

# The stripped addon loads from the package, without the build's addon in the environment.
(cd "$stage" && env -u FERRITCORE_ADDON FERRIT_LOG_LEVEL=1 node -e '
const ferrit = require("./");
const names = Object.getOwnPropertyNames(require("./ferritcore.node"));
if (names.length !== 18 || typeof ferrit.getAccessAPINative() !== "bigint")
  throw new Error("the stripped addon does not load: " + names.join());') ||
  { echo "pack-node: the stripped addon does not load" >&2; exit 1; }

name=$(cd "$stage" && npm pack --silent --pack-destination "$out" 2>/dev/null | tail -n 1)
tarball="$out/$name"
size=$(stat -c %s "$tarball")
echo "pack-node: $name is $size bytes (addon $(stat -c %s "$addon") bytes, stripped" \
  "$(stat -c %s "$stage/ferritcore.node"); cpu $cpu)" >&2
if [ "$size" -gt "$max_tarball_bytes" ]; then
  echo "pack-node: $name is over the limit of $max_tarball_bytes bytes" >&2
  exit 1
fi
echo "$tarball"
