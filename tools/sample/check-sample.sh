#!/usr/bin/env bash
# Checks the sample app end to end through ferrit get, check and startup: every pack's signed list verifies
# with the sample key, a disk pack and a built-in pack answer, an on-demand pack answers only in
# the asynchronous form, and a list signed by another key is refused.
#   check-sample.sh PATH-TO-ferrit
set -euo pipefail
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cp -R "$here/root/." "$root/"
run() {  # run COMMAND ARGUMENTS...
  local command=$1; shift
  "$tool" "$command" --root "$root" --assets "$here/assets" --public-key "$here/keys/sample-ed25519.pub.pem" \
    --config "$here/config.json" "$@"
}
expect() {  # expect TEXT OUTPUT
  if ! grep -qF -- "$1" <<<"$2"; then
    echo "expected \"$1\" in:"; echo "$2"; exit 1
  fi
}

out=$(run check)
expect "kit@2 (Asset /Asset/Ferrit_Asset_kit/2/): signed list and files verified" "$out"
expect "shop@3 (Disk apps/shop/3/): signed list and files verified" "$out"

out=$(run get https://shop.example.com/app/index.html)
expect "X-Ferrit-Info: F:shop@3,0" "$out"
expect "body: $(wc -c < "$here/root/apps/shop/3/res/index.html" | tr -d ' ') bytes" "$out"

out=$(run get https://cdn.shop.example.com/kit/kit.css)
expect "Content-Type: text/css;charset=UTF-8" "$out"
expect "X-Ferrit-Info: S:kit@2,0" "$out"

out=$(run get https://shop.example.com/guide/guide.html || true)
expect "error: 1108" "$out"
out=$(run get --async https://shop.example.com/guide/guide.html)
expect "X-Ferrit-Info: S:guide@1,0" "$out"

# The same list under a key that did not sign it.
"$tool" keygen "$root/other.pem" "$root/other.pub.pem" >/dev/null
out=$("$tool" get --root "$root" --public-key "$root/other.pub.pem" --config "$here/config.json" \
  https://shop.example.com/app/index.html || true)
expect "error: 1106" "$out"
# Start-up as a host drives it, against the sample configuration endpoint: the signed document is
# fetched and merged, the report loses its codes one step at a time, and the pack still serves.
startroot=$(mktemp -d)
cp -R "$here/root/." "$startroot/"
out=$("$tool" startup --serve "$here/endpoint" --config-prefix https://config.example.com/ferrit/ \
  --app-key shop --app-version 1.0 --root "$startroot" \
  --assets "$here/assets" --public-key "$here/keys/sample-ed25519.pub.pem" --config "$here/config.json" \
  https://shop.example.com/app/js/app.js)
rm -rf "$startroot"
expect 'status after setProxy: {"version":"10.10.0-rc.5","process":"main","feature":0,"error":["NOT_SETUP","NOT_UPDATE_CONFIG","NOT_START_UPDATE"],"storage":"writable"}' "$out"
expect "requested https://config.example.com/ferrit/fconfig/shop/1.0/0~0/~" "$out"
expect "configuration version 1732200000000 with 4 packs" "$out"
expect 'status after startUpdate: {"version":"10.10.0-rc.5","process":"main","feature":0,"storage":"writable"}' "$out"
expect "X-Ferrit-Info: F:shop@3,0" "$out"
echo "sample app: all answers as expected"
