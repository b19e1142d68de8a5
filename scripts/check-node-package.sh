#!/usr/bin/env bash
# Installs the Node package as a user does and runs the README's first example as written: packs
# the tarball (scripts/pack-node.sh), installs it with npm into an empty folder, saves the first
# ```js block of the README there as host.js, publishes a signed tree with the build's `ferrit
# publish` (app "demo" 1.0, the locale Intl gives, one pack whose prefix covers the URL asked),
# serves it from a loopback HTTP server and runs `node host.js SERVER URL` in that folder, which
# holds the publisher's public key as publisher.pub.pem. Passes when the example exits 0 and
# prints "<URL>: <n> bytes from the pack" with n the size of the published file.
#   check-node-package.sh BUILD_DIR [README]
# README defaults to node/README.md (another file only to try this check itself).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
build=$(cd "${1:?build folder}" && pwd)
readme=$(realpath "${2:-node/README.md}")
tool="$build/tools/ferrit"
[ -x "$tool" ] || { echo "check-node-package: $tool is missing; build the target ferrit" >&2; exit 1; }
keys="$PWD/tools/sample/keys"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

tarball=$(bash scripts/pack-node.sh "$build" "$work/dist")
mkdir "$work/app"
# Offline: the package has no dependencies, and the check reaches nothing beyond loopback.
(cd "$work/app" && npm init -y >/dev/null &&
  npm install --offline --no-audit --no-fund --silent "$tarball" 2>&1 | { grep -v 'Unknown user config' || true; })

# Every system library the addon needs is named in the README's table, so that a user on a
# machine without one learns which package to install.
addon="$work/app/node_modules/ferritcore/ferritcore.node"
for needed in $(readelf -d "$addon" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
  # The dynamic loader comes with the C library, and its name with the architecture.
  [[ $needed == ld-linux* ]] && continue
  grep -q "\`$needed\`" "$readme" ||
    { echo "check-node-package: the addon needs $needed, which $readme does not name" >&2; exit 1; }
done

# The example as the README shows it: the first block fenced as ```js.
awk '/^```js[[:space:]]*$/ { inside = 1; next } inside && /^```/ { exit } inside { print }' \
  "$readme" >"$work/app/host.js"
[ -s "$work/app/host.js" ] || { echo "check-node-package: $readme has no \`\`\`js block" >&2; exit 1; }
cp "$keys/sample-ed25519.pub.pem" "$work/app/publisher.pub.pem"

# The publisher's side: one pack of one page, for the locale a user's Node reports by default.
locale=$(node -p "Intl.DateTimeFormat().resolvedOptions().locale")
prefix="https://app.example.com/demo/"
url="${prefix}index.html"
mkdir -p "$work/site/app"
printf '<!doctype html>\n<title>demo</title>\n<p>served from the pack</p>\n' >"$work/site/app/index.html"
cat >"$work/manifest.json" <<JSON
{"app": {"key": "demo", "version": "1.0", "locale": "$locale"}, "zips": "packs/",
 "packs": [{"name": "demo", "folder": "app", "prefix": "$prefix", "priority": 9}]}
JSON
"$tool" publish --key "$keys/sample-ed25519.pem" --manifest "$work/manifest.json" \
  "$work/site" "$work/tree" >/dev/null

# Serves the tree on loopback, runs the example against it with a deadline that only guards
# against a hang, and judges what it printed.
cd "$work/app"
env -u FERRITCORE_ADDON node - "$work/tree" "$url" "$(stat -c %s "$work/site/app/index.html")" <<'JS'
const { spawn } = require('child_process');
const fs = require('fs');
const http = require('http');
const path = require('path');
const [tree, url, size] = process.argv.slice(2);
// Far above the few seconds the example takes; only a hang reaches it.
const kDeadlineMs = 25000;

const server = http.createServer((req, res) => {
  const file = path.join(tree, decodeURIComponent(req.url.split('?')[0]));
  if (!file.startsWith(tree + path.sep)) {
    res.writeHead(403).end();
    return;
  }
  fs.readFile(file, (error, body) => {
    if (error) res.writeHead(404).end();
    else res.writeHead(200, { 'Content-Length': body.length }).end(body);
  });
});
server.listen(0, '127.0.0.1', () => {
  const base = `http://127.0.0.1:${server.address().port}/`;
  const child = spawn(process.execPath, ['host.js', base, url], { stdio: ['ignore', 'pipe', 'pipe'] });
  let out = '';
  let err = '';
  child.stdout.on('data', (chunk) => { out += chunk; });
  child.stderr.on('data', (chunk) => { err += chunk; });
  const guard = setTimeout(() => child.kill('SIGKILL'), kDeadlineMs);
  child.on('close', (code, signal) => {
    clearTimeout(guard);
    server.close();
    const expected = `${url}: ${size} bytes from the pack`;
    const printed = out.split('\n').includes(expected);
    if (code === 0 && printed) {
      console.log(`check-node-package: the installed package ran the README's example: ${expected}`);
      return;
    }
    const why = signal ? `was killed after ${kDeadlineMs} ms` : `exited ${code}`;
    console.error(`check-node-package: the README's example ${why}` +
      (printed ? '' : ` without the line "${expected}"`));
    console.error(`--- its output:\n${out}--- its errors (last lines):\n${err.split('\n').slice(-40).join('\n')}`);
    process.exitCode = 1;
  });
});
JS

# The declarations resolve through the package's "exports" as a TypeScript user's compiler finds
# them (Node's module resolution, strict), with the compiler and Node's types of node/typecheck
# (node/typecheck/check.js checks the declaration files themselves; here only their use).
typecheck="$repo/node/typecheck/node_modules"
[ -f "$typecheck/typescript/bin/tsc" ] ||
  { echo "check-node-package: $typecheck/typescript is missing; run scripts/setup.sh" >&2; exit 1; }
{
  echo "import * as ferrit from 'ferritcore';"
  echo "const nothing: undefined = ferrit.getResourceSyncNative();"
  echo "void nothing;"
  [ -f "$repo/node/browser.d.ts" ] && echo "import * as browser from 'ferritcore/browser'; void browser;"
} >"$work/app/types.ts"
cat >"$work/app/tsconfig.json" <<JSON
{"compilerOptions": {"strict": true, "noEmit": true, "target": "ES2022", "module": "node16",
  "moduleResolution": "node16", "types": ["node"], "typeRoots": ["$typecheck/@types"],
  "skipLibCheck": true},
 "files": ["types.ts"]}
JSON
node "$typecheck/typescript/bin/tsc" -p "$work/app" ||
  { echo "check-node-package: the installed package's declarations do not compile" >&2; exit 1; }
echo "check-node-package: the installed package's declarations resolve and compile"

# The browser helper ships in the same package once it exists in the tree.
if [ -f "$repo/node/browser.js" ]; then
  env -u FERRITCORE_ADDON FERRIT_LOG_LEVEL=1 node -e "
const browser = require('ferritcore/browser');
if (typeof browser.servePage !== 'function') throw new Error('ferritcore/browser has no servePage');
console.log('check-node-package: ferritcore/browser loads');"
fi
