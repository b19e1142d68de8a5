#!/usr/bin/env bash
# Checks the developer inspector through ferrit: "inspect COMMAND [JSON]" against a root with the
# sample app's raw files. Each reply is a JSON document on stdout; a failed command exits 1.
#   check-inspect.sh PATH-TO-ferrit
set -euo pipefail
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
run() {
  "$tool" inspect --root "$root" --assets "$here/assets" --public-key "$here/keys/sample-ed25519.pub.pem" \
    --serve "$here/endpoint" "$@"
}
expect() {  # expect TEXT OUTPUT
  if ! grep -qF -- "$1" <<<"$2"; then
    echo "expected \"$1\" in:"; echo "$2"; exit 1
  fi
}

out=$(run FerritDev.info)
expect '{"version":"10.10.0-rc.5","process":"main"' "$out"
out=$(run FerritDev.getURLList '{"packName":"kit"}')
expect '{"urls":["https://cdn.shop.example.com/kit/icons/cart.svg","https://cdn.shop.example.com/kit/kit.css"]}' "$out"
out=$(run FerritDev.getURLList '{"packName":"none"}' 2>/dev/null || true)
expect '{"message":"未找到配置"}' "$out"
set +e; run FerritDev.getURLList '{"packName":"none"}' >/dev/null 2>&1; code=$?; set -e
[ "$code" -eq 1 ] || { echo "a failed inspector command exited $code, not 1"; exit 1; }
out=$(run FerritDev.readDiskFileList '{"packName":"none"}')
[ "$out" = '{}' ] || { echo "readDiskFileList: $out"; exit 1; }
out=$(run FerritDev.getURLInfo '{"url":"https://cdn.shop.example.com/kit/kit.css"}')
expect '"name":"S:kit@2"' "$out"
out=$(run FerritDev.size)
expect '"SCache":{"count":2,' "$out"
out=$(run FerritDev.isEnabled)
[ "$out" = '{"enabled":true}' ] || { echo "isEnabled: $out"; exit 1; }
# The update reads the configuration from the served folder, as a host's network would deliver it.
out=$(run --config-prefix https://config.example.com/ferrit/ --app-key shop --app-version 1.0 \
  FerritDev.update)
[ "$out" = '{}' ] || { echo "update: $out"; exit 1; }
out=$(run FerritDev.cleanup)
expect '{"cleanedApps":[' "$out"
out=$("$tool" inspect --root "$root" FerritDev.nothing 2>&1 || true)
expect "ferrit inspect: no such inspector command: FerritDev.nothing" "$out"
echo "inspector through ferrit: all answers as expected"
