#!/usr/bin/env bash
# Checks the developer inspector through the request tool: "inspect COMMAND [JSON]" against a root
# with the sample app's raw files.
#   check-inspect.sh PATH-TO-ferrit-request
set -euo pipefail
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
run() {
  "$tool" --root "$root" --assets "$here/assets" --public-key "$here/keys/sample-ed25519.pub.pem" \
    --serve "$here/endpoint" inspect "$@"
}
expect() {  # expect TEXT OUTPUT
  if ! grep -qF -- "$1" <<<"$2"; then
    echo "expected \"$1\" in:"; echo "$2"; exit 1
  fi
}

out=$(run FerritDev.info)
expect 'success {"version":"10.10.0-rc.5","process":"main"' "$out"
out=$(run FerritDev.getURLList '{"packName":"kit"}')
expect 'success {"urls":["https://cdn.shop.example.com/kit/icons/cart.svg","https://cdn.shop.example.com/kit/kit.css"]}' "$out"
out=$(run FerritDev.getURLList '{"packName":"none"}' || true)
expect 'failure {"message":"未找到配置"}' "$out"
out=$(run FerritDev.readDiskFileList '{"packName":"none"}')
expect 'success {}' "$out"
out=$(run FerritDev.getURLInfo '{"url":"https://cdn.shop.example.com/kit/kit.css"}')
expect '"name":"S:kit@2"' "$out"
out=$(run FerritDev.size)
expect '"SCache":{"count":2,' "$out"
out=$(run FerritDev.isEnabled)
expect 'success {"enabled":true}' "$out"
# The update reads the configuration from the served folder, as a host's network would deliver it.
out=$("$tool" --root "$root" --assets "$here/assets" --public-key "$here/keys/sample-ed25519.pub.pem" \
  --serve "$here/endpoint" --config-prefix https://config.example.com/ferrit/ --app-key shop \
  --app-version 1.0 inspect FerritDev.update)
expect 'success {}' "$out"
out=$(run FerritDev.cleanup)
expect 'success {"cleanedApps":[' "$out"
out=$("$tool" --root "$root" inspect FerritDev.nothing 2>&1 || true)
expect "no such command: FerritDev.nothing" "$out"
echo "inspector through the request tool: all answers as expected"
