#!/usr/bin/env bash
# Sets everything up and serves URLs of the sample app (tools/sample/) through the library with the
# ferrit tool, printing what the host would receive. The app has one pack installed on the disk
# under the root ("shop", read through its signed resource list) and two packs shipped in its
# raw-file folder and named by the built-in configuration "Ferrit_Asset.config": "kit", and
# "guide", which arrives as an on-demand module and so is only read by the asynchronous form.
# Last, the host's start-up order against the sample configuration endpoint (tools/sample/endpoint),
# with the status report after each step.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh build
tool=build/tools/ferrit
sample=tools/sample
# The library empties and creates folders under its root: work on a copy of the sample's.
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cp -R "$sample/root/." "$root/"
request() {
  "$tool" "$@" --root "$root" --assets "$sample/assets" --public-key "$sample/keys/sample-ed25519.pub.pem" \
    --config "$sample/config.json" || true
}

for url in https://shop.example.com/app/index.html https://shop.example.com/app/js/app.js \
           "https://shop.example.com/app/css/app.css?v=3" https://cdn.shop.example.com/kit/kit.css \
           https://cdn.shop.example.com/kit/icons/cart.svg https://shop.example.com/app/missing.js \
           https://elsewhere.example.org/x.js https://shop.example.com/guide/guide.html; do
  echo "== GET $url"
  request get "$url"
  echo
done
echo "== GET https://shop.example.com/guide/guide.html (asynchronous form)"
request get --async https://shop.example.com/guide/guide.html
echo
echo "== verify every installed pack: signed list and files"
request check
echo
echo "== start-up as a host drives it: proxy, setup, first configuration from the sample endpoint, startUpdate"
startroot=$(mktemp -d)
trap 'rm -rf "$root" "$startroot"' EXIT
cp -R "$sample/root/." "$startroot/"
"$tool" startup --serve "$sample/endpoint" --app-key shop --app-version 1.0 --root "$startroot" \
  --assets "$sample/assets" --public-key "$sample/keys/sample-ed25519.pub.pem" --config "$sample/config.json" \
  https://shop.example.com/app/js/app.js || true
